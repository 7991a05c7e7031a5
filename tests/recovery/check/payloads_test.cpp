// What the check says of payloads and their checksums, where it is asked to compare them; and what
// a salvage does with them.
#include "objects/layer_fixture.h"
#include "recovery/check/base_files.h"

namespace qvdbase::test {
namespace {

using qvdb::Checksum;
using qvdb::Id;
using qvdb::PayloadState;

class CheckedPayloads : public LayerTest {
 protected:
  // Records 1 to 5: sound, rotten, changed elsewhere, without, and deleted.
  void SetUp() override {
    LayerTest::SetUp();
    {
      auto database = createDatabase();
      auto table = database.add_table("t");
      for (uint64_t id = 1; id <= 5; ++id) {
        table.add_with_id(Id{id}, "some text", 10, id == 4 ? Checksum::no : Checksum::yes);
        at[id] = table.last()->info().position;
      }
      table.remove(Id{5});
    }
    const Bytes file = contents();
    const auto where = static_cast<size_t>(at[2]) + 55;
    patchFile(path(), where, Bytes{static_cast<uint8_t>(file[where] ^ 4)});
    const auto time = static_cast<size_t>(at[3]) + 27;
    patchFile(path(), time, Bytes().be(4, file.beAt(time, 4) + 1));
  }

  Checked checked(bool payloads) { return checkBytes(contents(), {.payloads = payloads}); }

  int64_t at[6] = {};
};

TEST_F(CheckedPayloads, AreNamedEachWithItsCode) {
  const Checked all = checked(true);
  EXPECT_EQ(all.report.state, qvdb::CheckState::damaged);
  EXPECT_EQ(all.report.payloads.verified, 1u);
  EXPECT_EQ(all.report.payloads.rotten, 1u);
  EXPECT_EQ(all.report.payloads.changed_elsewhere, 1u);
  EXPECT_EQ(all.report.payloads.unprotected, 1u);
  std::map<std::string, int64_t> places;
  for (const qvdb::Finding& finding : all.findings) {
    if (finding.code[0] == 'P') places[finding.code] = finding.offset;
  }
  EXPECT_EQ(places, (std::map<std::string, int64_t>{
                        {"P1", at[2] + 55}, {"P2", at[3] + 55}, {"P3", at[4] + 55}}));
}

TEST_F(CheckedPayloads, AreNotLookedAtUnlessThatIsAskedFor) {
  const Checked checked = this->checked(false);
  EXPECT_FALSE(checked.has("P1") || checked.has("P2") || checked.has("P3")) << checked.text();
  EXPECT_EQ(checked.report.payloads.verified, 0u);
  EXPECT_EQ(checked.report.state, qvdb::CheckState::sound) << checked.text();
  // Checksums are no older data that can still be read.
  EXPECT_EQ(checked.report.space.stale, 0u);
}

TEST_F(CheckedPayloads, AreSalvagedWithWhatTheirChecksumsSay) {
  std::map<uint64_t, std::optional<PayloadState>> states;
  const auto report = qvdb::salvage(
      path(), path("salvaged.qvd"),
      [&](const qvdb::FoundBlock& block) { states[block.record.value] = block.payload; },
      {.deleted = true});
  EXPECT_EQ(report.payloads.verified, 2u);
  EXPECT_EQ(report.payloads.rotten, 1u);
  EXPECT_EQ(report.payloads.changed_elsewhere, 1u);
  EXPECT_EQ(report.payloads.unprotected, 1u);
  EXPECT_EQ(states[1], PayloadState::verified);
  EXPECT_EQ(states[2], PayloadState::rotten);
  EXPECT_EQ(states[3], PayloadState::changed_elsewhere);
  EXPECT_EQ(states[4], PayloadState::unprotected);
  EXPECT_EQ(states[5], PayloadState::verified);
  const auto database = qvdb::Database::open(path("salvaged.qvd"));
  const auto stateOf = [&](const char* table, uint64_t id) {
    return database.table(table).find(Id{id})->verify();
  };
  EXPECT_EQ(stateOf("t", 1), PayloadState::verified);
  EXPECT_EQ(stateOf("t", 2), PayloadState::rotten);
  EXPECT_EQ(stateOf("t", 3), PayloadState::changed_elsewhere);
  EXPECT_EQ(stateOf("t", 4), PayloadState::unprotected);
  // In another table its checksum is one of that.
  EXPECT_EQ(stateOf("lost-and-found", 5), PayloadState::verified);
}

TEST_F(CheckedPayloads, LeavesOutWhatIsLeftOut) {
  std::optional<PayloadState> deleted = PayloadState::rotten;
  const auto report =
      qvdb::salvage(path(), path("salvaged.qvd"), [&](const qvdb::FoundBlock& block) {
        if (block.record == Id{5}) deleted = block.payload;
      });
  EXPECT_EQ(deleted, std::nullopt);
  EXPECT_EQ(report.payloads.verified, 1u);
}

}  // namespace
}  // namespace qvdbase::test
