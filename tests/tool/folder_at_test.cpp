// qvdb export --at, and qvdb get --at of folders: what was imported, as it was at a time.
#include <filesystem>
#include <map>

#include "kit/recorded_calls.h"
#include "tool/in_process.h"
#include "tool/tool_fixture.h"
#include "tools/qvdb/streams/given_time.h"

namespace qvdbase::test {
namespace {

namespace fs = std::filesystem;

class FolderAtATime : public ToolTest {
 protected:
  void SetUp() override {
    at(1000, {"create", "@/test.qvd"});
    fs::create_directories(path("in/sub/empty"));
    store("in/a", "a of 2000");
    store("in/sub/b", "b of 2000");
    store("in/sub/large", std::string(300'000, '2'));
    fs::create_symlink("a", path("in/link"));
    import(2000);
    seen_[2000] = inventory(path("in"));
  }
  void TearDown() override {
    qvdb::tool::setClock(nullptr);
    ToolTest::TearDown();
  }

  void store(const std::string& name, const std::string& contents) {
    writeFile(path(name), bytesOf(contents));
  }

  // Runs a command at that time.
  void at(int64_t time, const Words& words) {
    static int64_t now;
    now = time;
    qvdb::tool::setClock([] { return now; });
    RecordedCalls host;
    host.setTime(static_cast<std::time_t>(time));
    std::string message;
    EXPECT_EQ(runCommand(folder.path(), words, &message), 0) << words[0] << ": " << message;
  }
  void import(int64_t time) {
    at(time, {"import", "--update", "--delete", "@/test.qvd", "files", "@/in/"});
  }

  // Type, permissions, time and contents of everything in a folder.
  static std::map<std::string, std::string> inventory(const fs::path& root) {
    std::map<std::string, std::string> found;
    for (const auto& each : fs::recursive_directory_iterator(root)) {
      struct stat status = {};
      EXPECT_EQ(::lstat(each.path().c_str(), &status), 0);
      std::string text = std::to_string(status.st_mode) + " " +
                         std::to_string(status.st_mtim.tv_sec) + "." +
                         std::to_string(status.st_mtim.tv_nsec) + " ";
      if (each.is_symlink()) {
        text += fs::read_symlink(each.path()).native();
      } else if (each.is_regular_file()) {
        text += readFile(each.path()).str();
      }
      found[each.path().lexically_relative(root).native()] = text;
    }
    return found;
  }

  Outcome exportAt(int64_t time, const Words& more = {}) {
    fs::remove_all(path("out"));
    Words words = {"export", "--at", "@" + std::to_string(time), "test.qvd", "files", "out"};
    words.insert(words.end(), more.begin(), more.end());
    return run(words);
  }
  void expectAsSeen(int64_t time, int64_t seen) {
    const Outcome outcome = exportAt(time);
    EXPECT_EQ(outcome.status, 0) << outcome;
    EXPECT_EQ(inventory(path("out")), seen_[seen]) << time;
  }

  std::map<int64_t, std::map<std::string, std::string>> seen_;
};

TEST_F(FolderAtATime, IsWrittenAsItWasAtEachImport) {
  store("in/a", "a of 3000 is longer");
  fs::remove(path("in/sub/b"));
  fs::remove(path("in/link"));
  fs::create_symlink("sub", path("in/link"));
  fs::permissions(path("in/sub"), fs::perms(0710));
  store("in/new", "new of 3000");
  import(3000);
  seen_[3000] = inventory(path("in"));
  fs::remove_all(path("in/sub"));
  store("in/sub", "a file since 4000");
  fs::remove(path("in/a"));
  fs::create_directory(path("in/a"));
  import(4000);
  seen_[4000] = inventory(path("in"));
  store("in/a/b", "of 5000");
  import(5000);
  seen_[5000] = inventory(path("in"));
  expectOnlyRead([&] {
    for (const int64_t time : {2000, 3000, 4000, 5000}) {
      expectAsSeen(time, time);
      expectAsSeen(time + 999, time);
    }
    fails({"export", "--at", "@1999", "test.qvd", "files", "out"}, 1,
          {"test.qvd", "'files'", "no files at 1970-01-01T00:33:19Z"});
  });
}

// The new contents fitted into the block of the old ones.
TEST_F(FolderAtATime, LeavesOutContentsThatWereOverwrittenAndSaysSo) {
  store("in/a", "A OF 3000");
  import(3000);
  const Outcome outcome = exportAt(2000);
  EXPECT_EQ(outcome.status, 1) << outcome;
  expectOneLine(outcome.err, {"test.qvd", "1 file, 'a',", "no longer", "1970-01-01T00:33:20Z",
                              "changed in place", "nothing is written"});
  auto expected = seen_[2000];
  expected.erase("a");
  EXPECT_EQ(inventory(path("out")), expected);
  EXPECT_EQ(exportAt(3000).err, "");
  EXPECT_EQ(readFile(path("out/a")), bytesOf("A OF 3000"));
}

TEST_F(FolderAtATime, SaysWhatMayHaveBeenOverwrittenInBetween) {
  store("in/a", "a of 3000, which is longer");
  import(3000);
  const Outcome outcome = exportAt(2500);
  EXPECT_EQ(outcome.status, 0) << outcome;
  expectOneLine(outcome.err, {"1 file, 'a',", "changed after 1970-01-01T00:41:40Z", "in place"});
  EXPECT_EQ(inventory(path("out")), seen_[2000]);
}

TEST_F(FolderAtATime, IsLostInPartWhereTheFileWasCompacted) {
  at(3000, {"rm", "@/test.qvd", "files", "sub/large"});
  expectAsSeen(2999, 2000);
  done({"compact", "test.qvd"});
  const Outcome outcome = exportAt(2999);
  EXPECT_EQ(outcome.status, 1) << outcome;
  expectOneLine(outcome.err, {"1 file, 'sub/large',", "compacted"});
  EXPECT_EQ(readFile(path("out/sub/b")), bytesOf("b of 2000"));
  EXPECT_FALSE(fs::exists(path("out/sub/large")));
}

TEST_F(FolderAtATime, IsNotKnownFromAListWithoutTimes) {
  Bytes list = bytesOf("QVfiles").be(1, 1);
  const uint64_t a = database().tables[0].records[0].id;
  list.text("f").be(2, 0644).be(8, 0).be(4, 0).be(8, a).be(1, 0).be(1, 1).text("a").be(1, 0);
  list.text("-").be(2, 0644).be(8, 0).be(4, 0).be(8, 7).be(1, 0).be(1, 1).text("b").be(1, 0);
  qvdb::Database::open(path(), qvdb::Mode::exclusive)
      .table("files")
      .set_data(std::as_bytes(std::span(list)));
  Outcome outcome = exportAt(5000);
  EXPECT_EQ(outcome.status, 1) << outcome;
  expectOneLine(outcome.err, {"'files'", "no times", "may be missing"});
  EXPECT_EQ(readFile(path("out/a")), bytesOf("a of 2000"));
  // An import makes it version 2, which knows everything from then on.
  at(3000, {"import", "--update", "@/test.qvd", "files", "@/in/"});
  EXPECT_EQ(exportAt(3000).err, "");
  outcome = exportAt(2999);
  EXPECT_EQ(outcome.status, 1) << outcome;
  EXPECT_NE(outcome.err.find("before 1970-01-01T00:50:00Z is not known"), std::string::npos)
      << outcome;
}

TEST_F(FolderAtATime, IsWrittenOverNothingAndOnlyIntoTheFolder) {
  fs::create_directory(path("out"));
  writeFile(path("out/a"), bytesOf("mine"));
  const Words words = {"export", "--at", "@2000", "test.qvd", "files", "out"};
  fails(words, 1, {"out/a", "exists already", "--force"});
  EXPECT_EQ(inventory(path("out")).size(), 1u);
  Words forced = words;
  forced.insert(forced.begin() + 1, "--force");
  done(forced);
  EXPECT_EQ(inventory(path("out")), seen_[2000]);
  fs::remove_all(path("out"));
  fs::create_directories(path("out"));
  fs::create_directory(path("beside"));
  fs::create_directory_symlink("../beside", path("out/sub"));
  fails(words, 1, {"out/sub", "not a folder"});
  EXPECT_TRUE(fs::is_empty(path("beside")));
}

// Each takes the payload of the same record.
TEST_F(FolderAtATime, WritesNoMoreThanTheFileHas) {
  const uint64_t large = database().tables[0].records[2].id;
  Bytes list = bytesOf("QVfiles").be(1, 2).fill(24, 0);
  for (unsigned i = 0; i < 100; ++i) {
    list.text("f").be(2, 0644).be(8, 0).be(4, 0).be(8, large).be(8, 1).be(8, 0);
    list.be(1, 0).be(1, 2).be(2, 0x3030 + (i % 10) + i / 10 * 256).be(1, 0).be(1, 0);
  }
  qvdb::Database::open(path(), qvdb::Mode::exclusive)
      .table("files")
      .set_data(std::as_bytes(std::span(list)));
  const Outcome outcome = exportAt(2000);
  EXPECT_EQ(outcome.status, 1) << outcome;
  expectOneLine(outcome.err, {"overlap", "--force"});
}

TEST_F(FolderAtATime, IsForTablesOfImportedFilesAndForFolders) {
  at(3000, {"add-table", "@/test.qvd", "notes"});
  fails({"export", "--at", "@3000", "test.qvd", "notes", "out"}, 1,
        {"'notes'", "no list of imported files", "'qvdb history'"});
  fails({"export", "--at", "then", "test.qvd", "files", "out"}, 2, {"--at", "'then'", "no time"});
  fails({"export", "--at", "@1", "--by-id", "test.qvd", "files", "out"}, 2, {"--by-id"});
  fails({"export", "--at", "@1", "--copy", "-", "test.qvd"}, 2, {"--copy"});
  EXPECT_FALSE(fs::exists(path("out")));
}

TEST_F(FolderAtATime, IsPrintedInParts) {
  at(3000, {"rm", "@/test.qvd", "files", "sub/b", "sub/large"});
  store("in/sub/c", "c of 4000");
  at(4000, {"import", "@/test.qvd", "files2", "@/in/sub/c"});
  at(4000, {"import", "--update", "@/test.qvd", "files", "@/in/a"});
  expectOnlyRead([&] {
    const auto get = [&](int64_t time, const Words& words) {
      Words all = {"get", "--at", "@" + std::to_string(time), "test.qvd", "files"};
      all.insert(all.end(), words.begin(), words.end());
      return all;
    };
    const std::string large(300'000, '2');
    EXPECT_EQ(done(get(2000, {"sub"})), "b of 2000" + large);
    EXPECT_EQ(done(get(2999, {"sub/l*", "a", "sub/large"})), large + "a of 2000");
    EXPECT_EQ(done(get(2000, {"sub/b"})), "b of 2000") << "it is known when it was deleted";
    fails(get(3000, {"sub/b"}), 1, {"'sub/b'", "removed at 1970-01-01T00:50:00Z", "not there at"});
    fails(get(3000, {"sub/*"}), 1, {"has no file of which"});
    fails(get(3000, {"none*"}), 1, {"nothing that matches 'none*' at 1970-01-01T00:50:00Z"});
    fails(get(3000, {"a", "none"}), 1, {"no file 'none' at"});
    fails(get(3000, {"a", "0x12"}), 2, {"one identifier"});
    fails(get(3000, {"link"}), 1, {"'link'"});
    fails(get(1000, {"*"}), 1, {"no files at"});
  });
}

TEST_F(FolderAtATime, IsWrittenInPart) {
  Outcome outcome = exportAt(2000, {"sub/b", "l*"});
  EXPECT_EQ(outcome.status, 0) << outcome;
  EXPECT_EQ(outcome.out, "exported 1 file, 9 bytes\n");
  EXPECT_TRUE(fs::is_symlink(path("out/link")));
  EXPECT_EQ(std::distance(fs::recursive_directory_iterator(path("out")), {}), 3);
  outcome = exportAt(2000, {"a", "c"});
  EXPECT_EQ(outcome.status, 1);
  expectOneLine(outcome.err, {"had no 'c' at"});
  EXPECT_FALSE(fs::exists(path("out")));
}

class ExportInPart : public ToolTest {
 protected:
  void SetUp() override {
    fs::create_directories(path("in/sub/empty"));
    writeFile(path("in/a"), bytesOf("a"));
    writeFile(path("in/7"), bytesOf("seven"));
    writeFile(path("in/sub/b"), bytesOf("b"));
    writeFile(path("in/sub/c.txt"), bytesOf("c"));
    fs::permissions(path("in/sub"), fs::perms(0710));
    fs::create_symlink("a", path("in/link"));
    done({"create", "test.qvd"});
    done({"import", "test.qvd", "files", "in/"});
    unnamed_ = line({"put", "test.qvd", "files", "in/a"});
  }

  std::vector<std::string> exported(const Words& names) {
    fs::remove_all(path("out"));
    Words words = {"export", "test.qvd", "files", "out"};
    words.insert(words.end(), names.begin(), names.end());
    done(words);
    std::vector<std::string> found;
    for (const auto& each : fs::recursive_directory_iterator(path("out"))) {
      found.push_back(each.path().lexically_relative(path("out")).native());
    }
    std::sort(found.begin(), found.end());
    return found;
  }

  std::string unnamed_;
};

TEST_F(ExportInPart, WritesWhatTheNamesMean) {
  expectOnlyRead([&] {
    EXPECT_EQ(exported({"a"}), (Words{"a"}));
    EXPECT_EQ(exported({"sub"}), (Words{"sub", "sub/b", "sub/c.txt", "sub/empty"}));
    EXPECT_EQ(fs::status(path("out/sub")).permissions(), fs::perms(0710));
    EXPECT_EQ(exported({"**/*.txt", "link"}), (Words{"link", "sub", "sub/c.txt"}));
    EXPECT_EQ(exported({"./7", "a", "a"}), (Words{"7", "a"}));
    EXPECT_EQ(exported({unnamed_}), (Words{unnamed_}));
    const auto records = json({"records", "--json", "test.qvd", "files"})["records"];
    EXPECT_EQ(exported({records[0]["id"]}), (Words{records[0]["name"]}));
    EXPECT_EQ(readFile(path("out") / std::string(records[0]["name"])), bytesOf("seven"));
  });
}

TEST_F(ExportInPart, WritesNothingWhereANameMeansNothing) {
  expectOnlyRead([&] {
    fails({"export", "test.qvd", "files", "out", "a", "none"}, 1, {"'none'", "'qvdb records'"});
    fails({"export", "test.qvd", "files", "out", "none*"}, 1, {"matches 'none*'"});
    fails({"export", "test.qvd", "files", "out", "0x1"}, 1, {"no record 0x"});
    fails({"export", "--by-id", "test.qvd", "files", "out", "a"}, 1, {"'a'", "identifier"});
    fails({"export", "--copy", "-", "test.qvd", "files", "out", "a"}, 2, {"FOLDER"});
  });
  EXPECT_FALSE(fs::exists(path("out")));
}

TEST_F(ExportInPart, FailsForAFileWithoutARecord) {
  const std::string id = json({"records", "--json", "test.qvd", "files"})["records"][1]["id"];
  qvdb::Database::open(path(), qvdb::Mode::exclusive).table("files").remove(*qvdb::parse_id(id));
  const Outcome outcome = run({"export", "test.qvd", "files", "out", "a", "./7"});
  EXPECT_EQ(outcome.status, 1) << outcome;
  expectOneLine(outcome.err, {"1 name has no record"});
  EXPECT_EQ(outcome.out, "exported 1 file, 5 bytes\n");
}

}  // namespace
}  // namespace qvdbase::test
