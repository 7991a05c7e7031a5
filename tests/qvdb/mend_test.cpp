// qvdb::mend works on the file that it has opened and locked, and on no other, and says what the
// host answered.
#include <filesystem>

#include "qvdb/layer_fixture.h"
#include "support/file_image.h"
#include "support/replaced_calls.h"

namespace qvdbase::test {
namespace {

namespace fs = std::filesystem;
using qvdb::Reason;

// A record that was written and never linked, at the end of the file.
Bytes cutOffAppend() {
  FileImage image;
  const std::size_t table = image.addTable("notes", 0x11);
  const std::int64_t first = image.addRecord(table, 0xA1, bytesOf("first"));
  image.addRecord(table, 0xA2, bytesOf("second"));
  SlotFields& slot = image.slot(table);
  slot.recordCount = slot.recordWriteCount = 1;
  slot.lastRecordPos = slot.lastWrittenRecordPos = first;
  image.record(first).nextRecordPos = 0;
  return image.build();
}

constexpr std::size_t kSecondSize = 56 + 6;

class Mend : public LayerTest {
 protected:
  Mend() {
    allowDamage();
    allowDamage("opened.qvd");
  }
};

TEST_F(Mend, ChangesTheFileThatItHasLockedWhateverTheNameLeadsToMeanwhile) {
  static fs::path name;
  static fs::path opened;
  static fs::path other;
  name = path();
  opened = path("opened.qvd");
  other = path("other.qvd");
  const Bytes damaged = cutOffAppend();
  writeFile(path(), damaged);
  writeFile(other, damaged);
  {
    ReplacedCalls calls;
    // The first read follows the opening and the lock.
    calls->readAt = [](int descriptor, void* buffer, std::size_t count, off_t position) {
      if (!fs::exists(opened)) {
        fs::rename(name, opened);
        fs::rename(other, name);
      }
      return platform::hostSystemCalls().readAt(descriptor, buffer, count, position);
    };
    const qvdb::MendReport report = qvdb::mend(path(), {.cut_off = qvdb::CutOffWrites::discard});
    EXPECT_FALSE(report.steps.empty());
  }
  ASSERT_TRUE(fs::exists(opened));
  EXPECT_EQ(readFile(opened).size(), damaged.size() - kSecondSize);
  EXPECT_EQ(readFile(path()), damaged);
}

TEST_F(Mend, SaysThatTheHostDoesNotShortenTheFile) {
  writeFile(path(), cutOffAppend());
  ReplacedCalls calls;
  calls->truncate = [](int, off_t) {
    errno = EIO;
    return -1;
  };
  const std::string message = expectError(
      Reason::cannot_write, [&] { qvdb::mend(path(), {.cut_off = qvdb::CutOffWrites::discard}); });
  EXPECT_NE(message.find("cannot mend the database"), std::string::npos) << message;
  EXPECT_EQ(readFile(path()).size(), cutOffAppend().size());
}

TEST_F(Mend, SaysWhatTheHostAnsweredWhenALinkCannotBeWritten) {
  writeFile(path(), cutOffAppend());
  ReplacedCalls calls;
  calls->writeAt = [](int, const void*, std::size_t, off_t) -> ssize_t {
    errno = EROFS;
    return -1;
  };
  const auto error = errorOf([&] { qvdb::mend(path(), {.cut_off = qvdb::CutOffWrites::link}); });
  ASSERT_TRUE(error);
  EXPECT_EQ(error->reason(), Reason::read_only_file_system) << error->what();
  EXPECT_EQ(error->system_code().value(), EROFS);
}

}  // namespace
}  // namespace qvdbase::test
