// A folder of pieces that belongs to another user, who does not mean well: what is in it is
// exchanged, endless, or no file at all. Nothing is written elsewhere, nothing waits or takes
// memory without end, and the message says what is wrong.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <functional>
#include <string_view>

#include "kit/sanitized.h"
#include "tool/in_process.h"
#include "tool/tool_fixture.h"
#include "tools/qvdb/backup/folder_calls.h"

namespace qvdbase::test {
namespace {

namespace fs = std::filesystem;
using qvdb::tool::folderCalls;
using qvdb::tool::hostFolderCalls;

std::string sha256(const std::string& text) {
  ProgramCall call;
  call.program = "/usr/bin/sha256sum";
  call.input = text;
  const Outcome outcome = runProgram(call);
  EXPECT_EQ(outcome.status, 0);
  return outcome.out.substr(0, 64);
}

class HostilePieces : public ToolTest {
 protected:
  void SetUp() override {
    notes({Bytes(200'000, 'a'), Bytes(200'000, 'b')});
    done({"backup", "--pieces", "test.qvd", "pool"});
    fs::create_directory(path("elsewhere"));
  }

  void TearDown() override {
    folderCalls = hostFolderCalls();
    for (const auto& entry : fs::recursive_directory_iterator(folder.path())) {
      const std::string name = entry.path().lexically_relative(folder.path()).native();
      if (name != "test.qvd") allowDamage(name);
    }
    ToolTest::TearDown();
  }

  std::string onlyManifest() const {
    for (const auto& entry : fs::directory_iterator(path("pool"))) {
      if (entry.path().extension() == ".manifest") return entry.path().filename();
    }
    return {};
  }

  // The lines of the list before that of its length, for another time.
  std::string headAt(const std::string& time) const {
    std::string text = contents("pool/" + onlyManifest()).str();
    text.erase(text.find("length "));
    return text.replace(text.find("time ") + 5, time.size(), time);
  }

  int backUp(std::string* message) {
    return runCommand(folder.path(), {"backup", "--pieces", "@/test.qvd", "@/pool"}, message);
  }

  // With 60 MiB of addresses, of which programs and libraries take some.
  Outcome limited(const std::string& words) {
    ProgramCall call = callOf({});
    call.program = "/bin/sh";
    call.arguments = {"-c", "ulimit -v 61440; exec '" + std::string(QVDB_TOOL) + "' " + words};
    return runProgram(call);
  }
};

// What to do, and after how many calls of one kind.
std::function<void()> afterwards;
int callsLeft = 0;

void count() {
  if (callsLeft > 0 && --callsLeft == 0) afterwards();
}

TEST_F(HostilePieces, AFolderThatIsExchangedIsNotedBeforeTheCopyIsMade) {
  afterwards = [&] {
    fs::rename(path("pool/pieces"), path("pool/own"));
    fs::create_directory_symlink(path("elsewhere"), path("pool/pieces"));
  };
  callsLeft = 2;  // the first lists what a killed process may have left
  folderCalls.openEntries = [](int descriptor) {
    count();
    return hostFolderCalls().openEntries(descriptor);
  };
  std::string message;
  EXPECT_EQ(backUp(&message), 1);
  EXPECT_NE(message.find("pool/pieces: cannot open the folder"), std::string::npos) << message;
  EXPECT_TRUE(fs::is_empty(path("elsewhere")));
  fs::remove(path("pool/pieces"));
  fs::create_directory(path("pool/pieces"));
  callsLeft = 2;
  afterwards = [&] {
    fs::remove(path("pool/pieces"));
    fs::create_directory(path("another"));
    fs::rename(path("another"), path("pool/pieces"));
  };
  EXPECT_EQ(backUp(&message), 1);
  EXPECT_NE(message.find("pool/pieces: cannot use it: another program"), std::string::npos)
      << message;
  EXPECT_TRUE(fs::is_empty(path("pool/pieces")));
}

// Between the copy and its cutting, under the name that it has for a moment.
TEST_F(HostilePieces, ACopyThatIsExchangedIsNotCut) {
  const std::function<void(const std::string&)> exchanges[] = {
      [](const std::string& copy) { ASSERT_EQ(::mkfifo(copy.c_str(), 0666), 0); },
      [](const std::string& copy) { fs::create_symlink("/dev/zero", copy); },
      [](const std::string& copy) { fs::create_directory(copy); },
      [](const std::string& copy) { writeFile(copy, bytesOf("short")); },
  };
  for (const auto& exchange : exchanges) {
    afterwards = [&] {
      fs::remove(path("pool/pieces/.copy.tmp"));
      exchange(path("pool/pieces/.copy.tmp"));
    };
    folderCalls.openAt = [](int at, const char* name, int flags) {
      if (std::string(name) == ".copy.tmp") afterwards();
      return hostFolderCalls().openAt(at, name, flags);
    };
    std::string message;
    EXPECT_EQ(backUp(&message), 1);
    EXPECT_NE(message.find("pool/pieces/.copy.tmp: cannot "), std::string::npos) << message;
    fs::remove(path("pool/pieces/.copy.tmp"));
  }
  folderCalls = hostFolderCalls();
  done({"backup", "--pieces", "test.qvd", "pool"});
}

TEST_F(HostilePieces, ACopyThatIsCutOffMeanwhileMakesNoBackup) {
  folderCalls.remove = [](int at, const char* name) {
    if (std::string(name) == ".copy.tmp") afterwards();
    return hostFolderCalls().remove(at, name);
  };
  folderCalls.status = [](int descriptor, struct stat* status) {
    const int result = hostFolderCalls().status(descriptor, status);
    if (callsLeft == -1 && S_ISREG(status->st_mode)) {
      EXPECT_EQ(::truncate(("/proc/self/fd/" + std::to_string(descriptor)).c_str(), 1000), 0);
      callsLeft = 0;
    }
    return result;
  };
  afterwards = [&] {
    if (fs::exists(path("pool/pieces/.copy.tmp"))) callsLeft = -1;
  };
  std::string message;
  EXPECT_EQ(backUp(&message), 1);
  EXPECT_NE(message.find(".copy.tmp: cannot use it: another program"), std::string::npos)
      << message;
}

TEST_F(HostilePieces, OfAHugeListNoMoreIsReadThanLooksLikeOne) {
  if (kIsSanitized) GTEST_SKIP() << "the sanitizer takes more than the limit";
  const std::string name = "pool/backup-20990101T000000Z-000.manifest";
  constexpr uint64_t kPieces = 16'000'000;
  const std::string head =
      headAt("2099-01-01T00:00:00Z") + "length " + std::to_string(kPieces * 262'144) + "\n";
  const std::string heads[] = {"", head, head + std::string(64, 'a') + "\n"};
  for (const std::string& begin : heads) {
    writeFile(path(name), bytesOf(begin));
    fs::resize_file(path(name), head.size() + kPieces * 65 + 72);
    for (const char* words : {"restore pool restored.qvd", "restore --list pool"}) {
      const Outcome outcome = limited(words);
      EXPECT_EQ(outcome.status, 1) << outcome;
      EXPECT_NE(outcome.err.find("damaged or incomplete"), std::string::npos) << outcome;
    }
    EXPECT_EQ(limited("backup --pieces test.qvd pool").status, 0);
    const Outcome outcome = limited("backup --pieces --prune 1 test.qvd pool");
    EXPECT_EQ(outcome.status, 1) << outcome;
    EXPECT_NE(outcome.err.find("damaged or incomplete"), std::string::npos) << outcome;
  }
  EXPECT_FALSE(fs::exists(path("restored.qvd")));
}

// What is remembered of the lists that stay are pieces that exist.
TEST_F(HostilePieces, ListsOfManyPiecesDoNotFillTheMemory) {
  if (kIsSanitized) GTEST_SKIP() << "the sanitizer takes more than the limit";
  constexpr int kPieces = 40'000;
  for (int list = 0; list < 12; ++list) {
    const std::string day = std::to_string(110 + list).substr(1);
    std::string text = headAt("2020-01-" + day + "T00:00:00Z");
    text += "length " + std::to_string(uint64_t{kPieces} * 262'144) + "\n";
    for (int i = 0; i < kPieces; ++i) {
      const std::string number = std::to_string(1'000'000'000 + list * kPieces + i);
      text += std::string(64 - number.size(), 'a') + number + '\n';
    }
    text += "sha256 " + sha256(text) + "\n";
    writeFile(path("pool/backup-202001" + day + "T000000Z-000.manifest"), bytesOf(text));
  }
  const Outcome outcome = limited("backup --pieces --prune 13 test.qvd pool");
  EXPECT_EQ(outcome.status, 0) << outcome;
  done({"restore", "pool", "restored.qvd"});
}

TEST_F(HostilePieces, AListAtTheEndOfAllNamesEndsTheBackup) {
  const std::string time = "9999-12-31T23:59:59Z";
  const std::string text = headAt(time) + "length 0\n";
  const std::string list = text + "sha256 " + sha256(text) + "\n";
  for (int i = 0; i < 1000; ++i) {
    const std::string number = std::to_string(1000 + i).substr(1);
    writeFile(path("pool/backup-99991231T235959Z-" + number + ".manifest"), bytesOf(list));
  }
  const Outcome outcome = run({"backup", "--pieces", "test.qvd", "pool"});
  EXPECT_EQ(outcome.status, 1) << outcome;
  EXPECT_NE(outcome.err.find("pool: cannot add a backup: there is one at the end"),
            std::string::npos)
      << outcome;
}

// Whoever adds or removes has the folder alone, from the first piece to the list and from the first
// list that goes to the last piece.
TEST_F(HostilePieces, PruningAndABackupKeepOutOneAnother) {
  std::vector<int> statuses;
  afterwards = [&] {
    for (const char* more : {"", "--prune=1"}) {
      Words words = {"backup", "--pieces", "test.qvd", "pool"};
      if (*more != '\0') words.push_back(more);
      const Outcome outcome = run(words);
      EXPECT_NE(outcome.err.find("another process works with the backups"), std::string::npos)
          << outcome;
      statuses.push_back(outcome.status);
    }
  };
  folderCalls.syncAll = [](int file) {  // all pieces are there, and the list is not
    afterwards();
    return hostFolderCalls().syncAll(file);
  };
  folderCalls.remove = [](int at, const char* name) {
    const std::string_view what = name;
    if (what.ends_with(".manifest") || what.size() == 64) afterwards();
    return hostFolderCalls().remove(at, name);
  };
  std::string message;
  done({"put", "test.qvd", "notes", "-"}, std::string(300'000, 'n'));
  EXPECT_EQ(backUp(&message), 0) << message;
  EXPECT_EQ(statuses, (std::vector<int>{3, 3}));
  EXPECT_EQ(runCommand(folder.path(),
                       {"backup", "--pieces", "--prune", "1", "@/test.qvd", "@/pool"}, &message),
            0)
      << message;
  EXPECT_GE(statuses.size(), 8u);
  EXPECT_TRUE(std::ranges::all_of(statuses, [](int status) { return status == 3; }));
  done({"restore", "pool", "restored.qvd"});
  EXPECT_TRUE(sameBytes(contents("restored.qvd"), contents()));
}

}  // namespace
}  // namespace qvdbase::test
