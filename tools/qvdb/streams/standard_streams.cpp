// The standard streams that the tool was started without.
#include "streams/standard_streams.h"

#include <fcntl.h>
#include <unistd.h>

namespace qvdb::tool {

// In ascending order: the lowest free descriptor is then the stream itself. Input is opened for
// writing, so that a missing stream is not taken for an empty one.
void openMissingStreams() {
  for (int stream = STDIN_FILENO; stream <= STDERR_FILENO; ++stream) {
    if (::fcntl(stream, F_GETFD) >= 0) continue;
    if (::open("/dev/null", O_WRONLY) >= 0) continue;
    // Where there is no null device, anything will do that can be neither read nor written.
    static_cast<void>(::open("/", O_RDONLY | O_DIRECTORY));
  }
}

}  // namespace qvdb::tool
