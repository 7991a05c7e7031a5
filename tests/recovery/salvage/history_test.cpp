// The versions of one record, and bringing one of them back.
#include <qvdbase/qvdbase.h>
#include <unistd.h>
#include <qvdbase/qvdb/error.hpp>
#include <qvdbase/qvdb/history.hpp>

#include <fstream>
#include <span>
#include <stdexcept>

#include "kit/replaced_calls.h"
#include "recovery/salvage/salvage_kit.h"

namespace qvdbase::test {
namespace {

using qvdb::BlockLabel;
using qvdb::Id;

// A database with the records 0xA1 to 0xA3, of which the second was moved twice.
class History : public testing::Test {
 protected:
  void SetUp() override {
    db_ = CreateDBaseW(folder.wide("a.qvd"), "QVdb", 100);
    table_ = AddTable(db_, "notes");
    for (uint64_t id = 0xA1; id <= 0xA3; ++id) {
      AddRecordData_AssignRecordID(db_, table_, bytesOf("first text").data(), 10, 0, &id);
    }
    modify(bytesOf("a longer text"));
    modify(bytesOf("a text that is longer still"));
  }
  void TearDown() override {
    if (db_ != 0) CloseDBase(db_);
  }

  void modify(const Bytes& payload) {
    ASSERT_EQ(ModifyRecordData(db_, table_, payload.data(), static_cast<uint32_t>(payload.size()),
                               0xA2, nullptr),
              1);
  }
  void remove(uint64_t id) { ASSERT_EQ(DeleteOneRecord(db_, table_, id, nullptr), 1); }

  std::filesystem::path path() const { return folder / "a.qvd"; }

  std::vector<std::string> textsOf(const std::vector<qvdb::FoundBlock>& versions) const {
    std::vector<std::string> texts;
    for (const qvdb::FoundBlock& version : versions) {
      const std::vector<std::byte> payload = qvdb::read_version(path(), version);
      texts.emplace_back(reinterpret_cast<const char*>(payload.data()), payload.size());
    }
    return texts;
  }

  template <typename Call>
  static qvdb::Reason reasonOf(Call call) {
    try {
      call();
    } catch (const qvdb::Error& error) {
      return error.reason();
    }
    ADD_FAILURE() << "no error";
    return qvdb::Reason::cancelled;
  }

  ReadTable undeleted(Id record, std::optional<int64_t> offset = std::nullopt) {
    EXPECT_TRUE(qvdb::undelete(path(), folder / "b.qvd", "notes", record, offset).verified);
    const ReadDatabase database = readDatabase(folder / "b.qvd");
    std::filesystem::remove(folder / "b.qvd");
    return database.tables.at(0);
  }

  TempFolder folder;
  int16_t db_ = 0;
  uint64_t table_ = 0;
};

TEST_F(History, OfAllRecordsIsThatOfEachInTheOrderOfWriting) {
  remove(0xA3);
  std::vector<qvdb::FoundBlock> all;
  qvdb::history(path(), "notes", [&](const qvdb::FoundBlock& each) { all.push_back(each); });
  EXPECT_EQ(textsOf(all),
            (std::vector<std::string>{"first text", "first text", "first text", "a longer text",
                                      "a text that is longer still"}));
  for (const uint64_t id : {0xA1u, 0xA2u, 0xA3u}) {
    std::vector<int64_t> offsets;
    for (const auto& each : qvdb::history(path(), "notes", Id{id})) offsets.push_back(each.offset);
    std::vector<int64_t> among;
    for (const auto& each : all) {
      if (each.record == Id{id}) among.push_back(each.offset);
    }
    EXPECT_EQ(among, offsets);
  }
  EXPECT_EQ(reasonOf([&] { qvdb::history(path(), "none", [](const qvdb::FoundBlock&) {}); }),
            qvdb::Reason::table_missing);
  const auto stop = [](const qvdb::FoundBlock&) { throw std::runtime_error("enough"); };
  EXPECT_THROW(qvdb::history(path(), "notes", stop), std::runtime_error);
}

TEST_F(History, ReportsEveryVersionOldestFirst) {
  const auto versions = qvdb::history(path(), "notes", Id{0xA2});
  EXPECT_EQ(textsOf(versions), (std::vector<std::string>{"first text", "a longer text",
                                                         "a text that is longer still"}));
  ASSERT_EQ(versions.size(), 3u);
  EXPECT_EQ(versions[0].label, BlockLabel::superseded);
  EXPECT_EQ(versions[1].label, BlockLabel::superseded);
  EXPECT_EQ(versions[2].label, BlockLabel::live);
  EXPECT_EQ(qvdb::history(path(), "notes", Id{0xA1}).size(), 1u);
  EXPECT_TRUE(qvdb::history(path(), "notes", Id{0xEE}).empty());
}

TEST_F(History, TakesATableByNameOrIdentifier) {
  EXPECT_EQ(qvdb::history(path(), qvdb::to_string(Id{table_}), Id{0xA2}).size(), 3u);
  EXPECT_EQ(reasonOf([&] { qvdb::history(path(), "no such", Id{0xA2}); }),
            qvdb::Reason::table_missing);
  EXPECT_EQ(reasonOf([&] { qvdb::history(folder / "none", "notes", Id{0xA2}); }),
            qvdb::Reason::no_such_file);
}

TEST_F(History, ReportsWhatADeletedRecordWas) {
  remove(0xA2);
  const auto versions = qvdb::history(path(), "notes", Id{0xA2});
  ASSERT_EQ(versions.size(), 3u);
  EXPECT_EQ(versions[1].label, BlockLabel::superseded);
  EXPECT_EQ(versions[2].label, BlockLabel::deleted);
}

TEST_F(History, DoesNotReadAVersionThatIsNoLongerThere) {
  qvdb::FoundBlock version = qvdb::history(path(), "notes", Id{0xA2})[2];
  version.there += 1000;
  EXPECT_EQ(reasonOf([&] { qvdb::read_version(path(), version); }), qvdb::Reason::cannot_read);
  version.offset = -100;
  EXPECT_EQ(reasonOf([&] { qvdb::read_version(path(), version); }), qvdb::Reason::cannot_read);
}

using Undelete = History;

TEST_F(Undelete, BringsTheLastVersionBackAtTheEndOfItsTable) {
  remove(0xA2);
  EXPECT_EQ(contentsOf(undeleted(Id{0xA2})),
            (Contents{{0xA1, bytesOf("first text")},
                      {0xA3, bytesOf("first text")},
                      {0xA2, bytesOf("a text that is longer still")}}));
}

TEST_F(Undelete, BringsTheVersionAtAnOffsetBack) {
  remove(0xA2);
  const auto versions = qvdb::history(path(), "notes", Id{0xA2});
  EXPECT_EQ(contentsOf(undeleted(Id{0xA2}, versions[1].offset)).back(),
            (std::pair<uint64_t, Bytes>{0xA2, bytesOf("a longer text")}));
}

TEST_F(Undelete, PutsAnOlderVersionInThePlaceOfTheOneInUse) {
  const auto versions = qvdb::history(path(), "notes", Id{0xA2});
  EXPECT_EQ(contentsOf(undeleted(Id{0xA2}, versions[0].offset)),
            (Contents{{0xA1, bytesOf("first text")},
                      {0xA2, bytesOf("first text")},
                      {0xA3, bytesOf("first text")}}));
}

TEST_F(Undelete, WritesTheDataOfTheTableAsItsCallerEditsThem) {
  remove(0xA2);
  const auto copy = folder / "b.qvd";
  qvdb::undelete(path(), copy, "notes", Id{0xA2}, {},
                 [](std::span<std::byte>) { ADD_FAILURE() << "the table has no data"; });
  std::filesystem::remove(copy);
  ASSERT_EQ(SetTableData(db_, table_, bytesOf("names").data(), 5, 3), 1);
  const Bytes before = readFile(path());
  qvdb::undelete(path(), copy, "notes", Id{0xA2}, {}, [](std::span<std::byte> data) {
    ASSERT_EQ(data.size(), 5u);
    data[0] = std::byte{'g'};
  });
  const ReadTable table = readDatabase(copy).tables.at(0);
  ASSERT_TRUE(table.data);
  EXPECT_EQ(table.data->data(), bytesOf("games"));
  EXPECT_EQ(table.records.back().id, 0xA2u);
  EXPECT_EQ(readFile(path()), before);
  std::filesystem::remove(copy);
  EXPECT_THROW(qvdb::undelete(path(), copy, "notes", Id{0xA2}, {},
                              [](std::span<std::byte>) { throw std::runtime_error("no"); }),
               std::runtime_error);
  std::filesystem::remove(path());
  EXPECT_TRUE(std::filesystem::is_empty(folder.path()));
}

// A writer beside it, which adds a byte whenever the new file is written to.
TEST_F(Undelete, LeavesNothingWhenTheFileIsChangedMeanwhile) {
  remove(0xA2);
  static std::filesystem::path source;
  source = path();
  {
    ReplacedCalls calls;
    calls->writeAt = [](int descriptor, const void* bytes, size_t count, off_t position) {
      std::ofstream(source, std::ios::binary | std::ios::app) << 'x';
      return ::pwrite(descriptor, bytes, count, position);
    };
    EXPECT_EQ(reasonOf([&] { qvdb::undelete(path(), folder / "b.qvd", "notes", Id{0xA2}); }),
              qvdb::Reason::in_use);
  }
  std::filesystem::remove(path());
  EXPECT_TRUE(std::filesystem::is_empty(folder.path()));
}

TEST_F(Undelete, WantsAVersionOfARecordThatIsInUse) {
  EXPECT_EQ(reasonOf([&] { qvdb::undelete(path(), folder / "b.qvd", "notes", Id{0xA2}); }),
            qvdb::Reason::bad_argument);
  EXPECT_EQ(reasonOf([&] { qvdb::undelete(path(), folder / "b.qvd", "notes", Id{0xEE}); }),
            qvdb::Reason::record_missing);
  EXPECT_EQ(reasonOf([&] { qvdb::undelete(path(), folder / "b.qvd", "notes", Id{0xA2}, 4631); }),
            qvdb::Reason::record_missing);
  EXPECT_FALSE(std::filesystem::exists(folder / "b.qvd"));
}

}  // namespace
}  // namespace qvdbase::test
