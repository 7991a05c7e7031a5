// qvdb get, rm and records of several names, folders and patterns.
#include <filesystem>
#include <qvdbase/qvdb.hpp>

#include "tool/tool_fixture.h"

namespace qvdbase::test {
namespace {

namespace fs = std::filesystem;

class ChoosingRecords : public ToolTest {
 protected:
  void SetUp() override {
    done({"create", "test.qvd"});
    for (const char* name : {"a.txt", "beach/1.jpg", "beach/2.jpg", "beach/deep/3.jpg", "beach.txt",
                             "[a].txt", "star*", "star-", "17"}) {
      fs::create_directories(path("in" / fs::path(name)).parent_path());
      writeFile(path("in" / fs::path(name)), bytesOf(std::string("<") + name + ">"));
    }
    fs::create_directory(path("in/empty"));
    fs::create_symlink("a.txt", path("in/link"));
    done({"import", "test.qvd", "files", "in/"});
  }

  static Words with(Words words, const Words& more) {
    words.insert(words.end(), more.begin(), more.end());
    return words;
  }

  std::string get(const Words& records) {
    return done(with({"get", "test.qvd", "files"}, records));
  }

  void rm(const Words& records) { EXPECT_EQ(done(with({"rm", "test.qvd", "files"}, records)), ""); }

  Words namesOf(const nlohmann::json& records) {
    Words names;
    for (const auto& record : records) names.push_back(record["name"]);
    std::sort(names.begin(), names.end());
    return names;
  }

  Words names(const Words& records = {}) {
    return namesOf(json(with({"records", "--json", "test.qvd", "files"}, records))["records"]);
  }

  std::string idOf(const std::string& name) {
    return json({"records", "--json", "test.qvd", "files", name})["records"][0]["id"];
  }

  // The table without these.
  Words without(const Words& gone) {
    Words rest = names();
    std::erase_if(rest, [&](const std::string& name) {
      return std::find(gone.begin(), gone.end(), name) != gone.end();
    });
    return rest;
  }
};

TEST_F(ChoosingRecords, SeveralAreWrittenInTheOrderOfTheArguments) {
  EXPECT_EQ(get({"beach/2.jpg", "a.txt"}), "<beach/2.jpg><a.txt>");
  EXPECT_EQ(get({"a.txt", idOf("a.txt"), "./17", "a.txt"}), "<a.txt><17>") << "each once";
}

TEST_F(ChoosingRecords, AFolderIsAllBelowIt) {
  EXPECT_EQ(get({"beach"}), "<beach/1.jpg><beach/2.jpg><beach/deep/3.jpg>");
  EXPECT_EQ(get({"./beach/"}), get({"beach"}));
  EXPECT_EQ(get({"beach/deep", "beach"}), "<beach/deep/3.jpg><beach/1.jpg><beach/2.jpg>");
  fails({"get", "test.qvd", "files", "a.txt/"}, 1, {"has no file 'a.txt/'"});
}

TEST_F(ChoosingRecords, APatternIsComparedWithWholeNames) {
  EXPECT_EQ(get({"*.txt"}), "<[a].txt><a.txt><beach.txt>");
  EXPECT_EQ(get({"*/?.jpg"}), "<beach/1.jpg><beach/2.jpg>");
  EXPECT_EQ(get({"**/*.jpg"}), get({"beach"}));
  EXPECT_EQ(get({"b*/"}), get({"beach"})) << "folders only";
  EXPECT_EQ(get({"be[a-c]ch"}), get({"beach"}));
  EXPECT_EQ(get({"[!a-z]*"}), "<17><[a].txt>");
}

TEST_F(ChoosingRecords, ANameThatExistsIsNoPattern) {
  EXPECT_EQ(get({"[a].txt"}), "<[a].txt>");
  EXPECT_EQ(get({"star*"}), "<star*>");
  EXPECT_EQ(get({"star\\*"}), "<star*>");
  EXPECT_EQ(get({"star?"}), "<star*><star->");
  rm({"[a].txt", "star*"});
  EXPECT_EQ(get({"[a].txt", "star*"}), "<a.txt><star->") << "they are patterns now";
}

TEST_F(ChoosingRecords, OneThatIsMissingMeansThatNothingIsWrittenOrDeleted) {
  const auto all = names();
  for (const char* word : {"not there", "*.gif", "beach/*/*/*", "[", "0x1"}) {
    expectOnlyRead([&] {
      fails({"get", "test.qvd", "files", "a.txt", word}, 1, {});
      fails({"rm", "test.qvd", "files", "a.txt", word, "beach"}, 1, {});
      fails({"records", "test.qvd", "files", "a.txt", word}, 1, {});
      fails({"records", "--json", "test.qvd", "files", word}, 1, {});
      fails({"touch", "test.qvd", "files", "a.txt", word}, 1, {});
    });
  }
  fails({"get", "test.qvd", "files", "*.gif"}, 1, {"nothing that matches '*.gif'", "qvdb records"});
  fails({"get", "test.qvd", "files", "x", "--output", "out"}, 1, {"no file 'x'"});
  EXPECT_FALSE(fs::exists(path("out")));
  EXPECT_EQ(names(), all);
}

TEST_F(ChoosingRecords, FoldersAndLinksAloneHaveNothingToWrite) {
  fails({"get", "test.qvd", "files", "empty"}, 1, {"without a record", "qvdb export"});
  fails({"get", "test.qvd", "files", "link", "empty"}, 1, {"without a record"});
  EXPECT_EQ(get({"link", "a.txt"}), "<a.txt>");
}

TEST_F(ChoosingRecords, AreDeletedWithTheirNamesFoldersAndLinks) {
  const Words rest = without({"beach/1.jpg", "beach/2.jpg", "beach/deep/3.jpg", "a.txt"});
  rm({"beach", "a.txt", "link", "empty/"});
  EXPECT_EQ(names(), rest);
  done({"export", "test.qvd", "files", "out"});
  for (const char* gone : {"beach", "a.txt", "link", "empty"}) {
    EXPECT_FALSE(fs::exists(fs::symlink_status(path("out" / fs::path(gone))))) << gone;
  }
  EXPECT_TRUE(fs::exists(path("out/beach.txt")));
  fails({"rm", "test.qvd", "files", "beach"}, 1, {"no file 'beach'"});
}

TEST_F(ChoosingRecords, ArePatternsOfRmToo) {
  const Words rest = without({"beach/1.jpg", "beach/2.jpg", "beach/deep/3.jpg"});
  rm({"**/*.jpg"});
  EXPECT_EQ(names(), rest);
  done({"export", "test.qvd", "files", "out"});
  EXPECT_TRUE(fs::exists(path("out/beach/deep"))) << "folders do not match";
  rm({"**"});
  EXPECT_EQ(names(), Words{});
}

TEST_F(ChoosingRecords, AreListed) {
  EXPECT_EQ(names({"beach/*.jpg", "a.txt"}), (Words{"a.txt", "beach/1.jpg", "beach/2.jpg"}));
  EXPECT_EQ(names({idOf("./17")}), Words{"17"});
  const std::string text = done({"records", "test.qvd", "files", "b*"});
  EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 5) << text;
  EXPECT_EQ(json({"records", "--json", "--limit", "1", "test.qvd", "files",
                  "beach/2.jpg"})["records"][0]["name"],
            "beach/2.jpg");
  EXPECT_EQ(names({"--last", "1", "*.txt"}).size(), 0u) << "the last one is another";
  fails({"records", "--follow", "test.qvd", "files", "b*"}, 2, {"--follow"});
}

TEST_F(ChoosingRecords, AreListedAmongTheDeleted) {
  const std::string id = idOf("a.txt");
  rm({"a.txt", "beach"});
  const auto deleted = [&](const Words& records) {
    return namesOf(
        json(with({"records", "--deleted", "--json", "test.qvd", "files"}, records))["deleted"]);
  };
  EXPECT_EQ(deleted({"beach/?.jpg"}), (Words{"beach/1.jpg", "beach/2.jpg"}));
  EXPECT_EQ(deleted({id, "beach/deep"}), (Words{"a.txt", "beach/deep/3.jpg"}));
  fails({"records", "--deleted", "test.qvd", "files", "17.txt"}, 1, {"no deleted record '17.txt'"});
}

// Of a file whose record is missing, as after a kill.
TEST_F(ChoosingRecords, ANameWithoutRecordIsReportedAndRemoved) {
  const std::string id = idOf("beach/1.jpg");
  {
    auto database = qvdb::Database::open(path(), qvdb::Mode::exclusive);
    ASSERT_TRUE(database.table("files").remove(*qvdb::parse_id(id)));
  }
  const Outcome outcome = run({"get", "test.qvd", "files", "beach"});
  EXPECT_EQ(outcome.status, 1);
  EXPECT_EQ(outcome.out, "<beach/2.jpg><beach/deep/3.jpg>");
  expectOneLine(outcome.err, {"1 name has no record"});
  fails({"get", "test.qvd", "files", "beach/1.jpg"}, 1, {id});
  rm({"beach"});
  fails({"get", "test.qvd", "files", "beach/1.jpg"}, 1, {"no file"});
}

TEST_F(ChoosingRecords, SeveralGoIntoOneFile) {
  done({"get", "test.qvd", "files", "beach", "-o", "out"});
  EXPECT_EQ(readFile(path("out")), bytesOf("<beach/1.jpg><beach/2.jpg><beach/deep/3.jpg>"));
}

// Texts that could reach a terminal are judged together.
TEST_F(ChoosingRecords, OfLargePayloadsArriveWhole) {
  writeFile(path("in/large"), pattern(1'000'000));
  writeFile(path("in/later"), {});
  done({"import", "test.qvd", "files", "in/large", "in/later"});
  EXPECT_EQ(get({"large", "later", "a.txt"}), pattern(1'000'000).str() + "<a.txt>");
}

TEST_F(ChoosingRecords, ManyNamesAtOnceTakeOneWalk) {
  Words all;
  fs::create_directory(path("many"));
  for (int i = 0; i < 3000; ++i) {
    const std::string name = "n" + std::to_string(i) + "[x";
    writeFile(path("many/" + name), bytesOf("x"));
    all.push_back(name);
  }
  done({"import", "test.qvd", "files", "many/"});
  EXPECT_EQ(get(all), std::string(3000, 'x'));
  rm(all);
  fails({"get", "test.qvd", "files", "n*"}, 1, {"nothing that matches"});
}

// A table without imported files has only identifiers.
TEST_F(ChoosingRecords, PatternsNeedNames) {
  const Words ids = notes({bytesOf("one"), bytesOf("two")}, "notes.qvd");
  EXPECT_EQ(done({"get", "notes.qvd", "notes", ids[1], ids[0]}), "twoone");
  fails({"rm", "notes.qvd", "notes", "*"}, 1, {"'*' is not an identifier"});
  fails({"records", "notes.qvd", "notes", "0x*"}, 1, {"is not an identifier"});
}

}  // namespace
}  // namespace qvdbase::test
