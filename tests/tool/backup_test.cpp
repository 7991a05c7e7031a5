// qvdb backup and qvdb restore.
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <map>
#include <thread>

#include "tool/tool_fixture.h"

namespace qvdbase::test {
namespace {

namespace fs = std::filesystem;

constexpr size_t kPieceSize = 262'144;

// By another program than the one that is tested.
std::string sha256(const Bytes& bytes) {
  ProgramCall call;
  call.program = "/usr/bin/sha256sum";
  call.input = bytes.str();
  const Outcome outcome = runProgram(call);
  EXPECT_EQ(outcome.status, 0);
  return outcome.out.substr(0, 64);
}

class ToolBackup : public ToolTest {
 protected:
  // A piece that begins as a database does is the first part of one.
  void TearDown() override {
    if (fs::exists(path("pool/pieces"))) {
      for (const std::string& name : namesIn("pool/pieces")) allowDamage("pool/pieces/" + name);
    }
    ToolTest::TearDown();
  }

  // Three records of 200,000 bytes.
  void putDatabase() { notes({Bytes(200'000, 'a'), Bytes(200'000, 'b'), Bytes(200'000, 'c')}); }

  void addRecord(char filling) {
    done({"put", "test.qvd", "notes", "-"}, std::string(200'000, filling));
  }

  std::string backUp() {
    const std::string line = done({"backup", "--pieces", "test.qvd", "pool"});
    return line.substr(0, line.find(':'));
  }

  std::vector<std::string> namesIn(const std::string& name) const {
    std::vector<std::string> result;
    for (const auto& entry : fs::directory_iterator(path(name))) {
      if (entry.is_regular_file()) result.push_back(entry.path().filename().native());
    }
    std::sort(result.begin(), result.end());
    return result;
  }

  std::map<std::string, fs::file_time_type> timesIn(const std::string& name) const {
    std::map<std::string, fs::file_time_type> result;
    for (const std::string& each : namesIn(name)) {
      result[each] = fs::last_write_time(path(name) / each);
    }
    return result;
  }

  mode_t modeOf(const std::string& name) const {
    struct stat status = {};
    EXPECT_EQ(::stat(path(name).c_str(), &status), 0);
    return status.st_mode & 07777;
  }

  // Puts a list of pieces there that is right in itself.
  void putManifest(const std::string& body, const std::string& time = "20990101T000000Z") {
    writeFile(path("pool/backup-" + time + "-000.manifest"),
              bytesOf(body + "sha256 " + sha256(bytesOf(body)) + "\n"));
  }

  // Nothing is created, and nothing stays.
  void refusesToRestore(const std::vector<std::string>& parts) {
    fails({"restore", "pool", "restored.qvd"}, 1, parts);
    EXPECT_FALSE(fs::exists(path("restored.qvd")));
    for (const auto& entry : fs::directory_iterator(folder.path())) {
      EXPECT_NE(entry.path().extension(), ".tmp") << entry.path();
    }
  }
};

// ---- whole copies ----

TEST_F(ToolBackup, CopiesEveryByte) {
  putDatabase();
  expectOnlyRead([&] {
    EXPECT_EQ(line({"backup", "test.qvd", "copy.qvd"}),
              "copy.qvd: " + std::to_string(fileSize()) + " bytes, checked: sound");
  });
  EXPECT_TRUE(sameBytes(contents("copy.qvd"), contents()));
}

TEST_F(ToolBackup, ReplacesAFileOnlyWithForce) {
  putDatabase();
  writeFile(path("copy.qvd"), bytesOf("x"));
  fails({"backup", "test.qvd", "copy.qvd"}, 1, {"copy.qvd", "exists already", "--force"});
  done({"backup", "-f", "test.qvd", "copy.qvd"});
  EXPECT_TRUE(sameBytes(contents("copy.qvd"), contents()));
  fails({"backup", "-f", "test.qvd", "test.qvd"}, 1, {"it is the database itself"});
}

TEST_F(ToolBackup, CreatesFoldersIfAskedTo) {
  putDatabase();
  fails({"backup", "test.qvd", "a/b.qvd"}, 1, {"a/b.qvd", "--parents"});
  done({"backup", "--parents", "test.qvd", "a/b.qvd"});
  EXPECT_TRUE(sameBytes(contents("a/b.qvd"), contents()));
}

TEST_F(ToolBackup, CopiesWhatAnotherProcessHasOpenForWriting) {
  putDatabase();
  const int16_t db = open();
  done({"backup", "test.qvd", "copy.qvd"});
  close(db);
  EXPECT_TRUE(sameBytes(contents("copy.qvd"), contents()));
}

TEST_F(ToolBackup, RefusesADamagedDatabase) {
  putDatabase();
  Bytes damaged = contents();
  damaged[static_cast<size_t>(slot(0).firstRecordPos) + 46] ^= 1;
  writeFile(path(), damaged);
  expectDamage(kDefaultFile);
  fails({"backup", "test.qvd", "copy.qvd"}, 1, {"test.qvd: cannot back up the database: it has "});
  fails({"backup", "--pieces", "test.qvd", "pool"}, 1, {"it has "});
  EXPECT_EQ(namesIn("pool"), std::vector<std::string>{});
}

TEST_F(ToolBackup, RefusesWrongUsage) {
  putDatabase();
  fails({"backup", "test.qvd"}, 2, {"TARGET"});
  fails({"backup", "--prune", "1", "test.qvd", "x"}, 2, {"--prune needs --pieces"});
  fails({"backup", "--pieces", "--prune", "0", "test.qvd", "x"}, 2, {"1 or more"});
  fails({"backup", "--pieces", "--force", "test.qvd", "x"}, 2, {"--force"});
  fails({"restore", "x"}, 2, {"--list"});
  fails({"restore", "--list", "x", "y"}, 2, {"--list"});
  fails({"backup", "missing.qvd", "x"}, 1, {"missing.qvd"});
  fails({"backup", "--pieces", "missing.qvd", "x"}, 1, {"missing.qvd"});
  EXPECT_FALSE(fs::exists(path("x")));
}

TEST_F(ToolBackup, CopiesToFilesOnly) {
  putDatabase();
  fs::create_directory(path("folder"));
  fails({"backup", "test.qvd", "folder"}, 1, {"folder"});
  fails({"backup", "-f", "test.qvd", "folder"}, 1, {"folder"});
  ASSERT_EQ(::mkfifo(path("fifo").c_str(), 0600), 0);
  fails({"backup", "test.qvd", "fifo"}, 1, {"fifo"});
  fails({"backup", "-f", "test.qvd", "fifo"}, 1, {"fifo"});
  fs::create_symlink("test.qvd", path("link"));
  fails({"backup", "-f", "test.qvd", "link"}, 1, {"it is the database itself"});
  EXPECT_TRUE(fs::is_fifo(path("fifo")));
  EXPECT_EQ(namesIn("."), (std::vector<std::string>{"link", "test.qvd"}));
}

// ---- pieces ----

TEST_F(ToolBackup, CutsTheFileIntoPiecesThatAreNamedByTheirHashes) {
  putDatabase();
  ASSERT_EQ(::chmod(path().c_str(), 0640), 0);
  const std::string manifest = backUp();
  const Bytes all = contents();
  std::vector<std::string> expected;
  std::string hashes;
  for (size_t at = 0; at < all.size(); at += kPieceSize) {
    const Bytes piece = all.at(at, std::min(kPieceSize, all.size() - at));
    expected.push_back(sha256(piece));
    hashes += expected.back() + "\n";
    EXPECT_TRUE(sameBytes(contents("pool/pieces/" + expected.back()), piece));
    EXPECT_EQ(modeOf("pool/pieces/" + expected.back()), 0440u);
  }
  std::sort(expected.begin(), expected.end());
  EXPECT_EQ(namesIn("pool/pieces"), expected);
  const std::string text = contents(manifest).str();
  EXPECT_TRUE(text.starts_with("backup-of-qvdb 1\ntime 20")) << text;
  const std::string rest = "\nmode 640\nlength " + std::to_string(all.size()) + "\n" + hashes;
  const size_t place = text.find(rest);
  ASSERT_NE(place, std::string::npos) << text;
  const std::string body = text.substr(0, place + rest.size());
  EXPECT_EQ(text, body + "sha256 " + sha256(bytesOf(body)) + "\n");
}

TEST_F(ToolBackup, RestoresTheBytesAndTheMode) {
  putDatabase();
  ASSERT_EQ(::chmod(path().c_str(), 0604), 0);
  backUp();
  const std::string printed = line({"restore", "pool", "restored.qvd"});
  EXPECT_TRUE(printed.starts_with("restored.qvd: " + std::to_string(fileSize()) + " bytes of 20"))
      << printed;
  EXPECT_TRUE(sameBytes(contents("restored.qvd"), contents()));
  EXPECT_EQ(modeOf("restored.qvd"), 0604u);
}

TEST_F(ToolBackup, WritesNothingAgainThatIsThere) {
  std::vector<Bytes> payloads;
  for (char each = 'a'; each < 'k'; ++each) payloads.emplace_back(300'000, each);
  notes(payloads);
  backUp();
  const auto before = timesIn("pool/pieces");
  ASSERT_EQ(before.size(), 12u);
  addRecord('n');
  backUp();
  const auto after = timesIn("pool/pieces");
  for (const auto& [name, time] : before) EXPECT_EQ(after.at(name), time) << name;
  // The directory, the link in the record before, and what follows that.
  EXPECT_LE(after.size(), before.size() + 5);
  const std::string again = done({"backup", "--pieces", "test.qvd", "pool"});
  EXPECT_NE(again.find(", 0 of them new"), std::string::npos) << again;
  EXPECT_EQ(timesIn("pool/pieces"), after);
  EXPECT_EQ(namesIn("pool").size(), 3u);
}

TEST_F(ToolBackup, RestoresTheStateOfAnEarlierTime) {
  putDatabase();
  const Bytes first = contents();
  const std::string manifest = backUp();
  // As if a day had passed since.
  std::string text = contents(manifest).str();
  const std::string date = "2001-09-09T01:46:40Z";
  text.replace(text.find("time ") + 5, date.size(), date);
  text.erase(text.rfind("sha256 "));
  fs::remove(path(manifest));
  putManifest(text, "20010909T014640Z");
  addRecord('n');
  backUp();
  EXPECT_TRUE(done({"restore", "--list", "pool"}).starts_with(date));
  done({"restore", "--at", "2001-09-10", "pool", "old.qvd"});
  EXPECT_TRUE(sameBytes(contents("old.qvd"), first));
  done({"restore", "--at", date, "pool", "same.qvd"});
  EXPECT_TRUE(sameBytes(contents("same.qvd"), first));
  done({"restore", "pool", "new.qvd"});
  EXPECT_TRUE(sameBytes(contents("new.qvd"), contents()));
  fails({"restore", "--at", "2001-09-09T01:46:39Z", "pool", "x.qvd"}, 1,
        {"no backup is as old as 2001-09-09T01:46:39Z"});
  fails({"restore", "--at", "yesterday", "pool", "x.qvd"}, 2, {"--at takes a time"});
}

TEST_F(ToolBackup, PrunesOldBackupsAndThePiecesThatOnlyTheyNeeded) {
  putDatabase();
  backUp();
  addRecord('n');
  backUp();
  addRecord('m');
  writeFile(path("pool/pieces/.qvdb-0123456789abcdef.tmp"), bytesOf("left by a killed process"));
  writeFile(path("pool/.copy.tmp"), bytesOf("left likewise"));
  writeFile(path("pool/pieces/readme"), bytesOf("not ours"));
  const std::string printed = done({"backup", "--pieces", "--prune", "1", "test.qvd", "pool"});
  EXPECT_NE(printed.find(" of older backups removed"), std::string::npos) << printed;
  EXPECT_EQ(namesIn("pool").size(), 1u);
  EXPECT_EQ(namesIn("pool/pieces").size(), (fileSize() + kPieceSize - 1) / kPieceSize + 1);
  EXPECT_TRUE(fs::exists(path("pool/pieces/readme")));
  done({"restore", "pool", "restored.qvd"});
  EXPECT_TRUE(sameBytes(contents("restored.qvd"), contents()));
}

TEST_F(ToolBackup, PrunesNothingWhileAListThatStaysIsDamaged) {
  putDatabase();
  backUp();
  writeFile(path("pool/backup-20000101T000000Z-000.manifest"), bytesOf("damaged"));
  const size_t pieces = namesIn("pool/pieces").size();
  const Outcome outcome = run({"backup", "--pieces", "--prune", "3", "test.qvd", "pool"});
  EXPECT_EQ(outcome.status, 1);
  expectOneLine(outcome.err, {"backup-20000101T000000Z-000.manifest", "damaged or incomplete"});
  EXPECT_EQ(namesIn("pool/pieces").size(), pieces);
  EXPECT_EQ(namesIn("pool").size(), 3u);
}

TEST_F(ToolBackup, AddsABackupAlsoAfterAListThatIsDamaged) {
  putDatabase();
  const std::string manifest = backUp();
  fs::permissions(path(manifest), fs::perms::owner_all);
  writeFile(path(manifest), bytesOf("damaged"));
  backUp();
  done({"restore", "pool", "restored.qvd"});
  EXPECT_TRUE(sameBytes(contents("restored.qvd"), contents()));
}

TEST_F(ToolBackup, RefusesAFolderWithBackupsOfAnotherDatabase) {
  putDatabase();
  backUp();
  notes({bytesOf("x")}, "other.qvd");
  fails({"backup", "--pieces", "other.qvd", "pool"}, 1, {"pool", "of another database"});
}

// A power failure can leave a piece that no list has yet, with other bytes.
TEST_F(ToolBackup, WritesAPieceAgainThatNoListHasAndThatIsNotWhole) {
  putDatabase();
  const std::string manifest = backUp();
  fs::remove(path(manifest));
  const std::string piece = namesIn("pool/pieces").front();
  const Bytes right = contents("pool/pieces/" + piece);
  fs::permissions(path("pool/pieces/" + piece), fs::perms::owner_all);
  for (const Bytes& wrong : {Bytes(right.size(), 0), Bytes()}) {
    writeFile(path("pool/pieces/" + piece), wrong);
    const std::string printed = done({"backup", "--pieces", "test.qvd", "pool"});
    EXPECT_NE(printed.find(", 1 of them new"), std::string::npos) << printed;
    EXPECT_TRUE(sameBytes(contents("pool/pieces/" + piece), right));
    for (const std::string& name : namesIn("pool")) fs::remove(path("pool/" + name));
    fs::permissions(path("pool/pieces/" + piece), fs::perms::owner_all);
  }
}

TEST_F(ToolBackup, WaitsForAnotherProcessInTheFolder) {
  putDatabase();
  backUp();
  const int opened = ::open(path("pool").c_str(), O_RDONLY | O_CLOEXEC);
  ASSERT_EQ(::flock(opened, LOCK_SH), 0);
  fails({"backup", "--pieces", "test.qvd", "pool"}, 3, {"pool", "another process", "--wait"});
  done({"restore", "pool", "restored.qvd"});
  ASSERT_EQ(::flock(opened, LOCK_EX), 0);
  fails({"restore", "pool", "again.qvd"}, 3, {"pool", "another process"});
  ::close(opened);
}

TEST_F(ToolBackup, KeepsAFileThatExistsUnlessForced) {
  putDatabase();
  backUp();
  fails({"restore", "pool", "test.qvd"}, 1, {"test.qvd", "--force"});
  done({"restore", "--force", "pool", "test.qvd"});
  fails({"restore", "pool", "a/b.qvd"}, 1, {"a/b.qvd", "--parents"});
  done({"restore", "--parents", "pool", "a/b.qvd"});
  fails({"restore", "pool", "a/"}, 1, {"names a folder"});
  fails({"restore", "missing", "b.qvd"}, 1, {"missing"});
}

// What is newest is restored and kept, whatever the clock showed.
TEST_F(ToolBackup, AddsNoBackupThatIsOlderThanTheNewest) {
  putDatabase();
  const std::string manifest = backUp();
  std::string text = contents(manifest).str();
  const std::string date = "2099-01-01T00:00:00Z";
  text.replace(text.find("time ") + 5, date.size(), date);
  text.erase(text.rfind("sha256 "));
  fs::remove(path(manifest));
  putManifest(text);
  addRecord('n');
  for (const Words& more : {Words{}, Words{"--prune", "1"}}) {
    Words words = {"backup", "--pieces", "test.qvd", "pool"};
    words.insert(words.end(), more.begin(), more.end());
    const Outcome outcome = run(words);
    EXPECT_EQ(outcome.status, 0) << outcome;
    expectOneLine(outcome.err, {"pool: the newest backup in it is of " + date, "the clock shows"});
    done({"restore", "--force", "pool", "restored.qvd"});
    EXPECT_TRUE(sameBytes(contents("restored.qvd"), contents()));
  }
  EXPECT_EQ(namesIn("pool"), std::vector<std::string>{"backup-20990101T000000Z-002.manifest"});
}

TEST_F(ToolBackup, NamesAThousandAndMoreBackupsOfOneTime) {
  putDatabase();
  const std::string manifest = backUp();
  std::string text = contents(manifest).str();
  const std::string date = "2099-01-01T00:00:00Z";
  text.replace(text.find("time ") + 5, date.size(), date);
  text.erase(text.rfind("sha256 "));
  putManifest(text);
  for (int i = 1; i < 1000; ++i) {
    const std::string number = std::to_string(1000 + i).substr(1);
    fs::copy_file(path("pool/backup-20990101T000000Z-000.manifest"),
                  path("pool/backup-20990101T000000Z-" + number + ".manifest"));
  }
  addRecord('n');
  EXPECT_EQ(run({"backup", "--pieces", "test.qvd", "pool"}).status, 0);
  EXPECT_EQ(namesIn("pool").back(), "backup-20990101T000001Z-000.manifest");
  done({"restore", "pool", "restored.qvd"});
  EXPECT_TRUE(sameBytes(contents("restored.qvd"), contents()));
}

TEST_F(ToolBackup, TakesTurnsWithOthersInItsFolder) {
  putDatabase();
  std::vector<std::thread> threads;
  for (int i = 0; i < 4; ++i) {
    threads.emplace_back([&] {
      const Outcome outcome =
          runProgram(callOf({"backup", "--wait", "60", "--pieces", "test.qvd", "pool"}));
      EXPECT_EQ(outcome.status, 0) << outcome;
    });
  }
  for (std::thread& each : threads) each.join();
  EXPECT_EQ(namesIn("pool").size(), 4u);
  for (const std::string& name : namesIn("pool")) {
    fs::create_directory(path("one"));
    fs::copy(path("pool/pieces"), path("one/pieces"));
    fs::copy(path("pool") / name, path("one") / name);
    done({"restore", "one", "restored.qvd"});
    EXPECT_TRUE(sameBytes(contents("restored.qvd"), contents()));
    fs::remove_all(path("one"));
    fs::remove(path("restored.qvd"));
  }
}

// Its folder may be that of the database, where another command may be writing.
TEST_F(ToolBackup, LeavesUnfinishedFilesOfOtherCommandsAlone) {
  putDatabase();
  const std::string others = ".qvdb-0123456789abcdef.tmp";
  writeFile(path(others), bytesOf("being written"));
  done({"backup", "--pieces", "test.qvd", "."});
  EXPECT_TRUE(sameBytes(contents(others), bytesOf("being written")));
  done({"restore", ".", "restored.qvd"});
  EXPECT_TRUE(sameBytes(contents("restored.qvd"), contents()));
  for (const std::string& name : namesIn("pieces")) allowDamage("pieces/" + name);
}

TEST_F(ToolBackup, RestoresFilesOnly) {
  putDatabase();
  backUp();
  fs::create_directory(path("folder"));
  ASSERT_EQ(::mkfifo(path("fifo").c_str(), 0600), 0);
  for (const char* name : {"folder", "fifo"}) {
    fails({"restore", "pool", name}, 1, {name, "something that is no file has that name"});
    fails({"restore", "--force", "pool", name}, 1, {name, "something that is no file"});
  }
  EXPECT_TRUE(fs::is_fifo(path("fifo")));
  EXPECT_TRUE(fs::is_empty(path("folder")));
  // Links lead to where the file is made.
  fs::create_symlink("nowhere", path("broken"));
  fails({"restore", "pool", "broken"}, 1, {"broken", "a symbolic link that leads nowhere"});
  fs::create_symlink("folder/real.qvd", path("link"));
  writeFile(path("folder/real.qvd"), bytesOf("x"));
  fails({"restore", "pool", "link"}, 1, {"folder/real.qvd", "exists already", "--force"});
  done({"restore", "--force", "pool", "link"});
  EXPECT_TRUE(fs::is_symlink(path("link")));
  EXPECT_TRUE(sameBytes(contents("folder/real.qvd"), contents()));
  const int16_t db = open();
  fails({"restore", "--force", "pool", "test.qvd"}, 3, {"test.qvd"});
  close(db);
}

// ---- damaged and hostile folders ----

TEST_F(ToolBackup, RefusesTargetsThatAreNoFolders) {
  putDatabase();
  writeFile(path("file"), bytesOf("x"));
  ASSERT_EQ(::mkfifo(path("fifo").c_str(), 0600), 0);
  for (const std::string target : {"file", "fifo", "test.qvd", "missing/pool", ""}) {
    fails({"backup", "--pieces", "test.qvd", target}, 1, {target});
    fails({"restore", target, "restored.qvd"}, 1, {target});
  }
  EXPECT_FALSE(fs::exists(path("missing")));
}

// Whoever may write to the folder could make root write and remove files elsewhere.
TEST_F(ToolBackup, FollowsNoLinkInsteadOfTheFolderOfPieces) {
  putDatabase();
  backUp();
  const std::string left = ".qvdb-0123456789abcdef.tmp";
  fs::rename(path("pool/pieces"), path("elsewhere"));
  writeFile(path("elsewhere") / left, bytesOf("x"));
  const std::vector<std::string> before = namesIn("elsewhere");
  for (const std::string& name : before) allowDamage("elsewhere/" + name);
  fs::create_directory_symlink(path("elsewhere"), path("pool/pieces"));
  addRecord('n');
  fails({"backup", "--pieces", "test.qvd", "pool"}, 1, {"pool/pieces", "open the folder"});
  refusesToRestore({"pool/pieces", "open the folder"});
  EXPECT_EQ(namesIn("elsewhere"), before);
  fs::remove(path("pool/pieces"));
}

TEST_F(ToolBackup, RestoresNothingOfMissingOrDamagedPieces) {
  putDatabase();
  backUp();
  const std::string piece = "pool/pieces/" + namesIn("pool/pieces").back();
  const Bytes right = contents(piece);
  fs::remove(path(piece));
  refusesToRestore({piece, "it is missing", "--at"});
  for (size_t change = 0; change < 4; ++change) {
    Bytes wrong = right;
    if (change == 0) wrong.back() ^= 1;
    if (change == 1) wrong.pop_back();
    if (change == 2) wrong.push_back(0);
    if (change == 3) wrong.clear();
    writeFile(path(piece), wrong);
    refusesToRestore({piece, "its bytes are others"});
  }
  fs::remove(path(piece));
  fs::create_directory(path(piece));
  refusesToRestore({piece});
  fs::remove(path(piece));
  writeFile(path("elsewhere"), right);
  allowDamage("elsewhere");  // it may be the one that begins as a database does
  fs::create_symlink(path("elsewhere"), path(piece));
  refusesToRestore({piece});
  fs::remove(path(piece));
  ASSERT_EQ(::mkfifo(path(piece).c_str(), 0600), 0);
  refusesToRestore({piece});
  fs::remove(path(piece));
  writeFile(path(piece), right);
  done({"restore", "pool", "restored.qvd"});
}

TEST_F(ToolBackup, RestoresNothingOfADamagedList) {
  putDatabase();
  const std::string manifest = backUp();
  fs::permissions(path(manifest), fs::perms::owner_all);
  const Bytes right = contents(manifest);
  for (size_t place = 0; place < right.size(); place += 7) {
    Bytes wrong = right;
    wrong[place] ^= 1;
    writeFile(path(manifest), wrong);
    refusesToRestore({manifest, "damaged or incomplete"});
  }
  for (size_t size = 0; size < right.size(); size += 50) {
    writeFile(path(manifest), right.at(0, size));
    refusesToRestore({manifest, "damaged or incomplete"});
  }
}

TEST_F(ToolBackup, RestoresNothingOfAHostileList) {
  putDatabase();
  backUp();
  const std::string head =
      "backup-of-qvdb 1\ntime 2099-01-01T00:00:00Z\ndatabase 0x0000000000000001\n";
  const std::string hash(64, 'a');
  const std::vector<std::string> rests = {
      "mode 640\nlength 18446744073709551615\n" + hash + "\n",
      "mode 640\nlength 9223372036854775808\n" + hash + "\n",
      "mode 640\nlength 262145\n" + hash + "\n",
      "mode 640\nlength 1\n" + hash + "\n" + hash + "\n",
      "mode 640\nlength 0\n" + hash + "\n",
      "mode 640\nlength -1\n" + hash + "\n",
      "mode 640\nlength 01\n" + hash + "\n",
      "mode 4755\nlength 1\n" + hash + "\n",
      "mode 640\nlength "
      "1\n../../../../../../../../../../../../../../../../../../../etc/passwd\n",
      "mode 640\nlength 1\n" + std::string(64, '/') + "\n",
      "mode 640\nlength 1\n" + std::string(64, 'A') + "\n",
      "mode 640\nlength 1\n" + hash + "\r\n",
      "mode 640\nlength 1\n" + hash + "\n\n",
      "length 1\n" + hash + "\n",
  };
  for (const std::string& rest : rests) {
    putManifest(head + rest);
    refusesToRestore({"20990101T000000Z", "damaged or incomplete"});
  }
  // Another time than its name says.
  putManifest(
      "backup-of-qvdb 1\ntime 2098-01-01T00:00:00Z\ndatabase 0x0000000000000001\nmode "
      "640\nlength 1\n" +
      hash + "\n");
  refusesToRestore({"20990101T000000Z", "damaged or incomplete"});
  putManifest(head + "mode 640\nlength 9223372036854775807\n");
  refusesToRestore({"20990101T000000Z", "damaged or incomplete"});
  fs::remove(path("pool/backup-20990101T000000Z-000.manifest"));
  fs::create_symlink("/etc/passwd", path("pool/backup-20990101T000000Z-000.manifest"));
  refusesToRestore({"20990101T000000Z"});
}

// The pieces and their list are right, and what they make is no database.
TEST_F(ToolBackup, RestoresNothingThatIsNotSound) {
  putDatabase();
  backUp();
  const Bytes piece(1000, 'x');
  writeFile(path("pool/pieces/" + sha256(piece)), piece);
  putManifest(
      "backup-of-qvdb 1\ntime 2099-01-01T00:00:00Z\ndatabase 0x0000000000000001\nmode "
      "640\nlength 1000\n" +
      sha256(piece) + "\n");
  refusesToRestore({"restored.qvd: cannot restore: what was backed up has "});
}

TEST_F(ToolBackup, RefusesAFolderWithoutBackups) {
  fs::create_directories(path("pool/pieces"));
  refusesToRestore({"there is no backup in the folder"});
  EXPECT_EQ(done({"restore", "--list", "pool"}), "");
}

// ---- killed in the middle ----

TEST_F(ToolBackup, LeavesAFolderThatCanBeUsedWheneverItIsKilled) {
  putDatabase();
  backUp();
  for (int i = 0; i < 12; ++i) {
    addRecord(static_cast<char>('d' + i));
    const pid_t child = ::fork();
    if (child == 0) {
      const std::string file = path().native();
      const std::string pool = path("pool").native();
      const int null = ::open("/dev/null", O_WRONLY);
      ::dup2(null, STDOUT_FILENO);
      ::execl(QVDB_TOOL, QVDB_TOOL, "backup", "--pieces", file.c_str(), pool.c_str(),
              static_cast<char*>(nullptr));
      ::_exit(127);
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(3 * i));
    ::kill(child, SIGKILL);
    ::waitpid(child, nullptr, 0);
    fs::remove(path("restored.qvd"));
    done({"restore", "pool", "restored.qvd"});  // the newest that was complete
  }
  done({"backup", "--pieces", "--prune", "1", "test.qvd", "pool"});
  done({"restore", "-f", "pool", "restored.qvd"});
  EXPECT_TRUE(sameBytes(contents("restored.qvd"), contents()));
  EXPECT_EQ(namesIn("pool").size(), 1u);
  EXPECT_EQ(namesIn("pool/pieces").size(), (fileSize() + kPieceSize - 1) / kPieceSize);
}

}  // namespace
}  // namespace qvdbase::test
