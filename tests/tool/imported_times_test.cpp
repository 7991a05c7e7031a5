// The times in the list of imported files: when each entry was added and removed, and from when on
// the list knows that.
#include <filesystem>

#include "kit/recorded_calls.h"
#include "kit/unprivileged.h"
#include "tool/in_process.h"
#include "tool/tool_fixture.h"
#include "tools/qvdb/archive/imported_files.h"
#include "tools/qvdb/streams/given_time.h"

namespace qvdbase::test {
namespace {

namespace fs = std::filesystem;
using qvdb::tool::FileKind;
using qvdb::tool::ImportedFile;
using qvdb::tool::ImportedFiles;

class ImportedTimes : public ToolTest {
 protected:
  void SetUp() override {
    at(1000, {"create", "@/test.qvd"});
    fs::create_directories(path("in/sub"));
    store("in/a", "contents of a");
    store("in/sub/b", "contents of b");
    fs::create_symlink("a", path("in/link"));
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
    host.setTime(static_cast<uint32_t>(time));
    std::string message;
    EXPECT_EQ(runCommand(folder.path(), words, &message), 0) << words[0] << ": " << message;
  }
  void import(int64_t time, const Words& options = {}) {
    Words words = {"import"};
    words.insert(words.end(), options.begin(), options.end());
    words.insert(words.end(), {"@/test.qvd", "files", "@/in/"});
    at(time, words);
  }

  ImportedFiles files() {
    const Bytes data = database().tables[0].data->data();
    return *ImportedFiles::from(std::as_bytes(std::span(data)));
  }

  // The entries of a name, from the first to the last: kind, since and until.
  std::string entriesOf(const std::string& name) {
    std::string text;
    const ImportedFiles all = files();
    for (const ImportedFile& file : all.list()) {
      if (file.name != name) continue;
      text += text.empty() ? "" : " ";
      text += static_cast<char>(file.kind);
      text += ":" + std::to_string(file.since) + "-" + std::to_string(file.until);
    }
    return text;
  }

  // Makes the list one of version 1.
  void makeOldList() {
    Bytes list = bytesOf("QVfiles").be(1, 1);
    const ImportedFiles all = files();
    for (const ImportedFile& file : all.list()) {
      list.text(std::string(1, static_cast<char>(file.kind))).be(2, file.mode);
      list.be(8, static_cast<uint64_t>(file.seconds)).be(4, file.nanoseconds);
      list.be(8, file.record.value).be(1, 0).be(1, file.name.size()).text(file.name);
      list.be(1, file.target.size()).text(file.target);
    }
    auto database = qvdb::Database::open(path(), qvdb::Mode::exclusive);
    database.table("files").set_data(std::as_bytes(std::span(list)));
  }
};

TEST_F(ImportedTimes, AreThoseOfTheImportThatAddedAnEntry) {
  import(2000);
  store("in/c", "c");
  import(3000, {"--update"});
  EXPECT_EQ(files().head().version, 2);
  EXPECT_EQ(files().head().knownSince, 0);
  EXPECT_EQ(entriesOf("a"), "f:2000-0");
  EXPECT_EQ(entriesOf("c"), "f:3000-0");
  EXPECT_EQ(entriesOf("sub"), "d:2000-0");
}

TEST_F(ImportedTimes, KeepWhatAnEntryWasBeforeItChanged) {
  import(2000);
  const auto before = files().list();
  fs::permissions(path("in/a"), fs::perms(0600));
  fs::permissions(path("in/sub"), fs::perms(0700));
  fs::remove(path("in/link"));
  fs::create_symlink("sub/b", path("in/link"));
  import(3000, {"--update"});
  EXPECT_EQ(entriesOf("a"), "-:2000-3000 f:3000-0");
  EXPECT_EQ(entriesOf("sub"), "-:2000-3000 d:3000-0");
  EXPECT_EQ(entriesOf("link"), "-:2000-3000 l:3000-0");
  const ImportedFiles now = files();
  EXPECT_EQ(now.list()[*now.find("a")].mode, 0600);
  EXPECT_EQ(now.list()[*now.find("link")].target, "sub/b");
  // The older ones are as they were.
  ASSERT_GT(now.list().size(), before.size());
  for (size_t i = 0; i < before.size(); ++i) {
    EXPECT_EQ(now.list()[i].mode, before[i].mode);
    EXPECT_EQ(now.list()[i].seconds, before[i].seconds);
    EXPECT_EQ(now.list()[i].target, before[i].target);
  }
}

TEST_F(ImportedTimes, SayWhenAnEntryWasRemoved) {
  import(2000);
  at(3000, {"rm", "@/test.qvd", "files", "a"});
  fs::remove_all(path("in/sub"));
  import(4000, {"--update", "--delete"});
  EXPECT_EQ(entriesOf("a"), "-:2000-3000 f:4000-0");
  EXPECT_EQ(entriesOf("sub"), "-:2000-4000");
  EXPECT_EQ(entriesOf("sub/b"), "-:2000-4000");
}

TEST_F(ImportedTimes, AreUnknownInAListOfTheFirstVersionUntilAnImportChangesIt) {
  import(2000);
  at(2500, {"rm", "@/test.qvd", "files", "sub/b"});
  makeOldList();
  EXPECT_EQ(files().head().version, 1);
  expectOnlyRead([&] {
    EXPECT_EQ(done({"records", "test.qvd", "files"}).find("sub/b"), std::string::npos);
    done({"export", "test.qvd", "files", "out"});
    EXPECT_EQ(readFile(path("out/a")), bytesOf("contents of a"));
    EXPECT_TRUE(fs::is_symlink(path("out/link")));
  });
  const std::string dump = done({"dump", "test.qvd"});
  EXPECT_EQ(dump.find("known_since"), std::string::npos);
  EXPECT_EQ(done({"load", "again.qvd"}, dump), "1 record in 1 table\n");
  EXPECT_EQ(done({"dump", "again.qvd"}), dump);

  fs::remove_all(path("in/sub"));
  fs::create_directory(path("in/sub"));
  at(2900, {"rm", "@/test.qvd", "files", "link"});
  EXPECT_EQ(files().head().version, 1) << "only an import renews it";
  store("in/c", "c");
  import(3000, {"--update"});
  EXPECT_EQ(files().head().version, 2);
  EXPECT_EQ(files().head().knownSince, 3000);
  EXPECT_EQ(entriesOf("a"), "f:0-0");
  EXPECT_EQ(entriesOf("sub/b"), "-:0-0");
  EXPECT_EQ(entriesOf("link"), "-:0-0 l:3000-0");
  EXPECT_EQ(entriesOf("c"), "f:3000-0");
}

TEST_F(ImportedTimes, AreInADumpAndComeBackWithIt) {
  import(2000);
  at(3000, {"rm", "@/test.qvd", "files", "a"});
  const std::string dump = done({"dump", "test.qvd"});
  EXPECT_NE(dump.find(R"("list":2,"known_since":0})"), std::string::npos) << dump;
  EXPECT_NE(dump.find(R"("since":2000,"until":3000})"), std::string::npos) << dump;
  done({"load", "again.qvd"}, dump);
  EXPECT_EQ(done({"dump", "again.qvd"}), dump);
  const auto with = [&](const std::string& member) {
    std::string changed = dump;
    changed.replace(changed.find(R"("list":2,)"), 9, member);
    return changed;
  };
  fails({"load", "bad.qvd"}, 1, {"\"list\""}, with(R"("list":1,)"));
  fails({"load", "bad.qvd"}, 1, {"\"list\""}, with(R"("list":3,)"));
  fails({"load", "bad.qvd"}, 1, {"\"key\""}, with(R"("list":2,"key":"12",)"));
  fails({"load", "bad.qvd"}, 1, {"known_since"}, with(""));
}

TEST_F(ImportedTimes, OfAnEarlierFileOfANameAreNotHiddenByThoseOfALaterOne) {
  import(2000);
  const std::string first = json({"records", "--json", "test.qvd", "files"})["records"][0]["id"];
  at(3000, {"rm", "@/test.qvd", "files", "a"});
  import(4000, {"--update"});
  fs::permissions(path("in/a"), fs::perms(0600));
  import(5000, {"--update"});
  EXPECT_EQ(entriesOf("a"), "-:2000-3000 -:4000-5000 f:5000-0");
  const ImportedFiles now = files();
  const auto removed = now.findRemoved("a");
  ASSERT_TRUE(removed.has_value());
  EXPECT_EQ(to_string(now.list()[*removed].record), first);
}

ImportedFile entry(const std::string& name, uint64_t record, int64_t since) {
  ImportedFile file;
  file.name = name;
  file.record = qvdb::Id{record};
  file.since = since;
  return file;
}

// What a kill leaves between the new entries and the removal of the old ones.
TEST(TimesOfAList, EndWhereANewerEntryOfTheSameNameBegins) {
  ImportedFiles list;
  list.add(entry("a", 1, 10));
  list.add(entry("b", 2, 10));
  list.add(entry("a", 1, 20));
  const auto read = ImportedFiles::from(list.bytes());
  ASSERT_TRUE(read.has_value());
  EXPECT_EQ(read->list()[0].kind, FileKind::removed);
  EXPECT_EQ(read->list()[0].until, 20);
  EXPECT_EQ(read->list()[1].kind, FileKind::file);
  EXPECT_EQ(read->find("a"), 2u);
  EXPECT_EQ(read->find(qvdb::Id{1}), 2u);
  EXPECT_FALSE(read->findRemoved("a").has_value());
}

TEST(TimesOfAList, OfEntriesRemovedLongAgoAreForgottenWhereTheseAreByFarTheMost) {
  ImportedFiles list;
  for (uint64_t i = 1; i <= 10'001; ++i) {
    list.add(entry(std::to_string(i), i, 5));
    if (i > 1) list.remove(list.list().size() - 1, static_cast<int64_t>(1000 + i));
  }
  list.renew(20'000);
  EXPECT_EQ(list.list().size(), 10'001u) << "so many are always kept";
  EXPECT_FALSE(list.isRewritten());
  list.add(entry("more", 20'000, 5));
  list.remove(list.list().size() - 1, 12'000);
  list.renew(20'000);
  EXPECT_TRUE(list.isRewritten());
  EXPECT_EQ(list.list().size(), 5'001u);
  EXPECT_EQ(list.list().front().name, "1");
  const int64_t known = list.head().knownSince;
  EXPECT_GT(known, 6000);
  for (size_t i = 1; i < list.list().size(); ++i) EXPECT_GT(list.list()[i].until, known);
  const auto read = ImportedFiles::from(list.bytes());
  EXPECT_EQ(read->head().knownSince, known);
  EXPECT_EQ(read->list().size(), list.list().size());
}

TEST(TimesOfAList, AreNotReadFromAHeadThatIsCutOff) {
  ImportedFiles list;
  list.add(entry("a", 1, 10));
  const auto whole = list.bytes();
  for (size_t size = 8; size < 32; ++size) {
    const auto read = ImportedFiles::from(whole.first(size));
    ASSERT_TRUE(read.has_value());
    EXPECT_FALSE(read->isWhole()) << size;
    EXPECT_TRUE(read->list().empty());
  }
  EXPECT_TRUE(ImportedFiles::from(whole.first(32))->isWhole());
}

// A folder that has changed comes after what is in it. It is finished last anyway.
TEST_F(ImportedTimes, OfFoldersAreRestoredAlsoWhereOneHasChanged) {
  fs::create_directories(path("in/sub/deep"));
  store("in/sub/deep/x", "x");
  import(2000);
  fs::permissions(path("in/sub"), fs::perms(0711));
  import(3000, {"--update"});
  fs::permissions(path("in/sub"), fs::perms(0700));
  {
    auto database = qvdb::Database::open(path(), qvdb::Mode::exclusive);
    ImportedFiles list = files();
    const size_t sub = *list.find("sub");
    ImportedFile closed = list.list()[sub];
    closed.mode = 0;
    list.update(sub, closed);
    database.table("files").set_data(list.bytes());
  }
  {
    const Unprivileged user(folder.path());
    if (!user) GTEST_SKIP() << "root cannot act as another user here";
    done({"export", "test.qvd", "files", "out"});
  }
  EXPECT_EQ(fs::status(path("out/sub")).permissions(), fs::perms(0));
  fs::permissions(path("out/sub"), fs::perms(0700));
  EXPECT_EQ(fs::last_write_time(path("out/sub/deep")), fs::last_write_time(path("in/sub/deep")));
}

}  // namespace
}  // namespace qvdbase::test
