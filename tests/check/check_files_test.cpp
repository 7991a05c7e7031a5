// Checking files on disk: what cannot be opened, what others do to the file meanwhile, and that a
// check leaves no trace.
#include <gtest/gtest.h>
#include <qvdbase/qvdbase.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>
#include <qvdbase/qvdb/error.hpp>

#include "check/base_files.h"
#include "platform/system_calls.h"
#include "support/temp_folder.h"

namespace qvdbase::test {
namespace {

const qvdb::CheckOptions kQuick = {.now = kNow, .retries = 2, .wait_milliseconds = 0};

class CheckFile : public testing::Test {
 protected:
  std::filesystem::path put(const Bytes& bytes, const char* name = "test.qvd") {
    writeFile(folder / name, bytes);
    return folder / name;
  }

  static qvdb::Reason reasonOf(const std::filesystem::path& path) {
    try {
      qvdb::check(path);
    } catch (const qvdb::Error& error) {
      return error.reason();
    }
    ADD_FAILURE() << "no error";
    return qvdb::Reason::cancelled;
  }

  static Bytes damaged() {
    const BaseFile base = usedFile();
    Bytes bytes = base.bytes;
    bytes[slotOffset(base.target)] = 0;
    return bytes;
  }

  TempFolder folder;
};

TEST_F(CheckFile, SaysTheSameOfAFileAsOfItsBytes) {
  const auto path = put(damaged());
  std::vector<std::string> messages;
  const qvdb::CheckReport report = qvdb::check(
      path, [&](const qvdb::Finding& finding) { messages.push_back(finding.message); }, kQuick);
  EXPECT_EQ(report.state, qvdb::CheckState::damaged);
  EXPECT_EQ(messages.size(), checkBytes(damaged()).findings.size());
}

TEST_F(CheckFile, LeavesTheFileAsItWas) {
  const auto path = put(damaged());
  const auto time = std::filesystem::last_write_time(path);
  qvdb::check(path, {}, kQuick);
  EXPECT_TRUE(sameBytes(readFile(path), damaged()));
  EXPECT_EQ(std::filesystem::last_write_time(path), time);
}

TEST_F(CheckFile, ReadsAFileThatMustNotBeWritten) {
  const auto path = put(usedFile().bytes);
  std::filesystem::permissions(path, std::filesystem::perms::owner_read);
  EXPECT_EQ(qvdb::check(path, {}, kQuick).state, qvdb::CheckState::sound);
}

TEST_F(CheckFile, ThrowsWhenThereIsNothingToCheck) {
  EXPECT_EQ(reasonOf(folder / "missing.qvd"), qvdb::Reason::no_such_file);
  EXPECT_EQ(reasonOf(folder.path()), qvdb::Reason::not_a_file);
  EXPECT_EQ(reasonOf(folder / "missing folder" / "a.qvd"), qvdb::Reason::no_such_file);
  EXPECT_EQ(reasonOf({}), qvdb::Reason::path_not_reachable);
}

TEST_F(CheckFile, ReachesFoldersThatTheFileLayerDoesNot) {
  std::filesystem::create_directory(folder / "two  blanks");
  writeFile(folder / "two  blanks" / "a.qvd", usedFile().bytes);
  EXPECT_EQ(qvdb::check(folder / "two  blanks" / "a.qvd", {}, kQuick).state,
            qvdb::CheckState::sound);
}

TEST_F(CheckFile, GoesWellBesideADatabaseOpenInThisProcess) {
  const auto path = put(damaged());
  const int16_t db = OpenDBaseW(folder.wide("test.qvd"), 3);
  ASSERT_NE(db, 0);
  EXPECT_EQ(qvdb::check(path, {}, kQuick).state, qvdb::CheckState::damaged);
  EXPECT_EQ(OpenDBaseW(folder.wide("test.qvd"), 3), 0) << "the check took the exclusion away";
  EXPECT_NE(CloseDBase(db), 0);
}

// A process of its own that has the file open until the object goes.
class OtherProcess {
 public:
  OtherProcess(TempFolder& folder, int permission) {
    int ready[2];
    EXPECT_EQ(pipe(ready), 0);
    child_ = fork();
    if (child_ == 0) {
      const int16_t db = OpenDBaseW(folder.wide("test.qvd"), permission);
      const char byte = db != 0 ? 'y' : 'n';
      if (write(ready[1], &byte, 1) == 1) pause();
      _exit(0);
    }
    char byte = 0;
    EXPECT_EQ(read(ready[0], &byte, 1), 1);
    EXPECT_EQ(byte, 'y');
    close(ready[0]);
    close(ready[1]);
  }
  ~OtherProcess() {
    kill(child_, SIGKILL);
    waitpid(child_, nullptr, 0);
  }

 private:
  pid_t child_ = -1;
};

TEST_F(CheckFile, ClaimsNoDamageWhileAnotherProcessMayWrite) {
  const auto path = put(damaged());
  for (const int permission : {3, 4}) {
    OtherProcess writer(folder, permission);
    EXPECT_EQ(qvdb::check(path, {}, kQuick).state, qvdb::CheckState::in_use) << permission;
  }
  OtherProcess reader(folder, 1);
  EXPECT_EQ(qvdb::check(path, {}, kQuick).state, qvdb::CheckState::damaged);
}

TEST_F(CheckFile, CallsASoundFileSoundBesideAnIdleWriter) {
  const auto path = put(usedFile().bytes);
  OtherProcess writer(folder, 3);
  EXPECT_EQ(qvdb::check(path, {}, kQuick).state, qvdb::CheckState::sound);
}

// A host on which the file changes while it is read.
class ChangingHost {
 public:
  ChangingHost(const std::filesystem::path& path, int changes) {
    path_ = path;
    changes_ = changes;
    calls_ = platform::hostSystemCalls();
    calls_.readAt = [](int descriptor, void* buffer, size_t count, off_t position) {
      const ssize_t moved = platform::hostSystemCalls().readAt(descriptor, buffer, count, position);
      // Behind the first look at the directory, before the second.
      if (position == 4630 && changes_ > 0) {
        --changes_;
        patchFile(path_, 4630 + 27, Bytes().be(4, 1500 + static_cast<unsigned>(changes_)));
        std::filesystem::last_write_time(path_, std::filesystem::file_time_type::clock::now() +
                                                    std::chrono::seconds(changes_ + 1));
      }
      return moved;
    };
    platform::replaceSystemCalls(&calls_);
  }
  ~ChangingHost() { platform::replaceSystemCalls(nullptr); }

  static int changesLeft() { return changes_; }

 private:
  inline static std::filesystem::path path_;
  inline static int changes_ = 0;
  platform::SystemCalls calls_;
};

TEST_F(CheckFile, IsRepeatedWhenTheFileChanges) {
  const auto path = put(damaged());
  ChangingHost host(path, 2);
  EXPECT_EQ(qvdb::check(path, {}, kQuick).state, qvdb::CheckState::damaged);
  EXPECT_EQ(ChangingHost::changesLeft(), 0);
}

TEST_F(CheckFile, GivesUpOnAFileThatKeepsChanging) {
  for (const Bytes& bytes : {damaged(), usedFile().bytes}) {
    const auto path = put(bytes);
    ChangingHost host(path, 100);
    EXPECT_EQ(qvdb::check(path, {}, kQuick).state, qvdb::CheckState::in_use);
  }
}

// A host that cannot read one byte of the file.
TEST_F(CheckFile, SaysWhereTheSystemCannotRead) {
  const auto path = put(usedFile().bytes);
  platform::SystemCalls calls = platform::hostSystemCalls();
  calls.readAt = [](int descriptor, void* buffer, size_t count, off_t position) -> ssize_t {
    constexpr off_t kBad = 4740;  // in the header of the second block
    if (position <= kBad && position + static_cast<off_t>(count) > kBad) {
      if (position == kBad) {
        errno = EIO;
        return -1;
      }
      count = static_cast<size_t>(kBad - position);
    }
    return platform::hostSystemCalls().readAt(descriptor, buffer, count, position);
  };
  platform::replaceSystemCalls(&calls);
  std::set<std::string> codes;
  qvdb::check(
      path, [&](const qvdb::Finding& finding) { codes.insert(finding.code); }, kQuick);
  platform::replaceSystemCalls(nullptr);
  EXPECT_TRUE(codes.contains("F5"));
}

TEST_F(CheckFile, TellsNoMoreThanTheLimitOfFindingsThatAreAlike) {
  FileImage image;
  const std::size_t table = image.addTable("many", 0x11);
  for (std::uint64_t i = 1; i <= 100; ++i) {
    const std::int64_t at = image.addRecord(table, i, {});
    image.record(at).modifyTime = 1;
  }
  const Checked checked = checkBytes(image.build(), {.most_alike = 7, .now = kNow});
  EXPECT_EQ(checked.report.warnings, 100u);
  ASSERT_EQ(checked.findings.size(), 7u);
  EXPECT_EQ(checked.findings.back().more, 93u);
}

}  // namespace
}  // namespace qvdbase::test
