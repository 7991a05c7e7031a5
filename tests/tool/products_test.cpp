// Files that the commands make: who may do what with them, what waits for the device, and what is
// left where another user plays tricks.
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <qvdbase/qvdb.hpp>

#include <cstdlib>
#include <fstream>
#include <optional>
#include <set>
#include <sstream>

#include "kit/forked.h"
#include "kit/sanitized.h"
#include "kit/unprivileged.h"
#include "tool/holder.h"
#include "tool/tool_fixture.h"

namespace qvdbase::test {
namespace {

namespace fs = std::filesystem;

class ProductsOfTheTool : public ToolTest {
 protected:
  ProductsOfTheTool() {
    allowDamage();
    done({"create", kDefaultFile});
    done({"add-table", kDefaultFile, "QVrz_Category"});
    done({"add-table", kDefaultFile, "notes"});
    id_ = line({"put", kDefaultFile, "notes"}, "payload");
    deleted_ = line({"put", kDefaultFile, "notes"}, "deleted");
    done({"rm", kDefaultFile, "notes", deleted_});
    done({"data", kDefaultFile, "notes", "--set", "-"}, "data");
  }

  mode_t modeOf(const std::string& name) const {
    struct stat status = {};
    EXPECT_EQ(::lstat(path(name).c_str(), &status), 0) << name;
    return status.st_mode & 07777;
  }

  // Each makes the file "new" from the database.
  std::vector<Words> makers() const {
    return {
        {"get", kDefaultFile, "notes", id_, "--output", "new"},
        {"data", kDefaultFile, "notes", "--output", "new"},
        {"compact", kDefaultFile, "new"},
        {"pack", kDefaultFile, "new"},
        {"renumber", kDefaultFile, "new"},
        {"salvage", kDefaultFile, "new"},
        {"undelete", kDefaultFile, "new", "notes", deleted_},
        {"dump", kDefaultFile, "--output", "new"},
        {"export", kDefaultFile, "--parquet", "new"},
        {"export", kDefaultFile, "--copy", "new"},
#ifdef QVDB_HAS_SQLITE
        {"export", kDefaultFile, "--sqlite", "new"},
#endif
    };
  }

  std::string id_;
  std::string deleted_;
};

class Umask {
 public:
  explicit Umask(mode_t mask) : before_(::umask(mask)) {}
  ~Umask() { ::umask(before_); }
  Umask(const Umask&) = delete;
  Umask& operator=(const Umask&) = delete;

 private:
  mode_t before_;
};

TEST_F(ProductsOfTheTool, HaveTheModeOfTheDatabase) {
  for (const mode_t mask : {0000u, 0027u, 0077u}) {
    for (const mode_t mode : {0600u, 0664u}) {
      fs::permissions(path(), fs::perms(mode));
      const Umask umask(mask);
      for (const Words& words : makers()) {
        const Outcome outcome = run(words);
        EXPECT_EQ(outcome.status, 0) << words[0] << outcome;
        EXPECT_EQ(modeOf("new"), mode) << words[0] << std::oct << " " << mask;
        fs::remove(path("new"));
      }
    }
  }
}

TEST_F(ProductsOfTheTool, ThatReplaceAFileKeepItsMode) {
  fs::permissions(path(), fs::perms(0600));
  for (Words words : makers()) {
    if (words[0] == "salvage" || words[0] == "undelete") continue;  // these replace nothing
    writeFile(path("new"), bytesOf("old"));
    fs::permissions(path("new"), fs::perms(0640));
    words.push_back("--force");
    EXPECT_EQ(run(words).status, 0) << words[0];
    EXPECT_NE(contents("new"), bytesOf("old"));
    EXPECT_EQ(modeOf("new"), 0640u) << words[0];
    fs::remove(path("new"));
  }
  writeFile(path("new"), bytesOf("old"));
  fs::permissions(path("new"), fs::perms(0604));
  done({"create", "--force", "new"});
  EXPECT_EQ(modeOf("new"), 0604u);
}

// It is a file that another program works with, or one that has other names, too.
TEST_F(ProductsOfTheTool, ThatReplaceAFileLeaveOneThatOthersUse) {
  done({"create", "new"});
  fs::create_hard_link(path("new"), path("other"));
  const Bytes before = contents("new");
  for (const bool isOpen : {true, false}) {
    std::optional<Holder> holder;
    if (isOpen) holder.emplace(wide("new"));
    ASSERT_TRUE(!isOpen || holder->isHolding());
    for (Words words : makers()) {
      if (words[0] == "salvage" || words[0] == "undelete") continue;  // these replace nothing
      SCOPED_TRACE(words[0] + " " + words[2]);
      words.push_back("--force");
      if (isOpen) {
        fails(words, 3, {"new", holder->named(), "--wait"});
      } else {
        fails(words, 1, {"new", "2 names (hard links)"});
      }
      EXPECT_EQ(contents("new"), before);
      EXPECT_EQ(contents("other"), before);
    }
  }
}

TEST_F(ProductsOfTheTool, OfCreateHaveTheUsualMode) {
  for (const mode_t mask : {0000u, 0022u, 0077u}) {
    const Umask umask(mask);
    done({"create", "new"});
    EXPECT_EQ(modeOf("new"), 0666u & ~mask);
    fs::remove(path("new"));
  }
}

TEST_F(ProductsOfTheTool, OfExportObeyTheUmaskWhateverTheDatabaseAsksFor) {
  fs::create_directories(path("in/open"));
  writeFile(path("in/program"), bytesOf("x"));
  fs::permissions(path("in/program"), fs::perms(0777));
  fs::permissions(path("in/open"), fs::perms(0777));
  done({"import", kDefaultFile, "files", "in/"});
  for (const mode_t mask : {0000u, 0022u, 0077u}) {
    const Umask umask(mask);
    done({"export", kDefaultFile, "files", "out"});
    EXPECT_EQ(modeOf("out/program"), 0777u & ~mask);
    EXPECT_EQ(modeOf("out/open"), 0777u & ~mask);
    fs::remove_all(path("out"));
  }
  const Umask umask(0077);
  if (::geteuid() != 0) {
    fails({"export", "--same-permissions", kDefaultFile, "files", "out"}, 2, {"root", "umask"});
    return;
  }
  done({"export", "--same-permissions", kDefaultFile, "files", "out"});
  EXPECT_EQ(modeOf("out/program"), 0777u);
  EXPECT_EQ(modeOf("out/open"), 0777u);
}

TEST_F(ProductsOfTheTool, OfExportLeaveTheFilesOfOthersThatTheyShareANameWith) {
  writeFile(path("x"), bytesOf("new"));
  done({"import", kDefaultFile, "files", "x"});
  fs::create_directory(path("out"));
  writeFile(path("kept"), bytesOf("old"));
  fs::create_hard_link(path("kept"), path("out/x"));
  fails({"export", "--force", kDefaultFile, "files", "out"}, 1, {"out/x", "hard links"});
  EXPECT_EQ(contents("kept"), bytesOf("old"));
  EXPECT_EQ(contents("out/x"), bytesOf("old"));
}

TEST_F(ProductsOfTheTool, FollowLinksAsCompactDoes) {
  writeFile(path("file"), bytesOf("old"));
  fs::create_symlink("file", path("link"));
  done({"get", "-f", kDefaultFile, "notes", id_, "-o", "link"});
  EXPECT_TRUE(fs::is_symlink(path("link")));
  EXPECT_EQ(contents("file"), bytesOf("payload"));
  done({"compact", "-f", kDefaultFile, "link"});
  EXPECT_TRUE(fs::is_symlink(path("link")));
  EXPECT_EQ(contents("file").at(0, 4), bytesOf("QVdb"));
  allowDamage("file");
  allowDamage("link");
  fs::remove(path("file"));
  for (const Words& words : {Words{"get", "-f", kDefaultFile, "notes", id_, "-o", "link"},
                             Words{"get", kDefaultFile, "notes", id_, "-o", "link"},
                             Words{"compact", "-f", kDefaultFile, "link"}}) {
    fails(words, 1, {"link", "leads nowhere; remove the link, or choose another name"});
  }
  EXPECT_FALSE(fs::exists(path("file")));
}

// Not even with --force: the rest of the database would be lost.
TEST_F(ProductsOfTheTool, DoNotReplaceTheDatabaseThatTheyComeFrom) {
  fs::create_directory(path("in"));
  writeFile(path("in/test.qvd"), bytesOf("has the name of the database"));
  done({"import", kDefaultFile, "files", "in/"});
  fs::create_symlink(kDefaultFile, path("link"));
  const auto version = json({"history", "--json", kDefaultFile, "notes", id_})["versions"][0];
  expectOnlyRead([&] {
    for (const char* target : {kDefaultFile, "link"}) {
      fails({"get", "-f", kDefaultFile, "notes", id_, "-o", target}, 1, {"the database itself"});
    }
    fails({"history", "-f", kDefaultFile, "notes", id_, "--at", version["offset"].dump(), "-o",
           kDefaultFile},
          1, {"the database itself"});
    fails({"export", "-f", kDefaultFile, "files", "."}, 1, {"test.qvd", "the database itself"});
  });
}

// The reason is why it cannot be made, not that it is missing then.
TEST_F(ProductsOfTheTool, AreNotExportedToAFolderThatCannotBeMade) {
  for (const char* option : {"--no-sync", "--parents"}) {
    fails({"export", option, kDefaultFile, "notes", std::string(300, 'x')}, 1,
          {"cannot create the folder"});
  }
}

TEST_F(ProductsOfTheTool, AreMadeInMissingFoldersOnlyOnRequest) {
  for (Words words : makers()) {
    if (words[0] == "undelete") continue;
    std::replace(words.begin(), words.end(), std::string("new"), std::string("a/b/new"));
    fails(words, 1, {"a/b", "does not exist", "--parents"});
    EXPECT_FALSE(fs::exists(path("a")));
    words.push_back("--parents");
    EXPECT_EQ(run(words).status, 0) << words[0];
    EXPECT_TRUE(fs::exists(path("a/b/new"))) << words[0];
    fs::remove_all(path("a"));
  }
  fails({"create", "a/new"}, 1, {"a", "--parents"});
  done({"create", "--parents", "a/new"});
  fails({"export", kDefaultFile, "notes", "b/out"}, 1, {"b/out", "--parents"});
  done({"export", "--parents", kDefaultFile, "notes", "b/out"});
}

// ---- the device ----

// What the tool syncs and renames.
class Watched {
 public:
  explicit Watched(const fs::path& log) : log_(log) {
    ::setenv("LD_PRELOAD", WATCHED_HOST, 1);
    ::setenv("WATCHED_HOST_LOG", log.c_str(), 1);
  }
  ~Watched() {
    ::unsetenv("LD_PRELOAD");
    ::unsetenv("WATCHED_HOST_LOG");
  }
  Watched(const Watched&) = delete;
  Watched& operator=(const Watched&) = delete;

  // The lines since the last call.
  Words taken() {
    Words lines;
    std::ifstream log(log_);
    for (std::string line; std::getline(log, line);) lines.push_back(line);
    fs::remove(log_);
    return lines;
  }

 private:
  fs::path log_;
};

// Each file is on the device before it gets its name.
void expectSyncedBeforeRenamed(const Words& lines, const std::string& what) {
  std::set<std::string> synced;
  for (const std::string& line : lines) {
    std::istringstream words(line);
    std::string kind;
    std::string from;
    words >> kind >> from;
    if (kind == "sync") synced.insert(from);
    EXPECT_TRUE(kind != "rename" || synced.contains(from)) << what << ": " << line;
  }
}

TEST_F(ProductsOfTheTool, ThatChangeADatabaseEndWithOneSync) {
  if (kIsSanitized) GTEST_SKIP() << "the sanitizer must be loaded first";
  writeFile(path("x"), bytesOf("x"));
  Watched host(path("log"));
  const std::vector<Words> commands = {
      {"add-table", kDefaultFile, "more"},
      {"put", kDefaultFile, "notes", "x", "x", "x"},
      {"set", kDefaultFile, "notes", id_, "x"},
      {"touch", kDefaultFile, "notes", id_},
      {"data", kDefaultFile, "notes", "--set", "x"},
      {"import", kDefaultFile, "files", "x"},
      {"rm", kDefaultFile, "notes", id_},
  };
  for (const Words& words : commands) {
    EXPECT_EQ(run(words).status, 0) << words[0];
    EXPECT_EQ(host.taken(), Words{"sync " + std::string(kDefaultFile)}) << words[0];
  }
  const std::string other = line({"put", "--no-sync", kDefaultFile, "notes", "x"});
  const std::vector<Words> quick = {
      {"add-table", "--no-sync", kDefaultFile, "quick"},
      {"set", "--no-sync", kDefaultFile, "notes", other, "x"},
      {"touch", "--no-sync", kDefaultFile, "notes", other},
      {"data", "--no-sync", kDefaultFile, "notes", "--set", "x"},
      {"import", "--no-sync", kDefaultFile, "quick", "x"},
      {"rm", "--no-sync", kDefaultFile, "notes", other},
      {"create", "--no-sync", "new"},
      {"get", "--no-sync", kDefaultFile, "files", "x", "-o", "y"},
      {"export", "--no-sync", kDefaultFile, "files", "out"},
  };
  for (const Words& words : quick) {
    EXPECT_EQ(run(words).status, 0) << words[0];
    for (const std::string& line : host.taken()) {
      EXPECT_FALSE(line.starts_with("sync")) << words[0] << ": " << line;
    }
  }
}

TEST_F(ProductsOfTheTool, AreOnTheDeviceBeforeTheyGetTheirNames) {
  if (kIsSanitized) GTEST_SKIP() << "the sanitizer must be loaded first";
  fs::create_directories(path("in/sub"));
  writeFile(path("in/a"), bytesOf("a"));
  writeFile(path("in/sub/b"), bytesOf("b"));
  done({"import", kDefaultFile, "files", "in/"});
  Watched host(path("log"));
  std::vector<Words> commands = makers();
  commands.push_back({"create", "new"});
  const std::string folderName = path().parent_path().filename();
  for (const Words& words : commands) {
    EXPECT_EQ(run(words).status, 0) << words[0];
    const Words lines = host.taken();
    expectSyncedBeforeRenamed(lines, words[0]);
    EXPECT_EQ(lines.back(), "sync " + folderName) << words[0];
    fs::remove(path("new"));
  }
  for (const bool force : {false, true}) {
    Words words = {"export", kDefaultFile, "files", "out"};
    if (force) words.push_back("--force");
    EXPECT_EQ(run(words).status, 0);
    const Words lines = host.taken();
    expectSyncedBeforeRenamed(lines, "export");
#if defined(QVDBASE_PORTABLE_POSIX)
    const int renames = force ? 2 : 0;  // what replaces nothing is placed by a link
#else
    const int renames = 2;
#endif
    EXPECT_EQ(std::count_if(lines.begin(), lines.end(),
                            [](const std::string& line) { return line.starts_with("rename"); }),
              renames);
    EXPECT_NE(std::find(lines.begin(), lines.end(), "sync sub"), lines.end());
    EXPECT_NE(std::find(lines.begin(), lines.end(), "sync out"), lines.end());
  }
}

// A power failure must not take the new folders away with everything in them.
TEST_F(ProductsOfTheTool, AreOnTheDeviceWithTheFoldersThatAreNewInTheirPath) {
  if (kIsSanitized) GTEST_SKIP() << "the sanitizer must be loaded first";
  fs::create_directories(path("in/sub/deeper"));
  writeFile(path("in/sub/deeper/b"), bytesOf("b"));
  done({"import", kDefaultFile, "files", "in/sub/deeper/b"});
  const std::string folderName = path().parent_path().filename();
  Watched host(path("log"));
  const auto expectSynced = [&](const Words& words) {
    SCOPED_TRACE(words[0]);
    EXPECT_EQ(run(words).status, 0);
    const Words lines = host.taken();
    for (const std::string& name : Words{"out", "n2", "n1", folderName}) {
      EXPECT_NE(std::find(lines.begin(), lines.end(), "sync " + name), lines.end()) << name;
    }
    fs::remove_all(path("n1"));
  };
  expectSynced({"export", "--parents", kDefaultFile, "files", "n1/n2/out"});
  expectSynced({"create", "--parents", "n1/n2/out/new"});
  expectSynced({"compact", "--parents", kDefaultFile, "n1/n2/out/new"});
  expectSynced({"get", "--parents", kDefaultFile, "notes", id_, "-o", "n1/n2/out/new"});
}

// ---- other users ----

// In a folder that everybody may write to, root makes files although another user has links there
// under every name that earlier versions used, and follows none of them.
TEST_F(ProductsOfTheTool, OfRootGoNowhereElseInAFolderOfAnotherUser) {
  if (::geteuid() != 0) GTEST_SKIP() << "only root can act as another user";
  fs::create_directory(path("shared"));
  fs::permissions(path("shared"), fs::perms(0777));
  writeFile(path("victim"), bytesOf("precious"));
  const auto makeAll = [&](const std::string& target) {
    for (Words words : makers()) {
      std::replace(words.begin(), words.end(), std::string("new"), target);
      EXPECT_EQ(run(words).status, 0) << words[0];
      struct stat status = {};
      ASSERT_EQ(::lstat(path(target).c_str(), &status), 0);
      EXPECT_TRUE(S_ISREG(status.st_mode)) << words[0];
      EXPECT_EQ(status.st_uid, 0u);
      fs::remove(path(target));
    }
  };
  {
    const Unprivileged user(folder.path());
    if (!user) GTEST_SKIP() << "root cannot act as another user here";
    for (pid_t each = ::getpid(); each < ::getpid() + 300; ++each) {
      for (const char* prefix : {"new.qvdb-", ".qvdb-"}) {
        ASSERT_EQ(::symlink("../victim", path("shared/" + (prefix + std::to_string(each))).c_str()),
                  0);
      }
    }
  }
  makeAll("shared/new");
  // And a link of the final name leads nowhere without --force.
  {
    const Unprivileged user(folder.path());
    ASSERT_EQ(::symlink("../victim", path("shared/new").c_str()), 0);
  }
  for (Words words : makers()) {
    std::replace(words.begin(), words.end(), std::string("new"), std::string("shared/new"));
    EXPECT_EQ(run(words).status, 1) << words[0];
  }
  EXPECT_EQ(contents("victim"), bytesOf("precious"));
}

// A path that begins at the current folder then leads nowhere, and the message says so.
TEST_F(ProductsOfTheTool, AreRefusedWhereTheCurrentFolderWasRemoved) {
  fs::create_directory(path("removed"));
  EXPECT_EQ(inForkedChild([&] {
              fs::current_path(path("removed"));
              fs::remove(path("removed"));
              std::string why;
              try {
                qvdb::compact(path(), "new.qvd");
              } catch (const qvdb::Error& error) {
                if (error.reason() == qvdb::Reason::path_not_reachable) why = error.what();
              }
              return why.find("the current folder is not known") != std::string::npos ? 0 : 1;
            }),
            0);
}

// Whatever it is that no descriptor is left for, the message says that these are too few.
TEST_F(ProductsOfTheTool, SayThatTooManyFilesAreOpen) {
  if (kIsSanitized) GTEST_SKIP() << "the sanitizer needs descriptors itself";
  std::vector<Words> commands = makers();
  commands.push_back({"backup", kDefaultFile, "new"});
  for (const Words& words : commands) {
    int failures = 0;
    for (int descriptors = 5; descriptors < 30; ++descriptors) {
      ProgramCall call =
          callOf({"-c", "ulimit -n \"$0\" && exec \"$@\"", std::to_string(descriptors), QVDB_TOOL});
      call.program = "/bin/sh";
      call.arguments.insert(call.arguments.end(), words.begin(), words.end());
      const Outcome outcome = runProgram(call);
      fs::remove(path("new"));
      if (outcome.status == 0) break;
      if (!outcome.err.starts_with("qvdb: ")) continue;  // the program did not get to run
      ++failures;
      EXPECT_NE(outcome.err.find("oo many "), std::string::npos)
          << words[0] << descriptors << outcome;
    }
    EXPECT_GT(failures, 0) << words[0];
  }
}

}  // namespace
}  // namespace qvdbase::test
