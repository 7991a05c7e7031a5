// Compacting files whose records have checksums, and giving them to those that have none.
#include "objects/layer_fixture.h"

namespace qvdbase::test {
namespace {

using qvdb::Checksum;
using qvdb::Id;
using qvdb::PayloadState;

class ProtectedFile : public LayerTest {
 protected:
  // Each size without and with a checksum, tight and with spare bytes; also blocks that a
  // compaction copies piece by piece.
  void SetUp() override {
    LayerTest::SetUp();
    auto database = createDatabase();
    auto table = database.add_table("t");
    uint64_t id = 1;
    for (const size_t size : kSizes) {
      for (const uint32_t reserve :
           {uint32_t{0}, static_cast<uint32_t>(size) + 27, static_cast<uint32_t>(size) + 28}) {
        if (size > 1000 && reserve != 0) continue;
        for (const Checksum checksum : {Checksum::no, Checksum::yes}) {
          table.add_with_id(Id{id}, span(pattern(size, static_cast<unsigned>(id))), reserve,
                            checksum);
          if (checksum == Checksum::yes) withChecksum_.insert(id);
          ++id;
        }
      }
    }
    table.set_data("data");
    table.remove(table.add("dead"));
    records_ = id - 1;
  }

  void breakRecord(uint64_t id, size_t offset) {
    const auto position = openDatabase().table("t").find(Id{id})->info().position;
    const auto at = static_cast<size_t>(position) + offset;
    patchFile(path(), at, Bytes{static_cast<uint8_t>(contents()[at] ^ 1)});
  }

  PayloadState stateOf(const std::string& name, uint64_t id) {
    return openDatabase(qvdb::Mode::read_only, name).table("t").find(Id{id})->verify();
  }

  // The payloads, times and order are those of the source.
  void expectSameRecords(const std::string& name) {
    const auto source = openDatabase(qvdb::Mode::read_only);
    const auto copy = openDatabase(qvdb::Mode::read_only, name);
    EXPECT_EQ(idsOf(copy.table("t")), idsOf(source.table("t")));
    EXPECT_EQ(bytes(copy.table("t").data()), bytesOf("data"));
    for (uint64_t id = 1; id <= records_; ++id) {
      const auto from = source.table("t").find(Id{id});
      const auto to = copy.table("t").find(Id{id});
      ASSERT_EQ(to->size(), from->size());
      EXPECT_EQ(to->info().create_time, from->info().create_time);
      EXPECT_EQ(to->info().modify_time, from->info().modify_time);
      std::vector<std::byte> one(from->size());
      std::vector<std::byte> other(from->size() + 1);  // not compared with the checksum
      for (size_t half = 0; half < one.size(); half += one.size() / 2 + 1) {
        const size_t count = std::min(one.size() - half, one.size() / 2 + 1);
        from->read(half, std::span(one).subspan(half, count));
        to->read(half, std::span(other).subspan(half, count));
      }
      other.pop_back();
      EXPECT_EQ(one, other) << id;
    }
  }

  static constexpr size_t kSizes[] = {0, 9, 1000, (size_t{1} << 20) - 200, (size_t{1} << 20) + 100};
  std::set<uint64_t> withChecksum_;
  uint64_t records_ = 0;
};

TEST_F(ProtectedFile, IsCompactedWithItsChecksumsAsTheyAre) {
  breakRecord(2, 27);  // changed elsewhere
  breakRecord(8, 60);  // rotten, like the largest
  breakRecord(22, 60);
  const auto report = qvdb::compact(path(), path("copy.qvd"));
  EXPECT_EQ(report.checksums_made, 0u);
  expectSameRecords("copy.qvd");
  for (uint64_t id = 1; id <= records_; ++id) {
    EXPECT_EQ(stateOf("copy.qvd", id), stateOf(kDefaultFile, id)) << id;
  }
  EXPECT_EQ(stateOf("copy.qvd", 2), PayloadState::changed_elsewhere);
  EXPECT_EQ(stateOf("copy.qvd", 8), PayloadState::rotten);
  EXPECT_EQ(stateOf("copy.qvd", 22), PayloadState::rotten);
}

TEST_F(ProtectedFile, GetsTheChecksumsThatItLacks) {
  breakRecord(2, 27);
  breakRecord(8, 60);
  const auto report = qvdb::compact(path(), path("copy.qvd"), {}, {.protect = true});
  EXPECT_EQ(report.checksums_made, records_ - withChecksum_.size());
  EXPECT_EQ(report.records, records_);
  expectSameRecords("copy.qvd");
  for (uint64_t id = 1; id <= records_; ++id) {
    const PayloadState expected = id == 2   ? PayloadState::changed_elsewhere
                                  : id == 8 ? PayloadState::rotten
                                            : PayloadState::verified;
    EXPECT_EQ(stateOf("copy.qvd", id), expected) << id;
  }
  // With 28 bytes to spare, the capacity stays.
  const auto database = openDatabase(qvdb::Mode::read_only, "copy.qvd");
  const auto copy = database.table("t");
  EXPECT_EQ(copy.find(Id{7})->info().capacity, 9u + 32u);
  EXPECT_EQ(copy.find(Id{9})->info().capacity, 9u + 27u + 32u);
  EXPECT_EQ(copy.find(Id{11})->info().capacity, 9u + 28u);
}

// They lie together in the source, and have become larger in the copy.
TEST_F(ProtectedFile, HasBlocksThatNoLongerLieAsTheyDid) {
  for (const auto& checksums :
       {std::vector{Checksum::no, Checksum::yes}, std::vector{Checksum::no, Checksum::no},
        std::vector{Checksum::yes, Checksum::no, Checksum::yes}}) {
    std::filesystem::remove(path("few.qvd"));
    std::vector<Id> ids;
    {
      auto database = createDatabase("few.qvd");
      auto table = database.add_table("t");
      for (const Checksum checksum : checksums) ids.push_back(table.add("some text", checksum));
    }
    qvdb::compact(path("few.qvd"), {}, {.protect = true});
    for (const Id id : ids) EXPECT_EQ(stateOf("few.qvd", id.value), PayloadState::verified);
  }
}

TEST_F(ProtectedFile, TakesChangedRecordsAsTheyAreWhereThatIsAskedFor) {
  breakRecord(2, 27);
  breakRecord(8, 60);
  qvdb::compact(path(), {}, {.protect = true, .accept_changes = true});
  EXPECT_EQ(stateOf(kDefaultFile, 2), PayloadState::verified);
  EXPECT_EQ(stateOf(kDefaultFile, 8), PayloadState::rotten);
  const auto again = qvdb::compact(path(), {}, {.protect = true, .accept_changes = true});
  EXPECT_EQ(again.checksums_made, 0u);
  EXPECT_EQ(again.size_after, again.size_before);
}

TEST_F(ProtectedFile, GetsThemThroughTheHandleThatHasItOpen) {
  breakRecord(8, 60);
  {
    auto database = openDatabase();
    const auto table = database.table("t");
    const auto found = table.find(Id{1});
    const auto report = database.compact({}, {.protect = true});
    EXPECT_EQ(report.records, records_);
    EXPECT_EQ(report.checksums_made, records_ - withChecksum_.size());
    EXPECT_EQ(found->verify(), PayloadState::verified);
    for (uint64_t id = 1; id <= records_; ++id) {
      EXPECT_EQ(table.find(Id{id})->verify(),
                id == 8 ? PayloadState::rotten : PayloadState::verified)
          << id;
    }
    EXPECT_EQ(database.compact({}, {.protect = true}).checksums_made, 0u);
  }
  EXPECT_EQ(stateOf(kDefaultFile, 1), PayloadState::verified);
  EXPECT_EQ(stateOf(kDefaultFile, 8), PayloadState::rotten);
  EXPECT_EQ(qvdb::check(path()).errors, 0u);
}

}  // namespace
}  // namespace qvdbase::test
