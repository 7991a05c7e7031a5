// qvdb diff and qvdb patch: what is reported, and that a patch makes of the one database the other.
#include <gtest/gtest.h>
#include <qvdbase/qvdb.hpp>

#include <filesystem>
#include <functional>
#include <random>
#include <string>
#include <vector>

#include "kit/file_reader.h"
#include "kit/random_seed.h"
#include "tool/tool_fixture.h"

namespace qvdbase::test {
namespace {

namespace fs = std::filesystem;
using qvdb::Database;
using qvdb::Id;
using qvdb::Mode;
using qvdb::NewRecord;
using qvdb::Table;

class ToolDiff : public ToolTest {
 protected:
  static void add(Table& table, uint64_t id, const std::string& payload) {
    NewRecord record(payload, 0, Id{id});
    record.create_time = record.modify_time = 1000;
    table.add(record);
  }

  // a.qvd with records 1 to 4, and b.qvd: a copy that was changed.
  void make(const std::function<void(Database&, Table&)>& change) {
    fs::remove(path("a.qvd"));
    fs::remove(path("b.qvd"));
    {
      auto database = Database::create(path("a.qvd"));
      auto table = database.add_table("notes");
      for (const uint64_t id : {1u, 2u, 3u, 4u}) add(table, id, "text");
      table.set_data("data");
    }
    fs::copy_file(path("a.qvd"), path("b.qvd"));
    auto database = Database::open(path("b.qvd"), Mode::exclusive);
    auto table = database.table("notes");
    change(database, table);
  }

  std::string diff(int status = 1) {
    const Outcome outcome = run({"diff", "a.qvd", "b.qvd"});
    EXPECT_EQ(outcome.status, status) << outcome;
    EXPECT_EQ(outcome.err, "");
    return outcome.out;
  }

  // Everything but capacities and counters: SHA-256 may be missing, and these may differ.
  static std::vector<std::string> contentOf(const fs::path& file) {
    std::vector<std::string> content;
    const auto database = Database::open(file);
    content.push_back(to_string(database.info().id) + std::to_string(database.info().version));
    for (const Table& table : database.tables()) {
      const auto info = table.info();
      const auto data = table.data();
      content.push_back(
          info.name + to_string(info.id) + std::to_string(info.flags_1) +
          (data ? std::string(reinterpret_cast<const char*>(data->data()), data->size()) : "-"));
      for (const qvdb::Record& record : table.records()) {
        const auto payload = record.payload();
        content.push_back(
            to_string(record.id()) + " " + std::to_string(record.info().create_time) + " " +
            std::to_string(record.info().modify_time) + " " +
            std::string(reinterpret_cast<const char*>(payload.data()), payload.size()));
      }
    }
    return content;
  }

  // A patch of a.qvd to b.qvd, applied to a copy of a.qvd.
  void expectPatched() {
    const Outcome patch = run({"diff", "--patch", "a.qvd", "b.qvd"});
    ASSERT_LE(patch.status, 1) << patch.err;
    ASSERT_GE(patch.status, 0);
    fs::copy_file(path("a.qvd"), path("c.qvd"), fs::copy_options::overwrite_existing);
    done({"patch", "c.qvd"}, patch.out);
    EXPECT_EQ(contentOf(path("c.qvd")), contentOf(path("b.qvd"))) << patch.out;
    EXPECT_EQ(run({"diff", "c.qvd", "b.qvd"}).status, 0);
    expectNothingLeft();
  }

  void expectNothingLeft() {
    for (const auto& entry : fs::directory_iterator(folder.path())) {
      EXPECT_FALSE(entry.path().filename().native().starts_with(".qvdb-")) << entry.path();
    }
  }
};

TEST_F(ToolDiff, FindsNothingInACopyOfAnotherLayout) {
  make([](Database&, Table& table) { table.remove(table.add("dead")); });
  done({"compact", "b.qvd"});
  EXPECT_EQ(diff(0), "");
  EXPECT_EQ(run({"diff", "--json", "a.qvd", "b.qvd"}).out, "");
  expectPatched();
}

TEST_F(ToolDiff, NamesEachKindOfChange) {
  make([](Database& database, Table& table) {
    table.remove(Id{1});
    table.modify(Id{2}, "longer text");
    table.touch(Id{3});
    add(table, 5, "new");
    table.set_data("other data");
    database.add_table("more");
    database.set_version(150);
  });
  EXPECT_EQ(diff(),
            "~ header: version\n"
            "~ table 'notes': data\n"
            "- notes 0x0000000000000001: 4 bytes\n"
            "~ notes 0x0000000000000002: payload, 4 -> 11 bytes; times\n"
            "~ notes 0x0000000000000003: times\n"
            "+ notes 0x0000000000000005: 3 bytes\n"
            "+ table 'more'\n");
  std::vector<std::string> changes;
  std::istringstream lines(run({"diff", "--json", "a.qvd", "b.qvd"}).out);
  for (std::string line; std::getline(lines, line);) {
    changes.push_back(parsedJson(line)["change"]);
  }
  EXPECT_EQ(changes, (std::vector<std::string>{"header", "table_changed", "removed", "changed",
                                               "changed", "added", "table_added"}));
  expectPatched();
}

TEST_F(ToolDiff, FindsTheFewestRecordsThatMoved) {
  make([](Database&, Table& table) {
    table.remove(Id{1});
    add(table, 1, "text");
  });
  EXPECT_EQ(diff(), "> notes 0x0000000000000001: after 0x0000000000000004\n");
  expectPatched();
}

TEST_F(ToolDiff, TakesTablesOfOneNameForTheSame) {
  make([](Database&, Table&) {});
  fs::remove(path("b.qvd"));
  auto database = Database::create(path("b.qvd"));
  auto table = database.add_table("notes");
  for (const uint64_t id : {1u, 2u, 3u, 4u}) add(table, id, "text");
  database.close();
  EXPECT_EQ(diff(), "~ header: identifier\n~ table 'notes': identifier, data\n");
  expectPatched();
}

TEST_F(ToolDiff, PatchesTablesThatAreGoneAndLongPayloads) {
  make([](Database& database, Table& table) {
    table.modify(Id{4}, std::string(3'000'000, 'x'));
    auto more = database.add_table("more");
    add(more, 1, std::string(2'000'000, '\xFF'));
    more.set_data(std::string(2'000'000, 'd'));
  });
  expectPatched();
  fs::rename(path("a.qvd"), path("x"));
  fs::rename(path("b.qvd"), path("a.qvd"));
  fs::rename(path("x"), path("b.qvd"));
  EXPECT_NE(diff().find("- table 'more', 1 record\n"), std::string::npos);
  expectPatched();
}

TEST_F(ToolDiff, PatchesRandomChanges) {
  std::mt19937_64 random(randomSeed());
  for (int round = 0; round < 8; ++round) {
    make([&](Database&, Table& table) {
      for (uint64_t id = 10; id < 30; ++id) add(table, id, "b");
    });
    fs::copy_file(path("b.qvd"), path("a.qvd"), fs::copy_options::overwrite_existing);
    {
      auto database = Database::open(path("b.qvd"), Mode::exclusive);
      auto table = database.table("notes");
      for (int i = 0; i < 15; ++i) {
        const Id id{10 + random() % 25};
        if (random() % 3 == 0) table.modify(id, std::string(random() % 9, 'm'));
        if (random() % 2 == 0 && table.remove(id) && random() % 2 == 0) add(table, id.value, "b");
        if (!table.contains(id) && random() % 2 == 0) add(table, id.value, "n");
      }
    }
    expectPatched();
  }
}

TEST_F(ToolDiff, APatchMustFitOrNothingChanges) {
  make([](Database&, Table& table) {
    table.remove(Id{1});
    table.modify(Id{2}, "two");
    add(table, 5, "five");
  });
  const std::string patch = run({"diff", "--patch", "a.qvd", "b.qvd"}).out;
  const auto refused = [&](const std::function<void(Table&)>& change, const std::string& why) {
    fs::copy_file(path("a.qvd"), path("c.qvd"), fs::copy_options::overwrite_existing);
    {
      auto database = Database::open(path("c.qvd"), Mode::exclusive);
      auto table = database.table("notes");
      change(table);
    }
    const Bytes before = readFile(path("c.qvd"));
    fails({"patch", "c.qvd"}, 1, {"standard input: line ", "does not fit", why}, patch);
    EXPECT_EQ(readFile(path("c.qvd")), before);
    expectNothingLeft();
  };
  refused([](Table& t) { t.modify(Id{1}, "x"); }, "has another payload");
  refused([](Table& t) { t.modify(Id{2}, "x"); }, "has another payload");
  refused([](Table& t) { t.remove(Id{2}); }, "no record 0x0000000000000002");
  refused([](Table& t) { t.remove(Id{4}); }, "no record 0x0000000000000004");
  refused([](Table& t) { add(t, 5, "x"); }, "has a record 0x0000000000000005 already");

  fs::copy_file(path("a.qvd"), path("c.qvd"), fs::copy_options::overwrite_existing);
  const auto bad = [&](const std::string& text, const std::string& why) {
    const Bytes before = readFile(path("c.qvd"));
    fails({"patch", "c.qvd"}, 1, {why}, text);
    EXPECT_EQ(readFile(path("c.qvd")), before);
    expectNothingLeft();
  };
  bad("", "the patch ends before its last line");
  bad("{}\n", "a patch begins with");
  bad(patch.substr(0, patch.size() - 16), "");
  bad(patch + "{}\n", "nothing may follow");
  const size_t afterTable = patch.find('\n', patch.find("\"table\"")) + 1;
  const std::string withData =
      R"({"op":"data","was":"3a6eb0790f39ac87c94f3856b2dd2c5d110e6811602261a9a923d3bb23adc8b7",)"
      R"("capacity":1,"text":"abc"})"
      "\n";
  bad(patch.substr(0, afterTable) + withData, "\"capacity\" is less than the size");
  // Changed elsewhere, it fits.
  {
    auto database = Database::open(path("c.qvd"), Mode::exclusive);
    auto table = database.table("notes");
    table.modify(Id{3}, "elsewhere");
  }
  EXPECT_EQ(done({"patch", "c.qvd"}, patch), "3 records added, changed, removed or moved\n");
  EXPECT_EQ(readDatabase(path("c.qvd")).tables.at(0).records.size(), 4u);
  fails({"patch", "c.qvd"}, 1, {"does not fit"}, patch);
}

TEST_F(ToolDiff, APatchIsNotAppliedToADatabaseInUse) {
  make([](Database&, Table& table) { table.touch(Id{1}); });
  const std::string patch = run({"diff", "--patch", "a.qvd", "b.qvd"}).out;
  const auto writer = Database::open(path("a.qvd"), Mode::exclusive);
  fails({"patch", "a.qvd"}, 3, {"a.qvd"}, patch);
}

TEST_F(ToolDiff, HasStatusTwoForTrouble) {
  make([](Database&, Table&) {});
  fails({"diff", "a.qvd", "missing.qvd"}, 2, {"missing.qvd"});
  fails({"diff", "--json", "--patch", "a.qvd", "b.qvd"}, 2, {"exclude"});
  fails({"diff", "a.qvd"}, 2, {"B"});
  fails({"patch", "missing.qvd"}, 1, {"missing.qvd"}, "{}\n");
}

}  // namespace
}  // namespace qvdbase::test
