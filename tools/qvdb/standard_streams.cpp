// The standard streams that the tool was started without.
#include "standard_streams.h"

#include <fcntl.h>
#include <unistd.h>

namespace qvdb::tool {

// In ascending order: the lowest free descriptor is then the stream itself. Input is opened for
// writing, so that nothing takes a stream that is missing for an empty one.
void openMissingStreams() {
  for (int stream = STDIN_FILENO; stream <= STDERR_FILENO; ++stream) {
    if (::fcntl(stream, F_GETFD) >= 0) continue;
    if (::open("/dev/null", O_WRONLY) >= 0) continue;
    // Without devices anything that cannot be read or written does.
    static_cast<void>(::open("/", O_RDONLY | O_DIRECTORY));
  }
}

}  // namespace qvdb::tool
