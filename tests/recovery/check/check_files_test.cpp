// Checking files on disk: what cannot be opened, what others do to the file meanwhile, and that a
// check leaves no trace.
#include <gtest/gtest.h>
#include <qvdbase/qvdbase.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <qvdbase/qvdb/error.hpp>

#include <deque>
#include <map>
#include <utility>

#include "kit/temp_folder.h"
#include "platform/host/system_calls.h"
#include "recovery/check/base_files.h"
#include "recovery/check/random_database.h"

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

// A host on which the file changes while it is read.
class ChangingHost {
 public:
  ChangingHost(const std::filesystem::path& path, int changes) {
    path_ = path;
    changes_ = changes;
    calls_ = platform::hostSystemCalls();
    calls_.readAt = [](int descriptor, void* buffer, size_t count, off_t position) {
      const ssize_t moved = platform::hostSystemCalls().readAt(descriptor, buffer, count, position);
      // After the first look at the directory, before the second.
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

// As the system knows it, which keeps 15 characters of it.
[[maybe_unused]] std::string nameOfThisProcess() {
  std::string name;
  std::ifstream file("/proc/self/comm");
  std::getline(file, name);
  return name;
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

  int64_t id() const { return child_; }

 private:
  pid_t child_ = -1;
};

TEST_F(CheckFile, ClaimsNoDamageWhileAnotherProcessMayWrite) {
  const auto path = put(damaged());
  for (const int permission : {3, 4}) {
    OtherProcess writer(folder, permission);
    const qvdb::CheckReport report = qvdb::check(path, {}, kQuick);
    EXPECT_EQ(report.state, qvdb::CheckState::in_use) << permission;
    EXPECT_GT(report.errors, 0u) << "what may be damage is reported";
    EXPECT_EQ(report.writer.process, writer.id());
    EXPECT_FALSE(report.writer.is_this_process);
#if defined(__linux__) && !defined(QVDBASE_PORTABLE_POSIX)
    EXPECT_EQ(report.writer.name, nameOfThisProcess());
#endif
  }
  OtherProcess reader(folder, 1);
  const qvdb::CheckReport report = qvdb::check(path, {}, kQuick);
  EXPECT_EQ(report.state, qvdb::CheckState::damaged);
  EXPECT_EQ(report.writer.process, 0);
}

TEST_F(CheckFile, NamesAWriterOfItsOwnProcess) {
  const auto path = put(usedFile().bytes);
  const int16_t db = OpenDBaseW(folder.wide("test.qvd"), 3);
  ASSERT_NE(db, 0);
  {
    const ChangingHost host(path, 100);
    const qvdb::CheckReport report = qvdb::check(path, {}, kQuick);
    EXPECT_EQ(report.state, qvdb::CheckState::in_use);
    EXPECT_TRUE(report.writer.is_this_process);
    EXPECT_EQ(report.writer.process, 0);
  }
  EXPECT_NE(CloseDBase(db), 0);
}

TEST_F(CheckFile, CallsASoundFileSoundBesideAnIdleWriter) {
  const auto path = put(usedFile().bytes);
  OtherProcess writer(folder, 3);
  EXPECT_EQ(qvdb::check(path, {}, kQuick).state, qvdb::CheckState::sound);
}

// ---- beside a writer at work

// A process that changes a database without end: it adds, changes, moves and deletes records, with
// the file open all the time or opened anew again and again.
class RunningWriter {
 public:
  RunningWriter(TempFolder& folder, int permission, bool reopens, uint64_t seed)
      : path_(folder / "test.qvd"), size_(std::filesystem::file_size(path_)) {
    child_ = fork();
    if (child_ == 0) work(folder.wide("test.qvd"), permission, reopens, seed);
  }
  ~RunningWriter() {
    kill(child_, SIGKILL);
    waitpid(child_, nullptr, 0);
  }

  bool isRunning() const { return waitpid(child_, nullptr, WNOHANG) == 0; }

  // Comes back when it has written since the last time: on a busy machine that can take a while.
  void waitForWrites() {
    for (int i = 0; i < 20'000; ++i) {
      const std::uintmax_t size = std::filesystem::file_size(path_);
      if (size != std::exchange(size_, size)) return;
      usleep(500);
    }
    ADD_FAILURE() << "the writer does not write";
  }

 private:
  [[noreturn]] static void work(const QVWCHAR* path, int permission, bool reopens, uint64_t seed) {
    std::mt19937 random(static_cast<unsigned>(seed));
    std::deque<uint64_t> records;
    int16_t db = OpenDBaseW(path, permission);
    for (uint64_t id = 1; db != 0; ++id) {
      bool works = AddRecordData_AssignRecordID(db, kTable, pattern(40).data(), 40, 0, &id) == 1;
      records.push_back(id);
      const uint64_t changed = records[random() % records.size()];
      works = works && ModifyRecordData(db, kTable, pattern(50).data(), 50, changed, nullptr) == 1;
      if (records.size() > 50) {
        works = works && DeleteOneRecord(db, kTable, records.front(), nullptr) == 1;
        records.pop_front();
      }
      if (!works) break;
      if (!reopens || random() % 4 != 0) continue;
      CloseDBase(db);
      db = OpenDBaseW(path, permission);
    }
    _exit(1);
  }

 public:
  static constexpr uint64_t kTable = 0x11;

 private:
  std::filesystem::path path_;
  std::uintmax_t size_;
  pid_t child_ = -1;
};

TEST_F(CheckFile, NeverReportsDamageBesideARunningWriter) {
  const uint64_t seed = firstSeed();
  uint64_t checks = 0;
  uint64_t disturbed = 0;
  for (uint64_t round = 0; round < seeds(4, 80) && !HasFailure(); ++round) {
    const bool reopens = round % 2 == 1;
    const int permission = round % 4 < 2 ? 3 : 4;
    FileImage image;
    image.addTable("notes", RunningWriter::kTable);
    put(image.build());
    RunningWriter writer(folder, permission, reopens, seed + round);
    const int checksOfRound = testEverything() ? 15 : 5;
    for (int i = 0; i < checksOfRound && !HasFailure(); ++i, ++checks) {
      writer.waitForWrites();
      std::string reported;
      const qvdb::CheckReport report =
          qvdb::check(folder / "test.qvd",
                      [&](const qvdb::Finding& finding) { reported += finding.message + "\n"; },
                      {.retries = i % 2, .wait_milliseconds = 0});
      EXPECT_TRUE(report.state == qvdb::CheckState::in_use ||
                  report.state == qvdb::CheckState::sound)
          << "permission " << permission << ", opens anew: " << reopens << "\n"
          << reported;
      if (report.state == qvdb::CheckState::in_use) ++disturbed;
    }
    EXPECT_TRUE(writer.isRunning());
  }
  EXPECT_GT(disturbed, 0u) << "no check saw a write";
  reportCount("checks beside a running writer", checks);
}

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
    int findings = 0;
    const qvdb::CheckReport report = qvdb::check(
        path, [&](const qvdb::Finding&) { ++findings; }, kQuick);
    EXPECT_EQ(report.state, qvdb::CheckState::in_use);
    EXPECT_EQ(report.writer.process, 0) << "it has closed the file";
    EXPECT_FALSE(report.writer.is_this_process);
    EXPECT_EQ(findings, 0) << "of a state that the file was never in";
    EXPECT_EQ(report.errors + report.warnings, 0u);
  }
}

// A host that cannot read one byte of the file: of a chain, and where only a search could find it.
TEST_F(CheckFile, SaysWhereTheSystemCannotRead) {
  static off_t bad;
  platform::SystemCalls calls = platform::hostSystemCalls();
  calls.readAt = [](int descriptor, void* buffer, size_t count, off_t position) -> ssize_t {
    if (position <= bad && position + static_cast<off_t>(count) > bad) {
      if (position == bad) {
        errno = EIO;
        return -1;
      }
      count = static_cast<size_t>(bad - position);
    }
    return platform::hostSystemCalls().readAt(descriptor, buffer, count, position);
  };
  for (const bool hasDirectory : {true, false}) {
    Bytes bytes = usedFile().bytes;
    if (!hasDirectory) bytes = bytes.with(22, Bytes().zeros(4608));
    const auto path = put(bytes);
    bad = hasDirectory ? 4740 : 4700;  // in the second block's header; in the first one's payload
    platform::replaceSystemCalls(&calls);
    std::map<std::string, int64_t> offsets;
    qvdb::check(
        path, [&](const qvdb::Finding& finding) { offsets.emplace(finding.code, finding.offset); },
        kQuick);
    platform::replaceSystemCalls(nullptr);
    ASSERT_TRUE(offsets.contains("F5")) << hasDirectory;
    EXPECT_EQ(offsets["F5"], bad);
  }
}

// A payload of zeros in a large block, which begins at 4630 and ends at 4630 + 56 + 100,000.
Bytes withLargePayload() {
  FileImage image;
  const size_t table = image.addTable("notes", 0x11);
  image.addRecord(table, 0xA1, Bytes().zeros(100'000));
  image.addRecord(table, 0xA2, bytesOf("small"));
  return image.build();
}

// A host that knows one hole.
class HostWithHole {
 public:
  static constexpr off_t kBegin = 20'480;
  static constexpr off_t kEnd = 28'672;

  HostWithHole() {
    calls_.nextHole = [](int, off_t position) {
      return position <= kBegin ? kBegin : position < kEnd ? position : off_t{200'000};
    };
    calls_.nextStored = [](int, off_t position) {
      return position < kBegin || position >= kEnd ? position : kEnd;
    };
    platform::replaceSystemCalls(&calls_);
  }
  ~HostWithHole() { platform::replaceSystemCalls(nullptr); }

 private:
  platform::SystemCalls calls_ = platform::hostSystemCalls();
};

TEST_F(CheckFile, WarnsOfHolesInPayloads) {
  const auto path = put(withLargePayload());
  const HostWithHole host;
  std::vector<qvdb::Finding> findings;
  const qvdb::CheckReport report = qvdb::check(
      path, [&](const qvdb::Finding& finding) { findings.push_back(finding); }, kQuick);
  EXPECT_EQ(report.state, qvdb::CheckState::unusual);
  ASSERT_EQ(findings.size(), 1u);
  EXPECT_EQ(findings[0].code, "F3");
  EXPECT_EQ(findings[0].offset, HostWithHole::kBegin);
  EXPECT_EQ(findings[0].record.value, 0xA1u);
  EXPECT_EQ(findings[0].message,
            "From here, 8192 bytes of the record at 4630 are a hole in the file and read as "
            "zeros.");
}

TEST_F(CheckFile, MindsNoHolesOutsideOfPayloads) {
  Bytes bytes = withLargePayload();
  bytes.putBe(4630 + 47, 4, 10);  // the rest is spare
  const auto path = put(bytes);
  const HostWithHole host;
  EXPECT_EQ(qvdb::check(path, {}, kQuick).state, qvdb::CheckState::sound);
}

// The same with a hole that the system itself knows of.
TEST_F(CheckFile, SeesARealHole) {
  const Bytes bytes = withLargePayload();
  const auto path = put(bytes.cut(5000));
  std::filesystem::resize_file(path, bytes.size());
  patchFile(path, 100'000, bytes.from(100'000));
  struct stat status = {};
  ASSERT_EQ(stat(path.c_str(), &status), 0);
  if (status.st_blocks * 512 >= status.st_size) GTEST_SKIP() << "no holes in this file system";
#if defined(QVDBASE_PORTABLE_POSIX)
  GTEST_SKIP() << "the portable build does not ask for holes";
#endif
  std::set<std::string> codes;
  qvdb::check(
      path, [&](const qvdb::Finding& finding) { codes.insert(finding.code); }, kQuick);
  EXPECT_EQ(codes, std::set<std::string>{"F3"});
}

TEST_F(CheckFile, ReportsNoMoreThanTheLimitOfFindingsThatAreAlike) {
  FileImage image;
  const size_t table = image.addTable("many", 0x11);
  for (uint64_t i = 1; i <= 100; ++i) {
    const int64_t at = image.addRecord(table, i, {});
    image.record(at).modifyTime = 1;
  }
  const Checked checked = checkBytes(image.build(), {.most_alike = 7, .now = kNow});
  EXPECT_EQ(checked.report.warnings, 100u);
  ASSERT_EQ(checked.findings.size(), 7u);
  EXPECT_EQ(checked.findings.back().more, 93u);
}

}  // namespace
}  // namespace qvdbase::test
