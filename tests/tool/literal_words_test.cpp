// Arguments are what they are: no word of a list is taken apart or left out, whatever is in it.
#include <filesystem>

#include "tool/tool_fixture.h"

namespace qvdbase::test {
namespace {

// Each of these has meant something to a program that reads command lines.
const Words kOddWords = {"[a]",   "[a,b]", "[]",    "[a",   "b]",  "{}",  "{a}",   "++",  "%%",
                         "\"a\"", "'a'",   "`a`",   "a,b",  "a b", "get", "help",  "a=b", "%x",
                         "~",     "a;b",   "[[a]]", "a\\b", "#a",  "a.b", "[a,b],"};
// Those that begin with a dash follow "--".
const Words kDashed = {"-x", "--force", "--", "-", "---", "-o=x", "--output=x"};

class LiteralWords : public ToolTest {
 protected:
  Words allWords() {
    Words all = kOddWords;
    all.insert(all.end(), kDashed.begin(), kDashed.end());
    return all;
  }

  // Imports a file for each word; its contents are the word itself.
  void importWords(const Words& words) {
    done({"create", "test.qvd"});
    std::filesystem::create_directory(path("in"));
    for (const std::string& word : words) writeFile(path("in/" + word), bytesOf(word));
    done({"import", "test.qvd", "files", "in/"});
  }

  std::vector<std::string> names() {
    std::vector<std::string> result;
    const auto records = json({"records", "--json", "test.qvd", "files"});
    for (const auto& record : records["records"]) {
      result.push_back(record["name"]);
    }
    std::sort(result.begin(), result.end());
    return result;
  }

  static Words sorted(Words words) {
    std::sort(words.begin(), words.end());
    return words;
  }
};

TEST_F(LiteralWords, AFileInBracketsIsDeletedAndNotTheOneWithoutThem) {
  importWords({"a", "[a]"});
  done({"rm", "test.qvd", "files", "[a]"});
  EXPECT_EQ(names(), Words{"a"});
}

TEST_F(LiteralWords, EachWordDeletesTheFileOfThatName) {
  importWords(allWords());
  for (const std::string& word : kOddWords) done({"rm", "test.qvd", "files", word});
  EXPECT_EQ(names(), sorted(kDashed));
}

TEST_F(LiteralWords, AListOfWordsDeletesTheFilesOfThoseNames) {
  Words all = allWords();
  importWords([&] {
    Words with = all;
    with.insert(with.end(), {"a", "b", "x"});
    return with;
  }());
  Words rm = {"rm", "test.qvd", "files"};
  rm.insert(rm.end(), kOddWords.begin(), kOddWords.end());
  rm.push_back("--");
  rm.insert(rm.end(), kDashed.begin(), kDashed.end());
  done(rm);
  EXPECT_EQ(names(), (Words{"a", "b", "x"}));
}

TEST_F(LiteralWords, PutStoresTheFilesOfThoseNames) {
  done({"create", "test.qvd"});
  done({"add-table", "test.qvd", "files"});
  Words put = {"put", "test.qvd", "files"};
  for (const std::string& word : allWords()) {
    if (word != "-") writeFile(path(word), bytesOf(word));
  }
  put.insert(put.end(), kOddWords.begin(), kOddWords.end());
  const std::string ids = done(put);
  EXPECT_EQ(std::count(ids.begin(), ids.end(), '\n'), std::ptrdiff_t(kOddWords.size()));
  for (const std::string& word : kDashed) {
    if (word == "-") continue;
    const std::string id = line({"put", "test.qvd", "files", "--", word});
    EXPECT_EQ(done({"get", "test.qvd", "files", id}), word);
  }
}

TEST_F(LiteralWords, ImportStoresTheFilesOfThoseNames) {
  done({"create", "test.qvd"});
  for (const std::string& word : allWords()) writeFile(path(word), bytesOf(word));
  Words import = {"import", "test.qvd", "files"};
  import.insert(import.end(), kOddWords.begin(), kOddWords.end());
  import.push_back("--");
  import.insert(import.end(), kDashed.begin(), kDashed.end());
  done(import);
  EXPECT_EQ(names(), sorted(allWords()));
}

TEST_F(LiteralWords, TouchAndGetFindTheFileOfThatName) {
  importWords(allWords());
  for (const std::string& word : kOddWords) {
    done({"touch", "test.qvd", "files", word});
    EXPECT_EQ(done({"get", "test.qvd", "files", word}), word);
  }
  for (const std::string& word : kDashed) {
    done({"touch", "test.qvd", "files", "--", word});
    EXPECT_EQ(done({"get", "test.qvd", "files", "--", word}), word);
  }
}

TEST_F(LiteralWords, AnOptionThatMayBeGivenManyTimesTakesItsWordsAsTheyAre) {
  done({"create", "test.qvd"});
  for (const char* table : {"a", "b", "[a,b]", "{}"}) done({"add-table", "test.qvd", table});
  done({"compact", "test.qvd", "out.qvd", "--drop", "[a,b]", "--drop", "{}"});
  Words tables;
  const auto out = json({"tables", "--json", "out.qvd"});
  for (const auto& table : out["tables"]) {
    tables.push_back(table["name"]);
  }
  EXPECT_EQ(tables, (Words{"a", "b"}));
}

TEST_F(LiteralWords, ADatabaseAndATableCanHaveAnyName) {
  for (const std::string name : {"[a,b]", "{}", "++"}) {
    done({"create", name});
    done({"add-table", name, name});
    EXPECT_EQ(json({"tables", "--json", name})["tables"][0]["name"], name);
  }
}

}  // namespace
}  // namespace qvdbase::test
