// qvdb digest: what it depends on and what not, and what --verify names.
#include <gtest/gtest.h>
#include <qvdbase/qvdb.hpp>

#include <filesystem>
#include <fstream>
#include <string>

#include "tool/tool_fixture.h"

namespace qvdbase::test {
namespace {

using qvdb::Database;
using qvdb::Id;
using qvdb::Mode;
using qvdb::NewRecord;

// Of "abc", as every description of SHA-256 has it.
constexpr const char* kOfAbc = "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad";

class ToolDigest : public ToolTest {
 protected:
  void SetUp() override {
    ToolTest::SetUp();
    auto database = Database::create(path());
    auto table = database.add_table("notes");
    for (const uint64_t id : {1u, 2u, 3u}) {
      NewRecord record(id == 2 ? "abc" : "other", 0, Id{id});
      record.create_time = record.modify_time = 1000;
      table.add(record);
    }
    database.close();
    if (run({"digest", kDefaultFile}).err.find("without the library nettle") != std::string::npos) {
      GTEST_SKIP() << "the tool was built without nettle";
    }
  }

  // Changes the table, and returns what --verify says then.
  template <typename Change>
  std::string verifiedAfter(Change change) {
    done({"digest", "--save", kDefaultFile});
    {
      auto database = Database::open(path(), Mode::exclusive);
      auto table = database.table("notes");
      change(database, table);
    }
    const Outcome outcome = run({"digest", "--verify", kDefaultFile});
    EXPECT_EQ(outcome.status, 1) << outcome;
    EXPECT_EQ(outcome.err, "");
    return outcome.out;
  }
};

TEST_F(ToolDigest, OfARecordIsThatOfItsPayload) {
  expectOnlyRead([&] {
    const std::string all = done({"digest", "--records", kDefaultFile});
    EXPECT_NE(all.find(std::string(kOfAbc) + "  notes 0x0000000000000002\n"), std::string::npos)
        << all;
    EXPECT_EQ(std::count(all.begin(), all.end(), '\n'), 5);
    const auto parsed = json({"digest", "--records", "--json", kDefaultFile});
    EXPECT_EQ(parsed["tables"][0]["records"][1]["sha256"], kOfAbc);
    EXPECT_EQ(
        all.find(parsed["sha256"].get<std::string>() + "  " + kDefaultFile) != std::string::npos,
        true);
    EXPECT_EQ(done({"digest", "--tables", kDefaultFile}).find("  notes\n"), 64u);
  });
}

TEST_F(ToolDigest, DoesNotDependOnTheLayout) {
  {
    auto database = Database::open(path(), Mode::exclusive);
    auto table = database.table("notes");
    table.remove(table.add("dead"));
    table.set_data("data", 100);
  }
  const std::string before = done({"digest", kDefaultFile});
  done({"compact", kDefaultFile});
  EXPECT_EQ(done({"digest", kDefaultFile}), before);
  done({"load", "copy.qvd"}, done({"dump", kDefaultFile}));
  EXPECT_EQ(done({"digest", "copy.qvd"}).substr(0, 64), before.substr(0, 64));
}

TEST_F(ToolDigest, FindsNothingWhereNothingChanged) {
  done({"digest", "--save", kDefaultFile});
  EXPECT_EQ(done({"digest", "--verify", kDefaultFile}), "nothing changed\n");
  done({"compact", kDefaultFile});
  expectOnlyRead([&] { done({"digest", "--verify", kDefaultFile}); });
}

// A byte of a payload, changed in the file: nothing else would notice.
TEST_F(ToolDigest, NamesTableAndRecordOfAPayloadThatChanged) {
  done({"digest", "--save", kDefaultFile});
  Bytes file = readFile(path());
  const std::string text(file.begin(), file.end());
  file[text.find("abc")] ^= 1;
  writeFile(path(), file);
  const Outcome outcome = run({"digest", "--verify", kDefaultFile});
  EXPECT_EQ(outcome.status, 1);
  EXPECT_EQ(outcome.out, "table 'notes': record 0x0000000000000002: its payload changed\n");
}

TEST_F(ToolDigest, NamesEverythingElseThatChanged) {
  using qvdb::Table;
  EXPECT_EQ(verifiedAfter([](Database&, Table& t) { t.add_with_id(Id{4}, "x"); }),
            "table 'notes': record 0x0000000000000004: is new\n");
  EXPECT_EQ(verifiedAfter([](Database&, Table& t) { t.remove(Id{4}); }),
            "table 'notes': record 0x0000000000000004: is missing\n");
  EXPECT_EQ(verifiedAfter([](Database&, Table& t) { t.touch(Id{1}); }),
            "table 'notes': record 0x0000000000000001: its times changed\n");
  EXPECT_EQ(verifiedAfter([](Database&, Table& t) { t.set_data("x"); }),
            "table 'notes': its name, version, flags or data changed\n");
  EXPECT_EQ(verifiedAfter([](Database& d, Table&) { d.add_table("more"); }),
            "table 'more': the table is new\n");
  EXPECT_EQ(verifiedAfter([](Database& d, Table&) { d.set_version(150); }),
            "the header, or the order of the tables, changed\n");
}

TEST_F(ToolDigest, RefusesWrongUsageAndBadFiles) {
  fails({"digest", "--save", "--verify", kDefaultFile}, 2, {"exclude"});
  fails({"digest", "--save", "--json", kDefaultFile}, 2, {"cannot be combined"});
  fails({"digest", "missing.qvd"}, 1, {"missing.qvd"});
  fails({"digest", "--verify", kDefaultFile}, 1, {"test.qvd.sha256"});
  done({"digest", "--save", kDefaultFile});
  Bytes saved = readFile(path("test.qvd.sha256"));
  writeFile(path("test.qvd.sha256"), saved.cut(saved.size() - 40));
  fails({"digest", "--verify", kDefaultFile}, 1,
        {"test.qvd.sha256: line 6: ", "the rest is missing"});
  writeFile(path("test.qvd.sha256"), bytesOf("{}\n"));
  fails({"digest", "--verify", kDefaultFile}, 1, {"test.qvd.sha256: line 1"});
}

}  // namespace
}  // namespace qvdbase::test
