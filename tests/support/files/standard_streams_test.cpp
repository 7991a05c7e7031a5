// Descriptors 0 to 2 are the standard streams, also where they are closed: no file gets one, or the
// next diagnostic would go into it.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <qvdbase/QVFile.h>
#include <unistd.h>

#include "kit/bytes.h"
#include "kit/forked.h"
#include "kit/temp_folder.h"
#include "platform/handles/new_file.h"
#include "platform/handles/read_only_file.h"
#include "platform/paths/directory.h"

namespace qvdbase::test {
namespace {

// Whether a diagnostic written to any of these streams would find no file.
bool streamsAreClosed(int streams) {
  for (int i = 0; i < 3; ++i) {
    if ((streams & (1 << i)) != 0 && ::fcntl(i, F_GETFD) >= 0) return false;
  }
  return true;
}

// What this process can open, each held open until the end. 0, or the number of the step after
// which a file had a closed stream.
int openEverything(TempFolder& folder, int streams) {
  int16_t created = 0;
  if (QVFile().QVCreateAndOpenFile(folder.wide("d/new"), 3, &created, 0) != 1) return 1;
  if (!streamsAreClosed(streams)) return 2;
  for (int permission = 0; permission <= 4; ++permission) {
    int16_t opened = 0;
    const auto name = "f" + std::to_string(permission);
    if (QVFile().QVOpenFile(folder.wide(name), permission, &opened) != 1) return 10 + permission;
    if (!streamsAreClosed(streams)) return 20 + permission;
  }
  platform::Directory directory;
  if (!directory.enterRoot() || !streamsAreClosed(streams)) return 3;
  platform::NewFile made;
  if (!made.create((folder / "made").native()) || !streamsAreClosed(streams)) return 4;
  platform::ReadOnlyFile read;
  if (!read.open((folder / "f1").native()) || !streamsAreClosed(streams)) return 5;
  uint32_t moved = 0;
  return QVFile().QVWriteFile(created, "bytes", 5, &moved) == 1 ? 0 : 6;
}

TEST(ClosedStandardStreams, AreGivenToNoFile) {
  for (int streams = 1; streams < 8; ++streams) {
    TempFolder folder;
    for (int i = 0; i <= 4; ++i) writeFile(folder / ("f" + std::to_string(i)), bytesOf("bytes"));
    EXPECT_EQ(inForkedChild([&] {
                for (int i = 0; i < 3; ++i) {
                  if ((streams & (1 << i)) != 0) ::close(i);
                }
                return openEverything(folder, streams);
              }),
              0)
        << "streams " << streams;
    EXPECT_EQ(readFile(folder / "d" / "new").str(), "bytes");
  }
}

}  // namespace
}  // namespace qvdbase::test
