// qvdb get --at: a record as it was at a time.
#include "tool/tool_fixture.h"

namespace qvdbase::test {
namespace {

constexpr uint64_t kCreateTime = 23;  // offsets in a record block
constexpr uint64_t kModifyTime = 27;

class EarlierVersions : public ToolTest {
 protected:
  void SetUp() override { done({"create", "test.qvd"}); }

  void store(const std::string& contents, const Words& options = {}) {
    writeFile(path("f"), bytesOf(contents));
    Words words = {"import"};
    words.insert(words.end(), options.begin(), options.end());
    words.insert(words.end(), {"test.qvd", "files", "f"});
    done(words);
  }

  nlohmann::json versionsOf(const std::string& word) {
    return json({"history", "--json", "test.qvd", "files", word})["versions"];
  }

  // Gives the last version of a record these times.
  void date(const std::string& word, uint32_t created, uint32_t modified) {
    const uint64_t offset = versionsOf(word).back()["offset"];
    patchFile(path(), offset + kCreateTime, Bytes().be(4, created));
    patchFile(path(), offset + kModifyTime, Bytes().be(4, modified));
  }

  Words getAt(const std::string& time, const std::string& word = "f") {
    return {"get", "--at", time, "test.qvd", "files", word};
  }

  // Expects these contents, and a line on standard error that has each of the parts.
  void expectDoubtful(const Words& words, const std::string& contents,
                      const std::vector<std::string>& parts) {
    const Outcome outcome = run(words);
    EXPECT_EQ(outcome.status, 0) << outcome;
    EXPECT_EQ(outcome.out, contents);
    expectOneLine(outcome.err, parts);
  }
};

TEST_F(EarlierVersions, EachIsShownFromTheTimeWhenItWasWritten) {
  store("one");
  date("f", 1000, 1000);
  store("two is longer", {"--replace"});
  date("f", 1000, 2000);
  expectOnlyRead([&] {
    fails(getAt("@999"), 1, {"'f'", "1970-01-01T00:16:40Z", "not there", "1970-01-01T00:16:39Z"});
    expectDoubtful(getAt("@1000"), "one", {"1970-01-01T00:16:40Z", "1970-01-01T00:33:20Z"});
    expectDoubtful(getAt("@1999"), "one", {"changed in place"});
    EXPECT_EQ(done(getAt("@2000")), "two is longer");
    EXPECT_EQ(done(getAt("1970-01-01T00:33:20")), "two is longer");
    EXPECT_EQ(done(getAt("2070-01-01")), "two is longer");
  });
}

TEST_F(EarlierVersions, ContentsThatWereOverwrittenAreNotInventedFromNewerOnes) {
  store("one");
  date("f", 1000, 1000);
  store("two", {"--replace"});  // fits, so that it is written in place
  date("f", 1000, 2000);
  ASSERT_EQ(versionsOf("f").size(), 1u);
  fails(getAt("@1500"), 1, {"'f'", "no longer", "changed in place", "1970-01-01T00:33:20Z"});
  EXPECT_EQ(done(getAt("@2000")), "two");
}

TEST_F(EarlierVersions, ARemovedFileIsFoundByItsNameUntilTheFileIsCompacted) {
  store("one");
  date("f", 1000, 1000);
  done({"rm", "test.qvd", "files", "f"});
  expectDoubtful(getAt("@1000"), "one", {"'f'", "deleted", "does not say when"});
  fails(getAt("@999"), 1, {"not there"});
  done({"compact", "test.qvd"});
  fails(getAt("@1000"), 1, {"'f'"});
}

TEST_F(EarlierVersions, OfSeveralFilesThatHadTheNameTheOneOfThatTimeIsShown) {
  store("one");
  date("f", 1000, 1000);
  done({"rm", "test.qvd", "files", "f"});
  store("other");
  date("f", 2000, 3000);
  expectDoubtful(getAt("@1999"), "one", {"deleted"});
  EXPECT_EQ(done(getAt("@3000")), "other");
  // The second one was there, and what it held is lost: the first one is no answer.
  fails(getAt("@2500"), 1, {"no longer"});
}

TEST_F(EarlierVersions, AVersionThatIsDamagedIsNotShownAsIfItWereWhole) {
  store(std::string(100, 'x'));
  date("f", 1000, 1000);
  const auto image = readFile(path());
  const uint64_t offset = versionsOf("f").back()["offset"];
  writeFile(path("cut.qvd"), image.cut(offset + 120));
  expectDamage("cut.qvd");
  fails({"get", "--at", "@1000", "cut.qvd", "files", "f"}, 1,
        {"'f'", "damaged", "history --at " + std::to_string(offset)});
}

TEST_F(EarlierVersions, OneRecordOrNamesAndATimeAreWanted) {
  store("one");
  const std::string id = json({"records", "--json", "test.qvd", "files"})["records"][0]["id"];
  EXPECT_EQ(done(getAt("2070-01-01", id)), "one");
  EXPECT_EQ(done(getAt("2070-01-01", "./f")), "one");
  fails(getAt("yesterday"), 2, {"--at", "'yesterday'", "no time"});
  EXPECT_EQ(done(getAt("2070-01-01", "*")), "one");
  fails(getAt("2070-01-01", "g"), 1, {"no file 'g'"});
  fails(getAt("2070-01-01", "0xee"), 1, {"0xee", "no version"});
  EXPECT_EQ(done({"get", "--at", "2070-01-01", "test.qvd", "files", "f", "f"}), "one");
  fails({"get", "--at", "2070-01-01", "test.qvd", "files", id, id}, 2, {"--at", "one identifier"});
}

}  // namespace
}  // namespace qvdbase::test
