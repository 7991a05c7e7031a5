// qvdb import --update, --delete, --exclude and --dry-run: a table follows a folder, and what has
// not changed there is not touched in the table.
#include <fcntl.h>
#include <sys/stat.h>

#include <filesystem>
#include <map>

#include "tool/tool_fixture.h"
#include "tools/qvdb/archive/file_tree.h"
#include "tools/qvdb/archive/importer.h"

namespace qvdbase::test {
namespace {

namespace fs = std::filesystem;

class ImportUpdate : public ToolTest {
 protected:
  static constexpr int64_t kOld = 1'500'000'000;

  void SetUp() override {
    done({"create", "test.qvd"});
    store("in/a", "contents of a");
    store("in/sub/b", "contents of b");
    store("in/sub/c", "");
    fs::create_symlink("a", path("in/link"));
    done({"import", "test.qvd", "files", "in"});
  }

  void store(const std::string& name, const std::string& contents, int64_t seconds = kOld) {
    fs::create_directories(path(name).parent_path());
    writeFile(path(name), bytesOf(contents));
    setTime(name, seconds);
  }

  void setTime(const std::string& name, int64_t seconds) {
    const timespec times[2] = {{0, UTIME_OMIT}, {static_cast<time_t>(seconds), 5}};
    ASSERT_EQ(::utimensat(AT_FDCWD, path(name).c_str(), times, AT_SYMLINK_NOFOLLOW), 0);
  }

  std::string update(const Words& options = {}, const std::string& from = "in") {
    Words words = {"import", "--update"};
    words.insert(words.end(), options.begin(), options.end());
    words.insert(words.end(), {"test.qvd", "files", from});
    return line(words);
  }

  // The identifier and the contents of each file of the table, by its name.
  std::map<std::string, std::pair<std::string, std::string>> stored() {
    std::map<std::string, std::pair<std::string, std::string>> files;
    const auto list = json({"records", "--json", "test.qvd", "files"});
    for (const auto& record : list["records"]) {
      const std::string id = record["id"];
      files[record["name"]] = {id, done({"get", "test.qvd", "files", id})};
    }
    return files;
  }

  std::vector<std::string> names() {
    std::vector<std::string> names;
    for (const auto& [name, file] : stored()) names.push_back(name);
    return names;
  }

  // Exports the table, and expects what is in the folder.
  void expectMirrored(const std::string& name = "in") {
    fs::remove_all(path("out"));
    done({"export", "test.qvd", "files", "out"});
    EXPECT_EQ(propertiesIn(path("out/" + name)), propertiesIn(path(name)));
  }

  static std::map<std::string, std::string> propertiesIn(const fs::path& root) {
    std::map<std::string, std::string> properties;
    for (const auto& entry : fs::recursive_directory_iterator(root)) {
      struct stat status = {};
      EXPECT_EQ(::lstat(entry.path().c_str(), &status), 0);
      std::string text = std::to_string(status.st_mode) + " " +
                         std::to_string(status.st_mtim.tv_sec) + " " +
                         std::to_string(status.st_mtim.tv_nsec) + " ";
      if (entry.is_symlink()) {
        text += fs::read_symlink(entry.path()).native();
      } else if (entry.is_regular_file()) {
        text += readFile(entry.path()).str();
      }
      properties[entry.path().lexically_relative(root).native()] = text;
    }
    return properties;
  }
};

TEST_F(ImportUpdate, WritesNothingWhenNothingHasChanged) {
  expectOnlyRead([&] {
    EXPECT_EQ(update(),
              "imported 0 files, 0 folders and 0 symbolic links, 0 bytes; 3 files are unchanged");
    EXPECT_EQ(update({"--delete", "--no-sync"}),
              "imported 0 files, 0 folders and 0 symbolic links, 0 bytes; 3 files are unchanged; "
              "deleted 0 names");
  });
}

TEST_F(ImportUpdate, StoresWhatIsNewAndReplacesWhatHasChanged) {
  const auto before = stored();
  store("in/a", "new contents of a");
  store("in/sub/c", "x", kOld + 1);
  store("in/sub/new", "new");
  fs::remove(path("in/link"));
  fs::create_symlink("sub/new", path("in/link"));
  EXPECT_EQ(update(),
            "imported 3 files, 2 folders and 1 symbolic link, 21 bytes; 1 file is unchanged");
  const auto after = stored();
  EXPECT_EQ(after.at("in/a"), std::pair(before.at("in/a").first, std::string("new contents of a")));
  EXPECT_EQ(after.at("in/sub/b"), before.at("in/sub/b"));
  EXPECT_EQ(after.at("in/sub/c").second, "x");
  EXPECT_EQ(after.at("in/sub/new").second, "new");
  expectMirrored();
}

// The time alone says so.
TEST_F(ImportUpdate, ReplacesAFileOfTheSameSizeWithAnotherTime) {
  store("in/a", "CONTENTS OF A", kOld - 1);
  update();
  EXPECT_EQ(stored().at("in/a").second, "CONTENTS OF A");
  expectMirrored();
}

// What has not changed by size and time is not even opened.
TEST_F(ImportUpdate, DoesNotReadWhatHasTheSameSizeAndAnOldTime) {
  store("in/a", "CONTENTS OF A");
  update();
  EXPECT_EQ(stored().at("in/a").second, "contents of a");
}

// As after two changes within a moment, of which the first was stored; or after the clock was set
// back.
TEST_F(ImportUpdate, ComparesWhatWasStoredBeforeItsTimeOfLastChange) {
  const int64_t future = time(nullptr) + 1'000'000;
  store("in/a", "one", future);
  store("in/large", std::string(600'000, 'x') + "one", future);
  store("in/same", "same", future);
  update();
  const auto before = stored();
  store("in/a", "two", future);
  store("in/large", std::string(600'000, 'x') + "two", future);
  EXPECT_EQ(update(),
            "imported 2 files, 0 folders and 0 symbolic links, 600006 bytes; 3 files are "
            "unchanged");
  const auto after = stored();
  EXPECT_EQ(after.at("in/a").second, "two");
  EXPECT_TRUE(after.at("in/large").second.ends_with("xtwo"));
  EXPECT_EQ(after.at("in/same"), before.at("in/same"));
  expectOnlyRead([&] { update(); });
}

TEST_F(ImportUpdate, StoresPermissionsWithoutTheContents) {
  const auto before = json({"records", "--json", "test.qvd", "files"});
  fs::permissions(path("in/a"), fs::perms(0600));
  fs::permissions(path("in/sub"), fs::perms(0700));
  EXPECT_EQ(update(),
            "imported 0 files, 1 folder and 0 symbolic links, 0 bytes; 3 files are unchanged");
  EXPECT_EQ(json({"records", "--json", "test.qvd", "files"}), before);
  expectMirrored();
  expectOnlyRead([&] { update(); });
}

TEST_F(ImportUpdate, StoresAFileInPlaceOfAFolderAndTheReverse) {
  fs::remove_all(path("in/sub"));
  store("in/sub", "a file now");
  fs::remove(path("in/a"));
  store("in/a/deep/x", "in a folder now");
  fs::remove(path("in/link"));
  store("in/link", "no link any more");
  update();
  EXPECT_EQ(names(), (std::vector<std::string>{"in/a/deep/x", "in/link", "in/sub"}));
  expectMirrored();
  expectOnlyRead([&] { update({"--delete"}); });
}

TEST_F(ImportUpdate, FillsATableThatIsNotThereYet) {
  EXPECT_EQ(line({"import", "-u", "--delete", "test.qvd", "new", "in"}),
            "imported 3 files, 2 folders and 1 symbolic link, 26 bytes; 0 files are unchanged; "
            "deleted 0 names");
}

// As a kill between the names and their records leaves them.
TEST_F(ImportUpdate, StoresTheRecordOfANameThatHasNone) {
  const std::string id = stored().at("in/a").first;
  {
    auto database = qvdb::Database::open(path(), qvdb::Mode::exclusive);
    ASSERT_TRUE(database.table("files").remove(*qvdb::parse_id(id)));
  }
  update();
  EXPECT_EQ(stored().at("in/a").second, "contents of a");
  expectMirrored();
}

TEST_F(ImportUpdate, DeletesWhatIsGone) {
  store("other/x", "not in the folder");
  done({"import", "test.qvd", "files", "other"});
  fs::remove_all(path("in/sub"));
  fs::remove(path("in/link"));
  EXPECT_EQ(update(),
            "imported 0 files, 1 folder and 0 symbolic links, 0 bytes; 1 file is unchanged");
  EXPECT_EQ(names().size(), 4u);
  EXPECT_EQ(update({"--delete"}),
            "imported 0 files, 0 folders and 0 symbolic links, 0 bytes; 1 file is unchanged; "
            "deleted 4 names");
  EXPECT_EQ(names(), (std::vector<std::string>{"in/a", "other/x"}));
  expectMirrored();
  expectMirrored("other");
}

TEST_F(ImportUpdate, DeletesWithoutUpdatingWhatIsGone) {
  fs::remove(path("in/sub/b"));
  done({"import", "--replace", "--delete", "test.qvd", "files", "in"});
  EXPECT_EQ(names(), (std::vector<std::string>{"in/a", "in/sub/c"}));
}

// A name that only begins like the folder's is not in it.
TEST_F(ImportUpdate, DeletesNothingBesideThePath) {
  store("in2/x", "x");
  store("in.txt", "x");
  done({"import", "test.qvd", "files", "in2", "in.txt"});
  fs::remove(path("in/sub/b"));
  update({"--delete"}, "in/sub");
  EXPECT_EQ(names().size(), 6u) << "sub/c is new, in/sub/b is not below sub";
  update({"--delete"});
  EXPECT_EQ(names(), (std::vector<std::string>{"in.txt", "in/a", "in/sub/c", "in2/x", "sub/c"}));
}

TEST_F(ImportUpdate, RefusesToMirrorAFolderThatIsEmptyNow) {
  fs::create_directories(path("empty/in"));
  expectOnlyRead([&] {
    fails({"import", "-u", "--delete", "test.qvd", "files", "empty/in"}, 1,
          {"empty/in", "is empty", "'qvdb rm'"});
    fails({"import", "-u", "--delete", "test.qvd", "files", "empty/in/"}, 1, {"is empty"});
    fails({"import", "-u", "--delete", "test.qvd", "files", "gone"}, 1, {"gone"});
  });
  EXPECT_EQ(names().size(), 3u);
}

// As when the folder has moved, and a link leads to where it is now.
// 'in' was imported, 'in/' is meant the next time: all files would come again, and the first ones
// go.
TEST_F(ImportUpdate, RefusesToMirrorTheContentsOfAFolderThatWasImportedByItsName) {
  expectOnlyRead([&] {
    for (const char* again : {"in/", "in/.", "./in//"}) {
      for (const Words& words : {Words{"import", "-u", "--delete"},
                                 {"import", "--delete"},
                                 {"import", "-u", "--delete", "--dry-run"}}) {
        Words all = words;
        all.insert(all.end(), {"test.qvd", "files", again});
        fails(all, 1, {again, "'in/...'", "leave out the '/'"});
      }
    }
  });
  // Not where the folder has one of its own name, or the table something else.
  fs::create_directories(path("other/in"));
  writeFile(path("other/in/x"), bytesOf("x"));
  done({"import", "-u", "--dry-run", "--delete", "test.qvd", "files", "other/"});
  writeFile(path("beside"), bytesOf("x"));
  done({"import", "test.qvd", "files", "beside"});
  done({"import", "-u", "--delete", "test.qvd", "files", "in/"});
  EXPECT_EQ(names().front(), "a");
}

TEST_F(ImportUpdate, RefusesToReplaceTheWholeFolderByALinkOrAFile) {
  fs::rename(path("in"), path("moved"));
  fs::create_directory_symlink("moved", path("in"));
  expectOnlyRead([&] {
    for (const Words& options : {Words{}, Words{"--delete"}, Words{"--dry-run"}}) {
      Words words = {"import", "-u"};
      words.insert(words.end(), options.begin(), options.end());
      words.insert(words.end(), {"test.qvd", "files", "in"});
      fails(words, 1, {"in: is no folder any more", "'in/a'"});
    }
  });
  EXPECT_EQ(update({"--delete"}, "moved").find("deleted 0 names") != std::string::npos, true);
  fs::remove(path("in"));
  fs::rename(path("moved"), path("in"));
  update({"--delete"});
  expectMirrored();
}

// An update that deletes nothing has nothing to fear of an empty folder.
TEST_F(ImportUpdate, OfAnEmptyFolderKeepsWhatTheTableHas) {
  fs::remove_all(path("in"));
  fs::create_directory(path("in"));
  update();
  EXPECT_EQ(names().size(), 3u);
}

TEST_F(ImportUpdate, LeavesOutWhatIsExcludedAndKeepsWhatTheTableHasOfIt) {
  store("in/x.o", "object");
  store("in/sub/y.o", "object");
  store("in/sub/.cache/deep/z", "cached");
  const Words exclude = {"--delete", "--exclude", "*.o", "--exclude", ".cache/"};
  update(exclude);
  EXPECT_EQ(names(), (std::vector<std::string>{"in/a", "in/sub/b", "in/sub/c"}));
  update();
  EXPECT_EQ(names().size(), 6u);
  fs::remove(path("in/x.o"));
  fs::remove_all(path("in/sub/.cache"));
  update(exclude);
  EXPECT_EQ(names().size(), 6u);
  update({"--delete"});
  EXPECT_EQ(names(), (std::vector<std::string>{"in/a", "in/sub/b", "in/sub/c", "in/sub/y.o"}));
  fails({"import", "--exclude", "", "test.qvd", "files", "in"}, 2, {"--exclude", "empty"});
}

TEST_F(ImportUpdate, ReportsWhatItWouldDoAndChangesNothing) {
  store("in/a", "changed");
  store("in/new\n", "new");
  fs::permissions(path("in/sub/c"), fs::perms(0600));
  fs::remove(path("in/sub/b"));
  setTime("in/sub", kOld);
  setTime("in", kOld);
  expectOnlyRead([&] {
    EXPECT_EQ(update({"--dry-run", "--delete"}),
              "properties in\n"
              "replace in/a\n"
              "add in/new\\x0a\n"
              "properties in/sub\n"
              "properties in/sub/c\n"
              "delete in/sub/b\n"
              "6 steps, 10 bytes; 1 file is unchanged; deleted 1 name; nothing was changed");
    EXPECT_EQ(line({"import", "-n", "test.qvd", "not there", "in/sub/c"}),
              "add c\n1 step, 0 bytes; nothing was changed");
    fails({"import", "-n", "test.qvd", "files", "in"}, 1, {"--replace", "--update"});
  });
  EXPECT_EQ(done({"tables", "test.qvd"}).find("not there"), std::string::npos);
}

TEST_F(ImportUpdate, IsNotCombinedWithReplacingAll) {
  fails({"import", "--update", "--replace", "test.qvd", "files", "in"}, 2,
        {"--replace and --update"});
}

// Some hundred files of all kinds, changed and mirrored in several rounds.
TEST_F(ImportUpdate, FollowsAFolderOfOddFiles) {
  const Words parts = {" ",      "a b",   "line\nend", "tab\t", "\xff\xfe",   "\xc3\xa4", "[a-z]*",
                       "back\\", "-dash", "#",         "'",     "\"quoted\"", ".hidden",  "a.b.c"};
  std::string deep = "odd";
  for (int i = 0; i < 20; ++i) deep += "/" + parts[static_cast<size_t>(i) % parts.size()];
  store(deep + "/at the bottom", "deep");
  for (const std::string& sub : parts) {
    for (const std::string& part : parts) store("odd/" + sub + "/" + part + "x", sub + part);
  }
  fs::create_directories(path("odd/empty folder"));
  store("odd/empty", "");
  store("odd/sparse", "x");
  fs::resize_file(path("odd/sparse"), 3'000'000);
  fs::create_symlink(std::string(200, 't'), path("odd/dangling\n"));
  fs::create_symlink(".", path("odd/loop"));
  ASSERT_EQ(::mkfifo(path("odd/pipe").c_str(), 0600), 0);
  store("odd/read-only/inside", "inside");
  fs::permissions(path("odd/read-only/inside"), fs::perms(0400));
  store("odd/before 1970", "old", -1'000'000);
  fs::permissions(path("odd/read-only"), fs::perms(0500));

  const auto follow = [&] {
    const Outcome outcome = run({"import", "--update", "--delete", "test.qvd", "odd files", "odd"});
    EXPECT_EQ(outcome.status, 0) << outcome;
    expectOneLine(outcome.err, {"odd/pipe", "not a file"});
    fs::remove_all(path("out"));
    done({"export", "test.qvd", "odd files", "out"});
    auto expected = propertiesIn(path("odd"));
    expected.erase("pipe");
    EXPECT_EQ(propertiesIn(path("out/odd")), expected);
    fs::permissions(path("out/odd/read-only"), fs::perms(0700));
    return outcome.out;
  };
  follow();
  EXPECT_NE(follow().find("imported 0 files, 0 folders and 0 symbolic links"), std::string::npos);
  size_t turn = 0;
  for (const std::string& sub : parts) {
    for (const std::string& part : parts) {
      const std::string name = "odd/" + sub + "/" + part + "x";
      if (turn % 5 == 0) fs::remove(path(name));
      if (turn % 5 == 1) store(name, "changed", kOld + 1);
      if (turn % 5 == 2) store(name + " too", "new");
      if (turn % 31 == 3) {
        fs::remove(path(name));
        store(name + "/folder now", "in it");
      }
      ++turn;
    }
  }
  fs::remove_all(path("odd/[a-z]*"));
  follow();
  fs::permissions(path("odd/read-only"), fs::perms(0700));
}

// A file that disappears between the listing and its turn is no reason to store no other.
TEST_F(ImportUpdate, LeavesOutWhatDisappearsMeanwhile) {
  store("more/first", "first");
  store("more/gone", "gone");
  store("more/sub/gone, too", "gone, too");
  store("more/zeta", "zeta");
  {
    auto database = qvdb::Database::open(path(), qvdb::Mode::exclusive);
    auto table = database.add_table("more");
    const auto tree = qvdb::tool::listFiles({path("more/")}, path());
    fs::remove(path("more/gone"));
    fs::remove_all(path("more/sub"));
    qvdb::tool::Importer importer(database, table, tree, {});
    importer.check(false);
    testing::internal::CaptureStderr();
    importer.run();
    const std::string errors = testing::internal::GetCapturedStderr();
    EXPECT_NE(errors.find("more/gone: has disappeared"), std::string::npos) << errors;
    EXPECT_NE(errors.find("more/sub: has disappeared"), std::string::npos) << errors;
  }
  done({"export", "test.qvd", "more", "out"});
  EXPECT_TRUE(fs::exists(path("out/first")));
  EXPECT_TRUE(fs::exists(path("out/zeta")));
  EXPECT_FALSE(fs::exists(path("out/gone")));
}

}  // namespace
}  // namespace qvdbase::test
