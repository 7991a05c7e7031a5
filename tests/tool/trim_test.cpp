// qvdb trim: what it prints, what it leaves, and where it refuses.
#include <sys/stat.h>
#include <unistd.h>
#include <qvdbase/qvdb.hpp>

#include <cstdlib>
#include <optional>

#include "kit/holes.h"
#include "kit/sanitized.h"
#include "tool/tool_fixture.h"

namespace qvdbase::test {
namespace {

class ToolTrim : public ToolTest {
 protected:
  // Two dead payloads: of a record that is deleted, and of one that was changed into a new block.
  void SetUp() override {
    if (!kCanMakeHoles) GTEST_SKIP() << "the library makes no holes";
    ToolTest::SetUp();
    ids_ = notes({pattern(30'000, 1), pattern(30'000, 2), pattern(30'000, 3)});
    done({"rm", kDefaultFile, "notes", ids_[0]});
    done({"set", kDefaultFile, "notes", ids_[1]}, pattern(50'000, 4).str());
  }

  uint64_t storedBytes() const {
    struct stat status = {};
    EXPECT_EQ(::stat(path().c_str(), &status), 0);
    return static_cast<uint64_t>(status.st_blocks) * 512;
  }

  void expectLiveRecords() {
    EXPECT_EQ(done({"get", kDefaultFile, "notes", ids_[1]}), pattern(50'000, 4).str());
    EXPECT_EQ(done({"get", kDefaultFile, "notes", ids_[2]}), pattern(30'000, 3).str());
    done({"check", kDefaultFile});
  }

  Words ids_;
};

TEST_F(ToolTrim, PrintsWhatItGivesBack) {
  const uint64_t stored = storedBytes();
  const uint64_t size = fileSize();
  std::string would;
  expectOnlyRead([&] { would = line({"trim", "-n", kDefaultFile}); });
  EXPECT_EQ(line({"trim", "--dry-run", kDefaultFile}), would);
  const std::string text = line({"trim", kDefaultFile});
  const uint64_t given = stored - storedBytes();
  EXPECT_GT(given, 2u * 5 * 4096);
  EXPECT_EQ(text, std::to_string(given) + " bytes given back, of 2 dead payloads");
  EXPECT_EQ(would, std::to_string(given) + " bytes would be given back, of 2 dead payloads");
  EXPECT_EQ(fileSize(), size);
  EXPECT_EQ(line({"trim", kDefaultFile}), "0 bytes given back, of 0 dead payloads");
  EXPECT_EQ(line({"trim", "-n", kDefaultFile}), "0 bytes would be given back, of 0 dead payloads");
  expectLiveRecords();
}

TEST_F(ToolTrim, IsNamedByTheCommandsThatBringPayloadsBack) {
  done({"trim", kDefaultFile});
  fails({"undelete", kDefaultFile, "back.qvd", "notes", ids_[0]}, 1, {"test.qvd", "given back"});
  EXPECT_FALSE(std::filesystem::exists(path("back.qvd")));
  EXPECT_NE(done({"history", kDefaultFile, "notes", ids_[0]}).find("trimmed"), std::string::npos);
  const std::string salvaged = done({"salvage", "--deleted", kDefaultFile, "saved.qvd"});
  EXPECT_NE(salvaged.find("given back to the file system by a trim"), std::string::npos)
      << salvaged;
}

TEST_F(ToolTrim, IsRefusedWithOneLine) {
  fails({"trim"}, 2, {"FILE", "qvdb trim --help"});
  fails({"trim", kDefaultFile, "copy.qvd"}, 2, {"qvdb trim --help"});
  fails({"trim", "--force", kDefaultFile}, 2, {"--force", "qvdb trim --help"});
  fails({"trim", "absent.qvd"}, 1, {"absent.qvd", "no such file"});
  fails({"trim", "."}, 1, {"not a"});
  writeFile(path("text"), bytesOf("this is only text, but long enough for a header"));
  fails({"trim", "text"}, 1, {"text", "not a database"});
}

// Neither is the payload marked, nor anything else written.
TEST_F(ToolTrim, ChangesNothingWhereTheFileSystemHasNoHoles) {
  if (kIsSanitized) GTEST_SKIP() << "the sanitizer must be loaded first";
  ::setenv("LD_PRELOAD", WATCHED_HOST, 1);
  ::setenv("WATCHED_HOST_HAS_NO_HOLES", "1", 1);
  expectOnlyRead([&] {
    fails({"trim", kDefaultFile}, 1,
          {"test.qvd: cannot give dead space back", "its file system", "'qvdb compact'"});
  });
  ::unsetenv("LD_PRELOAD");
  ::unsetenv("WATCHED_HOST_HAS_NO_HOLES");
  EXPECT_TRUE(line({"trim", kDefaultFile}).ends_with("of 2 dead payloads"));
}

// What was given back is, although it cannot be printed.
TEST_F(ToolTrim, ReportsOutputThatCannotBeWritten) {
  if (!std::filesystem::exists("/dev/full")) GTEST_SKIP() << "no device that is always full";
  ProgramCall call = callOf({"trim", kDefaultFile});
  call.outputFile = "/dev/full";
  const Outcome outcome = runProgram(call);
  EXPECT_EQ(outcome.status, 1) << outcome;
  expectOneLine(outcome.err, {"standard output", "write"});
  EXPECT_EQ(line({"trim", kDefaultFile}), "0 bytes given back, of 0 dead payloads");
  expectLiveRecords();
}

// A reader of the layer keeps it out, and it waits for that.
TEST_F(ToolTrim, WaitsForAReader) {
  std::optional<qvdb::Database> reader = qvdb::Database::open(path(), qvdb::Mode::read_only);
  expectOnlyRead([&] {
    fails({"trim", kDefaultFile}, 3, {"test.qvd", "open for reading", "--wait 10"});
    fails({"trim", "--wait", "0", kDefaultFile}, 3, {"open for reading"});
  });
  ProgramCall call = callOf({"trim", "--wait", "100000", kDefaultFile});
  call.meanwhile = [&](pid_t) {
    ::usleep(300'000);  // in which it begins to wait
    reader.reset();
  };
  const Outcome outcome = runProgram(call);
  EXPECT_EQ(outcome.status, 0) << outcome;
  EXPECT_EQ(outcome.err, "");
  EXPECT_TRUE(outcome.out.ends_with("of 2 dead payloads\n")) << outcome;
}

}  // namespace
}  // namespace qvdbase::test
