// qvdb import and qvdb export: files into records and back.
#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <iterator>
#include <map>
#include <optional>
#include <thread>

#include "kit/sanitized.h"
#include "kit/unprivileged.h"
#include "tool/tool_fixture.h"

namespace qvdbase::test {
namespace {

// What the export of so many files of one byte each says.
std::string exportedLine(size_t files) {
  const std::string plural = files == 1 ? "" : "s";
  const std::string number = std::to_string(files);
  return "exported " + number + " file" + plural + ", " + number + " byte" + plural;
}

namespace fs = std::filesystem;

// The data of a table of imported files, made by hand as docs/imported-files.md describes it.
class NameBlock {
 public:
  NameBlock() = default;  // of version 1
  // Of version 2, of entries that were added at this time.
  explicit NameBlock(uint64_t since)
      : since_(since), bytes_(bytesOf("QVfiles").be(1, 2).fill(8 + 16, 0)) {}

  NameBlock& entry(char kind, uint16_t mode, uint64_t record, const std::string& rest,
                   uint8_t shared = 0, const std::string& target = {}) {
    bytes_.text(std::string(1, kind)).be(2, mode).be(8, 1000).be(4, 5).be(8, record);
    if (since_) bytes_.be(8, *since_).be(8, 0);
    bytes_.be(1, shared).be(1, rest.size()).text(rest).be(1, target.size()).text(target);
    if (since_) bytes_.be(1, 0);
    return *this;
  }
  const Bytes& bytes() const { return bytes_; }

 private:
  std::optional<uint64_t> since_;
  Bytes bytes_ = bytesOf("QVfiles").be(1, 1);
};

class ToolImport : public ToolTest {
 protected:
  void SetUp() override { done({"create", "test.qvd"}); }

  // A folder with most things that a folder can hold.
  void makeFiles(const fs::path& root) {
    fs::create_directories(root / "sub/deeper");
    fs::create_directories(root / "empty folder/inside");
    writeFile(root / "a.txt", bytesOf("text\n"));
    writeFile(root / "empty", {});
    writeFile(root / "sub/binary", pattern(100'000));
    writeFile(root / "sub/deeper/x", bytesOf("x"));
    writeFile(root / "sub.txt", bytesOf("sorts between sub and what is in it"));
    writeFile(root / "name\nwith \xff odd \x1b bytes", bytesOf("odd"));
    fs::create_symlink("a.txt", root / "link");
    fs::create_symlink("/nowhere/at/all", root / "sub/dangling");
    fs::permissions(root / "a.txt", fs::perms(0640));
    fs::permissions(root / "sub", fs::perms(0750));
    setTime(root / "a.txt", 1'000'000'007, 123'456'789);
    setTime(root / "link", 1'000'000'009, 7);
    setTime(root / "sub", 1'000'000'011, 0);
  }

  // Writes a file, and makes the folder for it.
  void store(const std::string& name, const Bytes& contents) {
    fs::create_directories(path(name).parent_path());
    writeFile(path(name), contents);
  }

  static void setTime(const fs::path& path, time_t seconds, long nanoseconds) {
    const timespec times[2] = {{seconds, nanoseconds}, {seconds, nanoseconds}};
    ASSERT_EQ(::utimensat(AT_FDCWD, path.c_str(), times, AT_SYMLINK_NOFOLLOW), 0);
  }

  // Every file below a folder: kind, mode, time, and contents or target.
  static std::map<std::string, std::string> inventory(const fs::path& root) {
    std::map<std::string, std::string> result;
    for (const auto& entry : fs::recursive_directory_iterator(root)) {
      struct stat status = {};
      ::lstat(entry.path().c_str(), &status);
      std::ostringstream text;
      text << std::oct << status.st_mode << ' ' << std::dec << status.st_mtim.tv_sec << '.'
           << status.st_mtim.tv_nsec << ' ';
      if (S_ISREG(status.st_mode)) text << readFile(entry.path()).str();
      if (S_ISLNK(status.st_mode)) text << fs::read_symlink(entry.path()).native();
      result[fs::relative(entry.path(), root).native()] = text.str();
    }
    return result;
  }

  std::vector<std::string> namesIn(const std::string& table) {
    std::vector<std::string> names;
    const auto list = json({"records", "--json", "test.qvd", table});
    for (const auto& record : list["records"]) {
      names.push_back(record.contains("name") ? record["name"].get<std::string>() : "-");
    }
    return names;
  }
};

using ToolExport = ToolImport;

TEST_F(ToolImport, AndExportGiveBackEveryFileWithItsKindModeTimeAndContents) {
  makeFiles(path("in"));
  EXPECT_EQ(line({"import", "test.qvd", "files", "in/"}),
            "imported 6 files, 4 folders and 2 symbolic links, 100044 bytes");
  expectOnlyRead([&] { done({"export", "test.qvd", "files", "out"}); });
  EXPECT_EQ(inventory(path("out")), inventory(path("in")));
}

TEST_F(ToolImport, MakesOneRecordForEachFile) {
  makeFiles(path("in"));
  done({"import", "test.qvd", "files", "in/"});
  EXPECT_EQ(database().tables[0].records.size(), 6u);
  EXPECT_EQ(done({"get", "test.qvd", "files", "a.txt"}), "text\n");
  EXPECT_EQ(bytesOf(done({"get", "test.qvd", "files", "sub/binary"})), pattern(100'000));
  fails({"get", "test.qvd", "files", "empty folder/inside"}, 1, {"inside'", "folder"});
  fails({"get", "test.qvd", "files", "link"}, 1, {"'link'", "symbolic link"});
  fails({"get", "test.qvd", "files", "absent"}, 1, {"'absent'"});
}

TEST_F(ToolImport, StoresTheNamesInTheDocumentedFormat) {
  fs::create_directory(path("d"));
  writeFile(path("d/file one"), bytesOf("1"));
  writeFile(path("d/file two"), bytesOf("2"));
  fs::create_symlink("file one", path("d/link"));
  for (const char* name : {"d/file one", "d/file two", "d/link", "d"}) {
    if (fs::path(name).filename() != "link") fs::permissions(path(name), fs::perms(0700));
    setTime(path(name), 1000, 5);
  }
  done({"import", "test.qvd", "files", "d"});
  const ReadTable table = database().tables[0];
  ASSERT_EQ(table.records.size(), 2u);
  ASSERT_TRUE(table.data.has_value());
  const uint64_t since = table.data->data().beAt(32 + 23, 8);  // the present time
  EXPECT_EQ(table.data->data(), NameBlock(since)
                                    .entry('d', 0700, 0, "d")
                                    .entry('f', 0700, table.records[0].id, "/file one", 1)
                                    .entry('f', 0700, table.records[1].id, "two", 7)
                                    .entry('l', 0777, 0, "link", 2, "file one")
                                    .bytes());
}

TEST_F(ToolImport, NamesFilesByWhatFollowsTheLastSlashOfEachPath) {
  store("dir/inner/f", {});
  writeFile(path("single"), {});
  done({"import", "test.qvd", "a", "dir", "single", path("dir/inner").native()});
  EXPECT_EQ(namesIn("a"), (Words{"dir/inner/f", "single", "inner/f"}));
  done({"import", "test.qvd", "b", "dir/."});
  EXPECT_EQ(namesIn("b"), (Words{"inner/f"}));
  fails({"import", "test.qvd", "c", "dir/inner", "dir/"}, 1, {"two of the paths", "'inner"});
  fails({"import", "test.qvd", "c", "absent"}, 1, {"absent"});
  fails({"import", "test.qvd", "c", ""}, 1, {"PATH is empty"});
  EXPECT_EQ(json({"tables", "--json", "test.qvd"})["tables"].size(), 2u);
}

TEST_F(ToolImport, LeavesOutTheDatabaseItselfAndWhatIsNotAFile) {
  writeFile(path("f"), bytesOf("f"));
  ASSERT_EQ(::mkfifo(path("pipe").c_str(), 0600), 0);
  const Outcome outcome = run({"import", "test.qvd", "files", "."});
  EXPECT_EQ(outcome.status, 0) << outcome;
  EXPECT_NE(outcome.err.find("left out: ./pipe"), std::string::npos) << outcome;
  EXPECT_NE(outcome.err.find("left out: ./test.qvd (the database itself)"), std::string::npos);
  EXPECT_EQ(namesIn("files"), (Words{"f"}));
}

TEST_F(ToolImport, OfMoreFilesExtendsTheTable) {
  store("one/a", bytesOf("a"));
  store("two/b", bytesOf("b"));
  done({"import", "test.qvd", "files", "one"});
  done({"import", "test.qvd", "files", "two"});
  done({"export", "test.qvd", "files", "out"});
  EXPECT_EQ(inventory(path("out/one")), inventory(path("one")));
  EXPECT_EQ(inventory(path("out/two")), inventory(path("two")));
}

TEST_F(ToolImport, OfAFileThatTheTableHasChangesNothingWithoutReplace) {
  makeFiles(path("in"));
  done({"import", "test.qvd", "files", "in/"});
  store("in/new", bytesOf("new"));
  expectOnlyRead([&] {
    fails({"import", "test.qvd", "files", "in/"}, 1, {"test.qvd", "already", "--replace"});
  });
}

TEST_F(ToolImport, WithReplaceRenewsAndExtends) {
  makeFiles(path("in"));
  done({"import", "test.qvd", "files", "in/"});
  const std::string before = json({"records", "--json", "test.qvd", "files"})["records"][0]["id"];
  store("in/a.txt", bytesOf("grown beyond its capacity"));
  store("in/sub/binary", bytesOf("shrunk"));
  store("in/sub/deeper/x", {});
  store("in/empty", bytesOf("filled"));
  store("in/new", bytesOf("new"));
  fs::remove(path("in/link"));
  fs::create_symlink("elsewhere", path("in/link"));
  fs::permissions(path("in/sub"), fs::perms(0700));
  done({"import", "--replace", "test.qvd", "files", "in/"});
  done({"export", "test.qvd", "files", "out"});
  EXPECT_EQ(inventory(path("out")), inventory(path("in")));
  EXPECT_EQ(json({"records", "--json", "test.qvd", "files"})["records"][0]["id"], before);
}

// As a retry of an import that was killed after it had stored the names.
TEST_F(ToolImport, AcceptsALinkThatTheTableHasUnchanged) {
  fs::create_directory(path("in"));
  fs::create_symlink("elsewhere", path("in/link"));
  done({"import", "test.qvd", "files", "in/"});
  store("in/new", bytesOf("new"));
  done({"import", "test.qvd", "files", "in/"});
  done({"export", "test.qvd", "files", "out"});
  EXPECT_EQ(inventory(path("out")), inventory(path("in")));
  fs::remove(path("in/new"));
  fs::remove(path("in/link"));
  fs::create_symlink("nowhere", path("in/link"));
  expectUnchanged([&] {
    fails({"import", "test.qvd", "files", "in/"}, 1, {"'link'", "--replace"});
  });
}

TEST_F(ToolImport, KeepsFilesThatAreGoneFromTheFolder) {
  store("in/a", bytesOf("a"));
  store("in/b", bytesOf("b"));
  done({"import", "test.qvd", "files", "in"});
  fs::remove(path("in/a"));
  done({"import", "--replace", "test.qvd", "files", "in"});
  EXPECT_EQ(namesIn("files"), (Words{"in/a", "in/b"}));
}

TEST_F(ToolImport, RefusesAFileOfAnotherKind) {
  store("in/a", bytesOf("a"));
  done({"import", "test.qvd", "files", "in"});
  fs::remove(path("in/a"));
  fs::create_directory(path("in/a"));
  expectOnlyRead([&] {
    fails({"import", "--replace", "test.qvd", "files", "in"}, 1, {"in/a", "is not a folder"});
  });
}

TEST_F(ToolImport, RefusesATableWithDataOfItsOwn) {
  done({"add-table", "test.qvd", "files"});
  done({"data", "test.qvd", "files", "--set", "-"}, "something");
  writeFile(path("f"), {});
  expectOnlyRead([&] {
    fails({"import", "test.qvd", "files", "f"}, 1, {"data of its own", "another"});
  });
}

TEST_F(ToolImport, ProtectsItsNamesFromTheDataCommand) {
  writeFile(path("f"), {});
  done({"import", "test.qvd", "files", "f"});
  expectOnlyRead([&] {
    fails({"data", "test.qvd", "files", "--set", "-"}, 1, {"names", "--force"}, "x");
  });
  done({"data", "test.qvd", "files", "--set", "-", "--force"}, "x");
}

TEST_F(ToolImport, CompletesWhatWasKilledInTheMiddle) {
  writeFile(path("a"), bytesOf("a"));
  writeFile(path("b"), bytesOf("b"));
  done({"import", "test.qvd", "files", "a", "b"});
  // A name whose record never came, as after a kill.
  const uint64_t last = database().tables[0].records[1].id;
  const int16_t db = open();
  const uint64_t table = FindTableByName(db, "files");
  ASSERT_EQ(DeleteOneRecord(db, table, last, nullptr), 1);
  close(db);
  const Outcome outcome = run({"export", "test.qvd", "files", "out"});
  EXPECT_EQ(outcome.status, 0);
  expectOneLine(outcome.err, {"1 name has no record"});
  fails({"get", "test.qvd", "files", "b"}, 1, {"no record"});
  EXPECT_EQ(line({"import", "test.qvd", "files", "b"}),
            "imported 1 file, 0 folders and 0 symbolic links, 1 byte");
  EXPECT_EQ(done({"get", "test.qvd", "files", "b"}), "b");
}

TEST_F(ToolImport, RemovedFilesTakeTheirNamesWithThem) {
  makeFiles(path("in"));
  done({"import", "test.qvd", "files", "in/"});
  done({"rm", "test.qvd", "files", "a.txt", "sub/deeper/x"});
  done({"export", "test.qvd", "files", "out"});
  EXPECT_FALSE(fs::exists(path("out/a.txt")));
  EXPECT_FALSE(fs::exists(path("out/sub/deeper/x")));
  EXPECT_TRUE(fs::exists(path("out/sub/binary")));
  done({"import", "test.qvd", "files", "in/a.txt"});
  EXPECT_EQ(done({"get", "test.qvd", "files", "a.txt"}), "text\n");
}

TEST_F(ToolImport, AFileWhoseNameLooksLikeANumberIsReachedByItsPath) {
  writeFile(path("17"), bytesOf("seventeen"));
  done({"import", "test.qvd", "files", "17"});
  EXPECT_EQ(done({"get", "test.qvd", "files", "./17"}), "seventeen");
  fails({"get", "test.qvd", "files", "17"}, 1, {"0x0000000000000011"});
}

TEST_F(ToolImport, OfManySmallFoldersOneAfterTheOtherDoesNotCopyTheNamesEachTime) {
  for (int i = 0; i < 40; ++i) {
    const std::string name = "file-" + std::to_string(i);
    writeFile(path(name), bytesOf("x"));
    done({"import", "test.qvd", "files", name});
  }
  EXPECT_EQ(namesIn("files").size(), 40u);
  EXPECT_LT(database().tables[0].slot.dataWriteCount, 12u);
}

TEST_F(ToolImport, StopsAtCtrlCBetweenTwoFilesAndKeepsWhatIsStored) {
  fs::create_directory(path("in"));
  Outcome outcome;
  // How far the tool gets before the signal reaches it is not in our hands: with enough files it
  // comes in the middle.
  for (int files = 6'000; files <= 160'000; files *= 2) {
    for (int i = files / 2; i < files; ++i) store("in/" + std::to_string(i), bytesOf("x"));
    ProgramCall call = callOf({"import", "test.qvd", "files", "in"});
    call.meanwhile = [this](pid_t process) {
      // The names come first, then the records, in batches of 1,024 files: the first batch is in
      // the table as soon as the table's slot counts it.
      while (decodeSlot(readFile(path("test.qvd")), 0).recordCount == 0) {
        siginfo_t ended = {};
        ::waitid(P_PID, static_cast<id_t>(process), &ended, WEXITED | WNOWAIT | WNOHANG);
        if (ended.si_pid != 0) return;
        std::this_thread::sleep_for(std::chrono::microseconds(100));
      }
      ::kill(process, SIGINT);
    };
    outcome = runProgram(call);
    if (outcome.status == 1) break;
    done({"create", "--force", "test.qvd"});
  }
  ASSERT_EQ(outcome.status, 1) << outcome;
  EXPECT_EQ(outcome.out, "");
  expectOneLine(outcome.err, {"interrupted", "sound", "--replace"});
  const size_t stored = database().tables[0].records.size();
  EXPECT_GT(stored, 0u);
  // Exactly what is stored is named.
  EXPECT_EQ(line({"export", "test.qvd", "files", "out"}), exportedLine(stored));
  done({"import", "--replace", "test.qvd", "files", "in"});
}

TEST_F(ToolImport, ThatCannotBeCompletedReportsExactlyWhatIsStored) {
  for (int i = 0; i < 500; ++i) store("in/" + std::to_string(1000 + i), pattern(10'000));
  ProgramCall call = callOf({});
  call.program = "/bin/sh";
  // A limit on the size of files takes the place of a full disk. Its unit is 512 or 1,024 bytes.
  call.arguments = {
      "-c", std::string("ulimit -f 4000; exec '") + QVDB_TOOL + "' import test.qvd files in/"};
  const Outcome outcome = runProgram(call);
  EXPECT_EQ(outcome.status, 1) << outcome;
  const size_t stored = database().tables[0].records.size();
  expectOneLine(outcome.err, {"test.qvd", "raise the limit on the size of files",
                              std::to_string(stored) + " files are stored, " +
                                  std::to_string(500 - stored) + " are not"});
  EXPECT_GT(stored, 0u);
  EXPECT_LT(stored, 500u);
  EXPECT_EQ(
      line({"export", "test.qvd", "files", "out"}),
      "exported " + std::to_string(stored) + " files, " + std::to_string(stored) + "0000 bytes");
  allowDamage();  // the block that was begun is unlinked at the end
}

TEST_F(ToolImport, ThatCannotStoreTheNamesReportsThatNothingIsStored) {
  for (int i = 0; i < 300; ++i) store("in/" + std::to_string(i) + std::string(200, 'x'), {});
  ProgramCall call = callOf({});
  call.program = "/bin/sh";
  call.arguments = {
      "-c", std::string("ulimit -f 16; exec '") + QVDB_TOOL + "' import test.qvd files in/"};
  const Outcome outcome = runProgram(call);
  EXPECT_EQ(outcome.status, 1) << outcome;
  expectOneLine(outcome.err, {"test.qvd", "0 files are stored, 300 are not", "--replace"});
  EXPECT_TRUE(database().tables.empty());  // no operation could remove it
  done({"import", "--replace", "test.qvd", "files", "in/"});
  EXPECT_EQ(namesIn("files").size(), 300u);
}

TEST_F(ToolImport, OfAFileThatNoRecordCanHoldStoresNothing) {
  store("in/1", bytesOf("1"));
  store("in/large", {});
  fs::resize_file(path("in/large"), 4'294'967'296);
  expectOnlyRead([&] {
    fails({"import", "test.qvd", "files", "in/"}, 1, {"in/large", "4,294,967,295", "nothing"});
  });
}

TEST_F(ToolImport, OfAFileThatCannotBeReadKeepsWhatCameBefore) {
  store("in/0/1", bytesOf("1"));
  store("in/2", bytesOf("2"));
  fs::create_symlink("2", path("in/1"));
  fs::permissions(path("in/2"), fs::perms(0));
  fs::permissions(path(), fs::perms(0666));
  {
    Unprivileged user(folder.path());
    if (!user || ::access(QVDB_TOOL, X_OK) != 0) GTEST_SKIP() << "only root can run the tool here";
    fails({"import", "test.qvd", "files", "in/"}, 1,
          {"in/2", "open", "1 file is stored, 1 is not", "--replace"});
  }
  EXPECT_EQ(namesIn("files"), (Words{"0/1"}));
  done({"export", "test.qvd", "files", "out"});
}

TEST_F(ToolImport, ShowsProgressOnATerminalOnly) {
  for (int i = 0; i < 3; ++i) store("in/" + std::to_string(i), bytesOf("x"));
  EXPECT_EQ(run({"import", "test.qvd", "quiet", "in"}).err, "");
  ProgramCall call = callOf({"import", "test.qvd", "shown", "in"});
  call.terminal = Terminal::error;
  const Outcome outcome = runProgram(call);
  EXPECT_NE(outcome.err.find("importing 1 of 4 files"), std::string::npos) << outcome;
  EXPECT_TRUE(outcome.err.ends_with("\r\x1b[K")) << "the line was not taken away";
}

// ---- records that were deleted

using ToolUndelete = ToolImport;

TEST_F(ToolUndelete, TakesTheNameOfAFileAndGivesItBack) {
  store("in/a", bytesOf("first"));
  store("in/b", bytesOf("second"));
  done({"import", "test.qvd", "files", "in/"});
  const std::string id = json({"records", "--json", "test.qvd", "files"})["records"][0]["id"];
  done({"rm", "test.qvd", "files", "a"});
  EXPECT_EQ(json({"history", "--json", "test.qvd", "files", "a"})["record"], id);
  expectOnlyRead([&] {
    EXPECT_EQ(line({"undelete", "test.qvd", "new.qvd", "files", "a"}),
              "The record is named 'a' again.");
  });
  EXPECT_EQ(done({"get", "new.qvd", "files", "a"}), "first");
  EXPECT_EQ(json({"records", "--json", "new.qvd", "files"})["records"][1]["id"], id);
  done({"export", "new.qvd", "files", "out"});
  EXPECT_EQ(inventory(path("out")), inventory(path("in")));
  // By its identifier it gets its name, too.
  done({"undelete", "test.qvd", "new2.qvd", "files", id});
  EXPECT_EQ(done({"get", "new2.qvd", "files", "a"}), "first");
}

TEST_F(ToolUndelete, LeavesANameToTheFileThatHasItNow) {
  store("in/a", bytesOf("old"));
  done({"import", "test.qvd", "files", "in/"});
  const std::string old = json({"records", "--json", "test.qvd", "files"})["records"][0]["id"];
  done({"rm", "test.qvd", "files", "a"});
  store("in/a", bytesOf("new"));
  done({"import", "test.qvd", "files", "in/"});
  EXPECT_NE(json({"history", "--json", "test.qvd", "files", "a"})["record"], old);
  EXPECT_EQ(line({"undelete", "test.qvd", "new.qvd", "files", "a"}),
            "Another file is named 'a' now: the record has no name.");
  EXPECT_EQ(done({"get", "new.qvd", "files", "a"}), "new");
  EXPECT_EQ(done({"get", "new.qvd", "files", old}), "old");
}

TEST_F(ToolUndelete, OfANameThatNoFileHasOrHadIsAFailure) {
  store("in/a", bytesOf("a"));
  done({"import", "test.qvd", "files", "in/"});
  fails({"undelete", "test.qvd", "new.qvd", "files", "b"}, 1, {"'b'"});
  fails({"history", "test.qvd", "files", "b"}, 1, {"'b'"});
  done({"add-table", "test.qvd", "notes"});
  fails({"history", "test.qvd", "notes", "b"}, 2, {"'b'", "identifier"});
}

TEST_F(ToolImport, DeletedRecordsAreListedWithTheirNames) {
  for (const char* name : {"a", "b", "c", "d"}) store(std::string("in/") + name, bytesOf(name));
  done({"import", "test.qvd", "files", "in/"});
  const auto all = json({"records", "--json", "test.qvd", "files"})["records"];
  EXPECT_TRUE(json({"records", "--deleted", "--json", "test.qvd", "files"})["deleted"].empty());
  done({"set", "test.qvd", "files", "b"}, "a longer one, which moves");
  done({"rm", "test.qvd", "files", "c", "a"});
  const std::string other = line({"put", "test.qvd", "files"}, "without a name");
  done({"rm", "test.qvd", "files", other});
  expectOnlyRead([&] {
    const auto deleted = json({"records", "--deleted", "--json", "test.qvd", "files"})["deleted"];
    ASSERT_EQ(deleted.size(), 3u);
    EXPECT_EQ(deleted[0]["name"], "a");
    EXPECT_EQ(deleted[0]["id"], all[0]["id"]);
    EXPECT_EQ(deleted[1]["name"], "c");
    EXPECT_EQ(deleted[2]["id"], other);
    EXPECT_FALSE(deleted[2].contains("name"));
    const std::string text = done({"records", "--deleted", "test.qvd", "files"});
    EXPECT_TRUE(text.starts_with("ID  ")) << text;
    EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 4);
  });
}

TEST_F(ToolImport, HistoryHasAHeadForEachColumn) {
  store("in/a", bytesOf("a"));
  done({"import", "test.qvd", "files", "in/"});
  const std::string text = done({"history", "test.qvd", "files", "a"});
  EXPECT_TRUE(text.starts_with("MODIFIED                  OFFSET        SIZE  STATE\n")) << text;
  EXPECT_NE(text.find("           1  live\n"), std::string::npos) << text;
}

// ---- export

TEST_F(ToolExport, NamesFilesByIdentifierWithoutImportedNames) {
  const int16_t db = open();
  const uint64_t table = addTable(db, "notes");
  assignRecord(db, table, 0xA1, bytesOf("one"));
  assignRecord(db, table, 0xA2, {});
  assignRecord(db, table, 0xA1, bytesOf("again"));
  close(db);
  EXPECT_EQ(line({"export", "--parents", "test.qvd", "notes", "a/b/out"}),
            "exported 3 files, 8 bytes");
  EXPECT_EQ(readFile(path("a/b/out/0x00000000000000a1")), bytesOf("one"));
  EXPECT_EQ(readFile(path("a/b/out/0x00000000000000a2")), Bytes());
  EXPECT_EQ(readFile(path("a/b/out/0x00000000000000a1-2")), bytesOf("again"));
}

TEST_F(ToolExport, NamesRecordsThatWereAddedLaterByIdentifier) {
  writeFile(path("f"), bytesOf("f"));
  done({"import", "test.qvd", "files", "f"});
  done({"put", "--id", "7", "test.qvd", "files"}, "later");
  done({"export", "test.qvd", "files", "out"});
  EXPECT_EQ(readFile(path("out/f")), bytesOf("f"));
  EXPECT_EQ(readFile(path("out/0x0000000000000007")), bytesOf("later"));
  done({"export", "--by-id", "test.qvd", "files", "ids"});
  EXPECT_FALSE(fs::exists(path("ids/f")));
  EXPECT_TRUE(fs::exists(path("ids/0x0000000000000007")));
}

TEST_F(ToolExport, WritesNothingWhenOneFileExistsAlready) {
  makeFiles(path("in"));
  done({"import", "test.qvd", "files", "in/"});
  store("out/sub/binary", bytesOf("precious"));
  const auto before = inventory(path("out"));
  fails({"export", "test.qvd", "files", "out"}, 1, {"out/sub/binary", "exists", "--force"});
  EXPECT_EQ(inventory(path("out")), before);
  done({"export", "--force", "test.qvd", "files", "out"});
  EXPECT_EQ(inventory(path("out")), inventory(path("in")));
  done({"export", "--force", "test.qvd", "files", "out"});
  EXPECT_EQ(inventory(path("out")), inventory(path("in")));
}

TEST_F(ToolExport, RemovesAFileThatCannotBeCompleted) {
  store("in/a", pattern(100));
  store("in/b", pattern(2'000'000));
  done({"import", "test.qvd", "files", "in/"});
  ProgramCall call = callOf({});
  call.program = "/bin/sh";
  for (const std::string command : {"export test.qvd files out", "get test.qvd files b -o b"}) {
    call.arguments = {"-c", "ulimit -f 1000; exec '" + std::string(QVDB_TOOL) + "' " + command};
    const Outcome outcome = runProgram(call);
    EXPECT_EQ(outcome.status, 1) << outcome;
    expectOneLine(outcome.err, {"b: cannot write"});
    EXPECT_FALSE(fs::exists(path("b")));
    EXPECT_FALSE(fs::exists(path("out/b")));
  }
  EXPECT_EQ(readFile(path("out/a")), pattern(100));
}

TEST_F(ToolExport, StopsAtCtrlCBetweenTwoFilesOrRemovesTheHalfWrittenOne) {
  for (int i = 0; i < 2000; ++i) store("in/" + std::to_string(i), pattern(5000));
  done({"import", "test.qvd", "files", "in/"});
  ProgramCall call = callOf({"export", "test.qvd", "files", "out"});
  call.meanwhile = [this](pid_t process) {
    while (!fs::exists(path("out")) || fs::is_empty(path("out"))) {
      siginfo_t ended = {};
      ::waitid(P_PID, static_cast<id_t>(process), &ended, WEXITED | WNOWAIT | WNOHANG);
      if (ended.si_pid != 0) return;
    }
    ::kill(process, SIGINT);
  };
  const Outcome outcome = runProgram(call);
  if (outcome.status == 1) expectOneLine(outcome.err, {"interrupted"});
  for (const auto& entry : fs::directory_iterator(path("out"))) {
    EXPECT_EQ(fs::file_size(entry.path()), 5000u) << entry.path();
  }
}

TEST_F(ToolExport, BesideOtherFilesDoesNotChangeThem) {
  writeFile(path("f"), bytesOf("f"));
  done({"import", "test.qvd", "files", "f"});
  store("out/other", bytesOf("other"));
  done({"export", "test.qvd", "files", "out"});
  EXPECT_EQ(readFile(path("out/other")), bytesOf("other"));
  fs::remove(path("out/f"));
  fs::create_directory(path("out/f"));
  fails({"export", "--force", "test.qvd", "files", "out"}, 1, {"out/f", "folder"});
  fs::remove(path("out/f"));
  ASSERT_EQ(::mkfifo(path("out/f").c_str(), 0600), 0);
  fails({"export", "--force", "test.qvd", "files", "out"}, 1, {"out/f", "a pipe"});
  EXPECT_TRUE(fs::is_fifo(path("out/f")));
}

TEST_F(ToolExport, RestoresAReadOnlyFolder) {
  store("in/locked/f", bytesOf("f"));
  fs::permissions(path("in/locked"), fs::perms(0555));
  done({"import", "test.qvd", "files", "in/"});
  done({"export", "test.qvd", "files", "out"});
  EXPECT_EQ(inventory(path("out")), inventory(path("in")));
  fs::permissions(path("in/locked"), fs::perms(0755));
  fs::permissions(path("out/locked"), fs::perms(0755));
}

TEST_F(ToolExport, DropsTheRightToActInAnothersName) {
  writeFile(path("f"), bytesOf("f"));
  ASSERT_EQ(::chmod(path("f").c_str(), 06755), 0);
  done({"import", "test.qvd", "files", "f"});
  done({"export", "test.qvd", "files", "out"});
  struct stat status = {};
  ASSERT_EQ(::stat(path("out/f").c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 07777, 0755u);
}

// Names in a file can say anything.
class HostileNames : public ToolImport {
 protected:
  void SetUp() override {
    fs::create_directory(path("outside"));
    fs::create_directory(path("out"));
  }

  // A database whose table "files" has one record, 0xA1, and these names.
  void names(const NameBlock& block) {
    FileImage image;
    image.addTable("files", 0x11);
    image.addRecord(0, 0xA1, bytesOf("payload"));
    image.setTableData(0, block.bytes());
    writeFile(path(), image.build());
  }

  // A name that leads out of the folder is damage: its record is written under its identifier.
  void expectNumbered() {
    const Outcome outcome = run({"export", "test.qvd", "files", "out"});
    EXPECT_EQ(outcome.status, 1) << outcome;
    expectOneLine(outcome.err, {"damaged after the first 0"});
    EXPECT_TRUE(fs::is_empty(path("outside")));
    EXPECT_EQ(inventory(path("out")).size(), 1u);
    EXPECT_EQ(readFile(path("out/0x00000000000000a1")), bytesOf("payload"));
    size_t entries = 0;
    for ([[maybe_unused]] const auto& entry : fs::directory_iterator(folder.path())) ++entries;
    EXPECT_EQ(entries, 3u) << "something was written beside the folder";
    fs::remove_all(path("out"));
    fs::create_directory(path("out"));
  }

  void expectRefused() {
    const Outcome outcome = run({"export", "test.qvd", "files", "out"});
    EXPECT_EQ(outcome.status, 1) << outcome;
    expectOneLine(outcome.err, {});
    EXPECT_TRUE(fs::is_empty(path("outside")));
    size_t entries = 0;
    for ([[maybe_unused]] const auto& entry : fs::directory_iterator(folder.path())) ++entries;
    EXPECT_EQ(entries, 3u) << "something was written beside the folder";
  }
};

TEST_F(HostileNames, ThatLeadOutOfTheFolderAreNeverUsed) {
  for (const std::string& name :
       Words{"../x", "..", ".", "", "/x", "a/../../x", "a/..", "a//b", "a/", "./a", "a/./b", "/",
             folder.path().native() + "/outside/x"}) {
    SCOPED_TRACE(name);
    names(NameBlock().entry('f', 0644, 0xA1, name));
    expectNumbered();
    names(NameBlock().entry('d', 0755, 0, name));
    expectNumbered();
    names(NameBlock().entry('l', 0777, 0, name, 0, "target"));
    expectNumbered();
  }
  names(NameBlock().entry('f', 0644, 0xA1, std::string("a\0b", 3)));
  expectNumbered();
}

TEST_F(HostileNames, DoNotWriteThroughALinkThatComesFirst) {
  names(NameBlock().entry('l', 0777, 0, "a", 0, "../outside").entry('f', 0644, 0xA1, "a/x"));
  expectRefused();
}

TEST_F(HostileNames, DoNotWriteThroughALinkThatExists) {
  fs::create_symlink("../outside", path("out/a"));
  names(NameBlock().entry('f', 0644, 0xA1, "a/x"));
  expectRefused();
  const Outcome forced = run({"export", "--force", "test.qvd", "files", "out"});
  EXPECT_EQ(forced.status, 1) << forced;
  EXPECT_TRUE(fs::is_empty(path("outside")));
}

TEST_F(HostileNames, ReplaceALinkThatExistsAndNotItsTarget) {
  writeFile(path("outside/x"), bytesOf("precious"));
  fs::create_symlink("../outside/x", path("out/x"));
  names(NameBlock().entry('f', 0644, 0xA1, "x"));
  fails({"export", "test.qvd", "files", "out"}, 1, {"out/x", "exists"});
  done({"export", "--force", "test.qvd", "files", "out"});
  EXPECT_FALSE(fs::is_symlink(path("out/x")));
  EXPECT_EQ(readFile(path("out/x")), bytesOf("payload"));
  EXPECT_EQ(readFile(path("outside/x")), bytesOf("precious"));
}

TEST_F(HostileNames, ThatAreDuplicateOrContradictoryAreAFailure) {
  names(NameBlock().entry('l', 0777, 0, "x", 0, "../outside/y").entry('f', 0644, 0xA1, "x"));
  expectRefused();
  names(NameBlock().entry('d', 0755, 0, "x").entry('f', 0644, 0xA1, "x"));
  expectRefused();
}

TEST_F(HostileNames, ThatAreDamagedAreReportedAndTheRecordsAreExported) {
  constexpr size_t kHead = 32;  // of version 2: a list that ends with it has no entries
  for (NameBlock block : {NameBlock(), NameBlock(1)}) {
    const Bytes sound = block.entry('f', 0644, 0xA1, "x").bytes();
    for (size_t length = 9; length < sound.size(); length += length == kHead - 1 ? 2 : 1) {
      FileImage image;
      image.addTable("files", 0x11);
      image.addRecord(0, 0xA1, bytesOf("payload"));
      image.setTableData(0, sound.cut(length));
      writeFile(path(), image.build());
      expectNumbered();
    }
  }
  done({"export", "--by-id", "test.qvd", "files", "out"});
  EXPECT_EQ(readFile(path("out/0x00000000000000a1")), bytesOf("payload"));
}

TEST_F(HostileNames, CannotFillTheMemory) {
  // Each entry takes 27 bytes here and repeats a name that grows with every one.
  NameBlock block;
  for (int i = 0; i < 3; ++i) block.entry('f', 0644, 1, std::string(255, 'x'), 0);
  Bytes bytes = block.bytes();
  for (unsigned i = 1; i < 60'000; ++i) {
    const unsigned shared = 255 + i - 1;
    bytes.text("f").be(2, 0644).be(8, 0).be(4, 0).be(8, 1);
    for (unsigned rest = shared;; rest >>= 7) {
      bytes.be(1, rest < 0x80 ? rest : (rest & 0x7F) | 0x80);
      if (rest < 0x80) break;
    }
    bytes.be(1, 1).text("x").be(1, 0);
  }
  FileImage image;
  image.addTable("files", 0x11);
  image.setTableData(0, bytes);
  writeFile(path(), image.build());
  const Outcome outcome = run({"export", "test.qvd", "files", "out"});
  EXPECT_EQ(outcome.status, 1) << outcome;
  expectOneLine(outcome.err, {"damaged after the first"});
}

// ---- a damaged list of names

class TornNames : public ToolImport {
 protected:
  void SetUp() override {}

  // A table "files" with the records 0xA1, 0xA2 and 0xA3, whose contents are their names.
  void write(const Bytes& names) {
    FileImage image;
    image.addTable("files", 0x11);
    image.addRecord(0, 0xA1, bytesOf("one"));
    image.addRecord(0, 0xA2, bytesOf("two"));
    image.addRecord(0, 0xA3, bytesOf("three"));
    image.setTableData(0, names);
    writeFile(path(), image.build());
  }

  static NameBlock threeNames() {
    return NameBlock()
        .entry('f', 0644, 0xA1, "one")
        .entry('f', 0644, 0xA2, "two")
        .entry('f', 0644, 0xA3, "hree", 1);
  }
  static constexpr size_t kSecond = 8 + 23 + 3 + 3;  // where the second entry begins
};

TEST_F(TornNames, AreKeptBeforeTheTear) {
  Bytes names = threeNames().bytes();
  names[kSecond] = 0;
  write(names);
  const Outcome outcome = run({"export", "test.qvd", "files", "out"});
  EXPECT_EQ(outcome.status, 1) << outcome;
  EXPECT_EQ(outcome.out, "exported 3 files, 11 bytes\n");
  expectOneLine(outcome.err, {"test.qvd", "'files'", "damaged after the first 1"});
  EXPECT_EQ(readFile(path("out/one")), bytesOf("one"));
  EXPECT_EQ(readFile(path("out/0x00000000000000a2")), bytesOf("two"));
  EXPECT_EQ(readFile(path("out/0x00000000000000a3")), bytesOf("three"));

  const Outcome list = run({"records", "--json", "test.qvd", "files"});
  EXPECT_EQ(list.status, 1) << list;
  expectOneLine(list.err, {"damaged"});
  const auto records = parsedJson(list.out)["records"];
  ASSERT_EQ(records.size(), 3u);
  EXPECT_EQ(records[0]["name"], "one");
  EXPECT_FALSE(records[1].contains("name"));

  EXPECT_EQ(done({"get", "test.qvd", "files", "one"}), "one");
  EXPECT_EQ(done({"get", "test.qvd", "files", "0xa2"}), "two");
  fails({"get", "test.qvd", "files", "two"}, 1, {"'two'", "before the damage"});
}

TEST_F(TornNames, AtAnyByteHoldNoRecordBack) {
  const Bytes sound = threeNames().bytes();
  for (size_t at = 8; at < sound.size(); ++at) {
    const int values[] = {0x00, 0xFF, sound[at] ^ 0x01};
    for (size_t i = 0; i < std::size(values); ++i) {
      // Under a sanitizer each of these is a long run of the tool: one value at each byte.
      if (kIsSanitized && i != at % std::size(values)) continue;
      Bytes names = sound;
      names[at] = static_cast<uint8_t>(values[i]);
      write(names);
      const Outcome outcome = run({"export", "test.qvd", "files", "out"});
      EXPECT_NE(outcome.out.find("exported 3 files"), std::string::npos)
          << "byte " << at << ": " << outcome;
      if (at >= kSecond) {
        EXPECT_EQ(readFile(path("out/one")), bytesOf("one")) << at;
      }
      EXPECT_EQ(run({"get", "test.qvd", "files", "0xa3"}).out, "three") << at;
      fs::remove_all(path("out"));
    }
  }
}

TEST_F(TornNames, AreRemovedWithTheirRecordsAndKeptOtherwise) {
  Bytes names = threeNames().bytes();
  names[kSecond + 23 + 2] = 0;  // in the second name
  write(names);
  const Outcome removed = run({"rm", "test.qvd", "files", "one", "0xa2"});
  EXPECT_EQ(removed.status, 0) << removed;
  names[8] = '-';
  EXPECT_EQ(database().tables[0].data->data(), names);
}

TEST_F(TornNames, AreDroppedWhenFilesAreAdded) {
  Bytes names = threeNames().bytes();
  names[kSecond] = 0;
  write(names);
  store("in/new", bytesOf("new"));
  const Outcome outcome = run({"import", "test.qvd", "files", "in"});
  EXPECT_EQ(outcome.status, 0) << outcome;
  expectOneLine(outcome.err, {"damaged after the first 1"});
  EXPECT_EQ(namesIn("files"), (Words{"one", "-", "-", "in/new"}));
}

// The moment between the mark after the shorter list and its length: what a kill leaves.
TEST_F(TornNames, EndQuietlyWhereTheyAreBeingShortened) {
  Bytes names = threeNames().bytes();
  names[kSecond] = 'i';
  write(names);
  EXPECT_EQ(namesIn("files"), (Words{"one", "-", "-"}));
}

}  // namespace
}  // namespace qvdbase::test
