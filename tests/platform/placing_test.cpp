// Putting a finished file in its place.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>

#include "platform/placing.h"
#include "support/bytes.h"
#include "support/replaced_calls.h"
#include "support/temp_folder.h"

namespace qvdbase::test {
namespace {

namespace fs = std::filesystem;
using platform::Placing;

class PlacingTest : public testing::Test {
 protected:
  PlacingTest() { writeFile(from(), textBytes("new")); }

  static Bytes textBytes(const char* text) {
    return Bytes(text, text + std::char_traits<char>::length(text));
  }
  fs::path from() const { return folder_ / "from"; }
  fs::path to() const { return folder_ / "to"; }
  Placing place(bool replaces) {
    return platform::placeFile(from().native(), to().native(), replaces);
  }

  TempFolder folder_;
};

int withoutCall(int, const char*, int, const char*) {
  errno = ENOSYS;
  return -1;
}

TEST_F(PlacingTest, GivesTheFileItsNameInOneStep) {
  ReplacedCalls calls;
  calls->linkAt = [](int, const char*, int, const char*, int) {
    ADD_FAILURE() << "there would be two names of one file for a moment";
    return -1;
  };
  if (calls->renameNewAt(-1, "", -1, "") != 0 && errno == ENOSYS) {
    GTEST_SKIP() << "the host has no such call";
  }
  EXPECT_EQ(place(false), Placing::done);
  EXPECT_FALSE(fs::exists(from()));
  EXPECT_EQ(readFile(to()), textBytes("new"));
}

TEST_F(PlacingTest, LeavesWhatIsThereAlone) {
  writeFile(to(), textBytes("old"));
  EXPECT_EQ(place(false), Placing::occupied);
  EXPECT_EQ(readFile(to()), textBytes("old"));
  EXPECT_EQ(readFile(from()), textBytes("new"));
}

TEST_F(PlacingTest, DoesBothWithoutTheHostsCall) {
  ReplacedCalls calls;
  calls->renameNewAt = withoutCall;
  writeFile(to(), textBytes("old"));
  EXPECT_EQ(place(false), Placing::occupied);
  EXPECT_EQ(readFile(to()), textBytes("old"));
  fs::remove(to());
  EXPECT_EQ(place(false), Placing::done);
  EXPECT_FALSE(fs::exists(from()));
  EXPECT_EQ(fs::hard_link_count(to()), 1u);
}

TEST_F(PlacingTest, WorksWhereFilesHaveOneNameOnly) {
  ReplacedCalls calls;
  calls->renameNewAt = withoutCall;
  calls->linkAt = [](int, const char*, int, const char*, int) {
    errno = EPERM;
    return -1;
  };
  EXPECT_EQ(place(false), Placing::done);
  writeFile(from(), textBytes("newer"));
  EXPECT_EQ(place(false), Placing::occupied);
  EXPECT_EQ(readFile(to()), textBytes("new"));
}

TEST_F(PlacingTest, ReportsARenameThatTheHostRefuses) {
  ReplacedCalls calls;
  calls->renameNewAt = [](int, const char*, int, const char*) {
    errno = EACCES;
    return -1;
  };
  EXPECT_EQ(place(false), Placing::failed);
  EXPECT_EQ(readFile(from()), textBytes("new"));
}

}  // namespace
}  // namespace qvdbase::test
