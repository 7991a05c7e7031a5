// qvdb import, and the other commands that change a list of names, killed before each of their
// writes to the database: the list is the old one or the new one, and every file that was stored
// before is there with its name and contents.
#include <fcntl.h>
#include <signal.h>
#include <sys/ptrace.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <map>

#include "kit/test_extent.h"
#include "tool/tool_fixture.h"

namespace qvdbase::test {
namespace {

namespace fs = std::filesystem;
using Contents = std::map<std::string, std::string>;

bool isWrite(const __ptrace_syscall_info& call) {
  switch (call.entry.nr) {
    case SYS_write:
    case SYS_writev:
    case SYS_pwrite64:
    case SYS_pwritev:
    case SYS_pwritev2:
    case SYS_ftruncate:
      return call.entry.args[0] > 2;
    default:
      return false;
  }
}

enum class End { killed, ended, cannotTrace };

class KilledImport : public ToolTest {
 protected:
  void SetUp() override {
    done({"create", "test.qvd"});
    store("in/a", "contents of a");
    store("in/folder/b", std::string(9000, 'b'));
    store("in/folder/c", "");
    fs::create_symlink("a", path("in/link"));
    done({"import", "test.qvd", "files", "in/"});
    allowDamage();  // appends that are cut off
  }

  void store(const std::string& name, const std::string& contents) {
    fs::create_directories(path(name).parent_path());
    writeFile(path(name), bytesOf(contents));
  }

  // Runs the tool and kills it when it is about to write for the `count`th time, from 0.
  End runAndKill(const Words& words, int count) {
    std::vector<const char*> arguments = {QVDB_TOOL};
    for (const std::string& word : words) arguments.push_back(word.c_str());
    arguments.push_back(nullptr);
    const pid_t process = ::fork();
    if (process == 0) become(arguments.data());
    int status = 0;
    if (::waitpid(process, &status, 0) != process || !WIFSTOPPED(status)) return End::cannotTrace;
    // Without this the system does not say what a stop is for.
    if (::ptrace(PTRACE_SETOPTIONS, process, nullptr, PTRACE_O_TRACESYSGOOD) != 0) {
      return kill(process, End::cannotTrace);
    }
    for (;;) {
      if (::ptrace(PTRACE_SYSCALL, process, nullptr, nullptr) != 0) break;
      if (::waitpid(process, &status, 0) != process || WIFEXITED(status)) return End::ended;
      __ptrace_syscall_info call = {};
      if (::ptrace(PTRACE_GET_SYSCALL_INFO, process, sizeof call, &call) <= 0) break;
      if (call.op != PTRACE_SYSCALL_INFO_ENTRY || !isWrite(call)) continue;
      if (count-- == 0) return kill(process, End::killed);
    }
    return kill(process, End::cannotTrace);
  }

  // Before each write of the command in turn; `judge` is given the state that the kill leaves.
  template <typename Judge>
  void killEverywhere(const Words& words, Judge judge) {
    const Bytes before = readFile(path());
    int kills = 0;
    for (;; kills += sampleStep()) {
      writeFile(path(), before);
      const End end = runAndKill(words, kills);
      if (end == End::cannotTrace) GTEST_SKIP() << "the system does not allow tracing";
      SCOPED_TRACE("killed before write " + std::to_string(kills));
      judge(exported());
      if (HasFatalFailure() || end == End::ended) break;
    }
    EXPECT_GT(kills, 1);
  }

  // What an export writes. Names without records are no damage.
  Contents exported() {
    fs::remove_all(path("out"));
    const Outcome outcome = run({"export", "test.qvd", "files", "out"});
    // The count of a deletion that was cut off is one too high.
    if (outcome.err.find("the chain ends before it") == std::string::npos) {
      EXPECT_EQ(outcome.status, 0) << outcome;
      EXPECT_EQ(outcome.err.find("damaged"), std::string::npos) << outcome;
    }
    EXPECT_EQ(outcome.err.find("the names of"), std::string::npos) << outcome;
    return contentsOf(path("out"));
  }

  static Contents contentsOf(const fs::path& root) {
    Contents contents;
    for (const auto& entry : fs::recursive_directory_iterator(root)) {
      const std::string name = entry.path().lexically_relative(root).native();
      if (entry.is_symlink()) {
        contents[name] = "-> " + fs::read_symlink(entry.path()).native();
      } else if (entry.is_regular_file()) {
        contents[name] = readFile(entry.path()).str();
      }
    }
    return contents;
  }

  static void expectHasAll(const Contents& all, const Contents& part) {
    for (const auto& [name, contents] : part) {
      const auto found = all.find(name);
      ASSERT_NE(found, all.end()) << name << " is missing";
      EXPECT_EQ(found->second, contents) << name;
    }
  }

 private:
  [[noreturn]] void become(const char* const* arguments) {
    if (::chdir(folder.path().c_str()) != 0 || ::ptrace(PTRACE_TRACEME, 0, nullptr, nullptr) != 0) {
      ::_exit(126);
    }
    ::close(STDOUT_FILENO);
    ::close(STDERR_FILENO);
    static_cast<void>(::open("/dev/null", O_WRONLY));
    static_cast<void>(::open("/dev/null", O_WRONLY));
    ::execv(QVDB_TOOL, const_cast<char* const*>(arguments));
    ::_exit(127);
  }

  static End kill(pid_t process, End end) {
    ::kill(process, SIGKILL);
    int status = 0;
    while (::waitpid(process, &status, 0) == process && WIFSTOPPED(status)) {
    }
    return end;
  }
};

TEST_F(KilledImport, KeepsWhatTheTableHadWhenFilesAreAdded) {
  const Contents before = contentsOf(path("in"));
  store("more/folder/d", std::string(5000, 'd'));
  store("more/zeta", "contents of zeta");
  fs::create_symlink("zeta", path("more/link too"));
  // The first import after this one writes the longer list to a new block, the next one in place.
  for (const char* name : {"first", "second"}) {
    store(std::string("more/") + name, name);
    const Contents more = contentsOf(path("more"));
    killEverywhere({"import", "--replace", "test.qvd", "files", "more/"}, [&](const Contents& now) {
      expectHasAll(now, before);
      for (const auto& [file, contents] : now) {
        const auto known = before.find(file);
        const auto added = more.find(file);
        ASSERT_TRUE(known != before.end() || added != more.end()) << file;
        if (known == before.end()) {
          EXPECT_EQ(contents, added->second) << file;
        }
      }
    });
    if (IsSkipped()) return;
    expectHasAll(exported(), more);
  }
}

TEST_F(KilledImport, CanBeRunAgainUntilAFileIsStored) {
  store("more/zeta", "contents of zeta");
  fs::create_symlink("zeta", path("more/link too"));
  int again = 0;
  killEverywhere({"import", "test.qvd", "files", "more/"}, [&](const Contents& now) {
    if (now.contains("zeta")) return;
    ++again;
    const Outcome outcome = run({"import", "test.qvd", "files", "more/"});
    // What is linked but not counted is to be mended first.
    const bool isUncounted = outcome.err.find("run 'qvdb mend'") != std::string::npos;
    EXPECT_NE(outcome.status == 0, isUncounted) << outcome;
  });
  if (IsSkipped()) return;
  EXPECT_GT(again, 1);
}

TEST_F(KilledImport, LeavesEachReplacedFileAsItWasOrAsItIs) {
  const Contents before = contentsOf(path("in"));
  store("in/a", "longer contents of a, for which a new place is needed");
  store("in/folder/b", "");
  store("in/folder/c", "filled");
  fs::remove(path("in/link"));
  fs::create_symlink("folder/b", path("in/link"));
  const Contents after = contentsOf(path("in"));
  killEverywhere({"import", "--replace", "test.qvd", "files", "in/"}, [&](const Contents& now) {
    for (const auto& [name, contents] : after) {
      const auto found = now.find(name);
      ASSERT_NE(found, now.end()) << name << " is missing";
      EXPECT_TRUE(found->second == before.at(name) || found->second == contents)
          << name << ": " << found->second;
    }
  });
}

// What is a folder instead of a file then, or gone, is there or not.
TEST_F(KilledImport, LeavesEachUpdatedFileAsItWasOrAsItIs) {
  store("in/same", "the same");
  store("in/becomes a folder", "still a file");
  done({"import", "--update", "test.qvd", "files", "in/"});
  const Contents before = contentsOf(path("in"));
  store("in/a", "longer contents of a, for which a new place is needed");
  fs::remove(path("in/folder/b"));
  fs::remove(path("in/becomes a folder"));
  store("in/becomes a folder/with a file", "in it");
  store("in/new", "new");
  const Contents after = contentsOf(path("in"));
  const Words words = {"import", "--update", "--delete", "test.qvd", "files", "in/"};
  killEverywhere(words, [&](const Contents& now) {
    expectHasAll(now, {{"same", "the same"}, {"link", "-> a"}, {"folder/c", ""}});
    ASSERT_TRUE(now.contains("a"));
    for (const auto& [name, contents] : now) {
      const auto old = before.find(name);
      const auto changed = after.find(name);
      EXPECT_TRUE((old != before.end() && contents == old->second) ||
                  (changed != after.end() && contents == changed->second))
          << name << ": " << contents;
    }
  });
  if (IsSkipped()) return;
  done(words);
  EXPECT_EQ(exported(), after);
}

TEST_F(KilledImport, KeepsTheNamesOfWhatIsNotRemoved) {
  const Contents before = contentsOf(path("in"));
  killEverywhere({"rm", "test.qvd", "files", "a", "folder/c"}, [&](const Contents& now) {
    expectHasAll(now, {{"folder/b", before.at("folder/b")}, {"link", before.at("link")}});
  });
}

TEST_F(KilledImport, OfTheFirstFilesLeavesATableThatCanBeExported) {
  done({"create", "--force", "test.qvd"});
  done({"add-table", "test.qvd", "files"});
  const Contents all = contentsOf(path("in"));
  killEverywhere({"import", "test.qvd", "files", "in/"}, [&](const Contents& now) {
    for (const auto& [name, contents] : now) {
      ASSERT_TRUE(all.contains(name)) << name;
      EXPECT_EQ(contents, all.at(name)) << name;
    }
  });
}

}  // namespace
}  // namespace qvdbase::test
