// Failing calls to the host under the folders of backups: each call of each kind that the commands
// make themselves fails once, and from then on, and the process ends at each of them. Whatever
// happens,
//
//   - a command that reports success has had its whole effect, and one that does not, a message;
//   - every backup that was in the folder can be restored, unless a command was to remove it;
//   - a list in the folder is whole, and so is what it lists;
//   - a file that is restored is whole, or not there;
//   - the next backup succeeds, and leaves nothing unfinished in the folder.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <filesystem>
#include <functional>
#include <set>

#include "kit/bytes.h"
#include "kit/forked.h"
#include "kit/temp_folder.h"
#include "kit/test_extent.h"
#include "tool/in_process.h"
#include "tools/qvdb/backup/folder_calls.h"

namespace qvdbase::test {
namespace {

namespace fs = std::filesystem;
using qvdb::tool::FolderCalls;
using qvdb::tool::folderCalls;
using qvdb::tool::hostFolderCalls;

// What is to become of a call: 0 for what the host does, or the errno with which it fails.
std::function<int(size_t kind)> verdict;

// Each call of the table, which asks for its verdict first.
template <size_t kKind, auto kMember>
struct Judged;

template <size_t kKind, typename Result, typename... Arguments,
          Result (*FolderCalls::*kMember)(Arguments...)>
struct Judged<kKind, kMember> {
  static Result call(Arguments... arguments) {
    if (verdict) {
      if (const int error = verdict(kKind)) {
        errno = error;
        if constexpr (std::is_pointer_v<Result>) {
          return nullptr;
        } else {
          return -1;
        }
      }
    }
    return (hostFolderCalls().*kMember)(arguments...);
  }
  static void install() { folderCalls.*kMember = call; }
};

constexpr size_t kKinds = 13;
static_assert(sizeof(FolderCalls) == kKinds * sizeof(void (*)()), "a kind for each call");

void installAll() {
  Judged<0, &FolderCalls::openAt>::install();
  Judged<1, &FolderCalls::makeFolder>::install();
  Judged<2, &FolderCalls::lock>::install();
  Judged<3, &FolderCalls::openEntries>::install();
  Judged<4, &FolderCalls::nextEntry>::install();
  Judged<5, &FolderCalls::status>::install();
  Judged<6, &FolderCalls::statusAt>::install();
  Judged<7, &FolderCalls::read>::install();
  Judged<8, &FolderCalls::changeMode>::install();
  Judged<9, &FolderCalls::rename>::install();
  Judged<10, &FolderCalls::remove>::install();
  Judged<11, &FolderCalls::sync>::install();
  Judged<12, &FolderCalls::syncAll>::install();
}

struct PieceCommand {
  const char* name;
  std::vector<std::string> words;
  bool isSecond = false;  // the folder has a backup of an earlier state
  size_t lists = 0;       // in the folder when it has succeeded
  bool removes = false;   // the backup that was there before
};

std::vector<PieceCommand> pieceCommands() {
  const std::vector<std::string> backup = {"backup", "--pieces", "@/test.qvd", "@/pool"};
  return {
      {"First", backup, false, 1},
      {"Second", backup, true, 2},
      {"WithoutSync", {"backup", "--pieces", "--no-sync", "@/test.qvd", "@/pool"}, true, 2},
      {"Pruning", {"backup", "--pieces", "--prune", "1", "@/test.qvd", "@/pool"}, true, 1, true},
      {"Restore", {"restore", "@/pool", "@/restored.qvd"}, true, 1},
      {"RestoreOver", {"restore", "--force", "@/pool", "@/over.qvd"}, true, 1},
      {"List", {"restore", "--list", "@/pool"}, true, 1},
  };
}

class FailingPieces : public testing::TestWithParam<PieceCommand> {
 protected:
  void SetUp() override {
    installAll();
    std::string message;
    const auto put = [&](char filling) {
      writeFile(folder / "in", Bytes(300'000, static_cast<uint8_t>(filling)));
      ASSERT_EQ(runCommand(folder.path(), {"put", "@/test.qvd", "t", "@/in"}, &message), 0)
          << message;
    };
    ASSERT_EQ(runCommand(folder.path(), {"create", "@/test.qvd"}, &message), 0) << message;
    ASSERT_EQ(runCommand(folder.path(), {"add-table", "@/test.qvd", "t"}, &message), 0) << message;
    put('a');
    earlier_ = readFile(folder / "test.qvd");
    backUp(folder / "kept");
    put('b');
    present_ = readFile(folder / "test.qvd");
  }

  void TearDown() override {
    verdict = nullptr;
    folderCalls = hostFolderCalls();
  }

  void backUp(const fs::path& pool) {
    std::string message;
    EXPECT_EQ(runCommand(folder.path(), {"backup", "--pieces", "@/test.qvd", pool}, &message), 0)
        << message;
  }

  void reset() {
    for (const char* each : {"pool", "restored.qvd", "over.qvd"}) fs::remove_all(folder / each);
    if (GetParam().isSecond)
      fs::copy(folder / "kept", folder / "pool", fs::copy_options::recursive);
    writeFile(folder / "over.qvd", bytesOf("before"));
  }

  static std::vector<std::string> namesIn(const fs::path& folder) {
    std::vector<std::string> names;
    if (!fs::exists(folder)) return names;
    for (const auto& each : fs::directory_iterator(folder)) {
      if (each.is_regular_file()) names.push_back(each.path().filename());
    }
    std::sort(names.begin(), names.end());
    return names;
  }

  static std::vector<std::string> listsIn(const fs::path& folder) {
    std::vector<std::string> names = namesIn(folder);
    std::erase_if(names, [](const std::string& name) { return !name.ends_with(".manifest"); });
    return names;
  }

  // What each list in the folder makes.
  std::set<std::string> restoredStates() {
    std::set<std::string> states;
    const std::vector<std::string> lists = listsIn(folder / "pool");
    for (const std::string& keep : lists) {
      fs::remove_all(folder / "one");
      fs::create_directory(folder / "one");
      fs::copy(folder / "pool/pieces", folder / "one/pieces");
      fs::copy(folder / "pool" / keep, folder / "one" / keep);
      std::string message;
      EXPECT_EQ(runCommand(folder.path(), {"restore", "--force", "@/one", "@/made.qvd"}, &message),
                0)
          << keep << ": " << message;
      states.insert(readFile(folder / "made.qvd").str());
    }
    return states;
  }

  void expectNoHarm(bool succeeded) {
    EXPECT_TRUE(sameBytes(readFile(folder / "test.qvd"), present_));
    const std::set<std::string> states = restoredStates();
    for (const std::string& state : states) {
      EXPECT_TRUE(state == earlier_.str() || state == present_.str());
    }
    const bool isThere = states.contains(earlier_.str());
    if (GetParam().isSecond && !isThere) {
      EXPECT_TRUE(GetParam().removes && states.contains(present_.str()));
    }
    const bool isBackup = GetParam().words.front() == "backup";
    if (succeeded) {
      EXPECT_EQ(listsIn(folder / "pool").size(), GetParam().lists);
      EXPECT_EQ(states.contains(present_.str()), isBackup);
      const auto pieces = namesIn(folder / "pool/pieces");
      EXPECT_TRUE(std::none_of(pieces.begin(), pieces.end(),
                               [](const std::string& name) { return name.starts_with('.'); }));
    }
    expectWhole("restored.qvd", "", succeeded && GetParam().words.back() == "@/restored.qvd");
    expectWhole("over.qvd", "before", succeeded && GetParam().words.back() == "@/over.qvd");
    expectNextBackup();
  }

  void expectWhole(const std::string& name, const std::string& before, bool isMade) {
    const std::string is = fs::exists(folder / name) ? readFile(folder / name).str() : "";
    EXPECT_TRUE(is == earlier_.str() || (!isMade && is == before)) << name;
  }

  void expectNextBackup() {
    backUp(folder / "pool");
    for (const auto& names : {namesIn(folder / "pool"), namesIn(folder / "pool/pieces")}) {
      for (const std::string& name : names) EXPECT_FALSE(name.starts_with('.')) << name;
    }
    EXPECT_TRUE(restoredStates().contains(present_.str()));
  }

  // How often each kind is called when nothing fails.
  std::vector<int> countCalls() {
    reset();
    std::vector<int> counts(kKinds);
    verdict = [&](size_t kind) {
      ++counts[kind];
      return 0;
    };
    std::string message;
    EXPECT_EQ(runCommand(folder.path(), GetParam().words, &message), 0) << message;
    verdict = nullptr;
    expectNoHarm(true);
    return counts;
  }

  TempFolder folder{TempFolder::inMemory()};
  Bytes earlier_;
  Bytes present_;
};

TEST_P(FailingPieces, EndInAMessageOrInFullSuccess) {
  const std::vector<int> counts = countCalls();
  for (size_t kind = 0; kind < kKinds; ++kind) {
    for (int skip = 0; skip < counts[kind]; skip += sampleStep()) {
      for (const bool isForGood : {false, true}) {
        reset();
        int left = skip;
        verdict = [&](size_t called) {
          if (called != kind || left < 0) return 0;
          if (left > 0) return --left, 0;
          if (!isForGood) left = -1;
          return ENOSPC;
        };
        std::string message;
        const int status = runCommand(folder.path(), GetParam().words, &message);
        verdict = nullptr;
        SCOPED_TRACE("call " + std::to_string(kind) + " after " + std::to_string(skip) +
                     (isForGood ? " for good: " : ": ") + message);
        EXPECT_TRUE(status == 0 || (status == 1 && !message.empty())) << status;
        expectNoHarm(status == 0);
        if (HasFailure()) return;
      }
    }
  }
}

TEST_P(FailingPieces, LeaveWhatCanBeUsedWhereverTheProcessIsKilled) {
  bool isKilled = true;
  int skip = 0;
  for (; isKilled; skip += sampleStep()) {
    ASSERT_LT(skip, 1000);
    reset();
    const int status = inForkedChild([&] {
      verdict = [left = skip](size_t) mutable {
        if (left-- == 0) ::raise(SIGKILL);
        return 0;
      };
      std::string message;
      return runCommand(folder.path(), GetParam().words, &message);
    });
    isKilled = status == -1;
    SCOPED_TRACE("killed before call " + std::to_string(skip));
    EXPECT_TRUE(isKilled || status == 0);
    expectNoHarm(status == 0);
    if (HasFailure()) return;
  }
  EXPECT_GT(skip, 5);
}

std::string nameOfPieceCommand(const testing::TestParamInfo<PieceCommand>& command) {
  return command.param.name;
}

INSTANTIATE_TEST_SUITE_P(Of, FailingPieces, testing::ValuesIn(pieceCommands()), nameOfPieceCommand);

}  // namespace
}  // namespace qvdbase::test
