// compact, pack and renumber refuse what a copy would leave behind and a salvage would not.
#include <filesystem>

#include "kit/maintenance_fixture.h"
#include "kit/old_file.h"
#include "kit/test_extent.h"
#include "objects/layer_fixture.h"
#include "recovery/salvage/salvage_kit.h"

namespace qvdbase::test {
namespace {

using qvdb::Reason;

class RefusedCopies : public LayerTest {
 protected:
  RefusedCopies() {
    allowDamage(kSource);
    allowDamage(kTarget);
  }
};

// The flipped bit hides the table; every chain that is left is whole.
TEST_F(RefusedCopies, SayHowManyRecordsWouldGo) {
  FileImage image;
  image.addTable("QVrz_Category", 0x505);
  const size_t table = image.addTable("notes", 0x11);
  for (uint64_t i = 0; i < 10; ++i) image.addRecord(table, 0xA1 + i, pattern(20));
  const Bytes bytes = image.build().with(16, hex("0001"));
  writeFile(path(kSource), bytes);
  const auto expectRefusal = [&](const std::function<void()>& operation) {
    const std::string message = expectError(Reason::damaged, operation);
    EXPECT_NE(message.find("10 records would be lost"), std::string::npos) << message;
    EXPECT_EQ(contents(kSource), bytes);
    EXPECT_EQ(names(), std::vector<std::string>{kSource});
  };
  expectRefusal([&] { qvdb::compact(path(kSource)); });
  expectRefusal([&] { qvdb::compact(path(kSource), {}, {.dry_run = true}); });
  expectRefusal([&] { qvdb::pack(path(kSource), path(kTarget)); });
  expectRefusal([&] { qvdb::renumber(path(kSource), path(kTarget)); });
  EXPECT_EQ(qvdb::pack(path(kSource), path(kTarget), {}, {.force = true}).records_lost, 10u);
  EXPECT_EQ(qvdb::compact(path(kSource), {}, {.force = true}).records_lost, 10u);
}

TEST_F(RefusedCopies, NameTheFirstError) {
  FileImage image;
  image.addRecord(image.addTable("notes", 0x11), 0xA1, bytesOf("first"));
  writeFile(path(kSource), image.build().with(14, hex("FFFF")));
  const std::string message = expectError(Reason::damaged, [&] { qvdb::compact(path(kSource)); });
  EXPECT_NE(message.find("1 error (H4: The sum of the database identifier is wrong)"),
            std::string::npos)
      << message;
}

TEST_F(RefusedCopies, CarryTableDataThatAPackHasMoved) {
  LivelyDatabase lively;
  writeFile(path(kSource), lively.packed().build());
  const qvdb::CompactReport report = qvdb::compact(path(kSource), path(kTarget));
  EXPECT_EQ(report.data_blocks, 2u);
  const qvdb::Database compacted = qvdb::Database::open(path(kTarget));
  EXPECT_EQ(bytes(compacted.table("one").data()), bytesOf("data of one"));
  EXPECT_FALSE(qvdb::mend(path(kSource)).steps.empty());
  EXPECT_EQ(bytes(qvdb::Database::open(path(kSource)).table("one").data()), bytesOf("data of one"));
}

// Every single flipped bit of a small file: a compaction refuses, or has all that salvage finds.
TEST_F(RefusedCopies, LoseNothingThatSalvageFindsWhicheverBitIsFlipped) {
  FileImage image;
  const size_t notes = image.addTable("notes", 0x1101);
  const size_t other = image.addTable("other", 0x2202);
  image.setTableData(notes, bytesOf("what it is about"));
  for (uint64_t i = 0; i < 4; ++i) image.addRecord(notes, 0xA1 + i, pattern(20 + i));
  image.addRecord(other, 0xB1, bytesOf("elsewhere"));
  const Bytes sound = image.build();
  std::vector<size_t> places;
  for (size_t i = 0; i < 22 + 3 * kSlotBytes; ++i) places.push_back(i);
  for (size_t i = 4630; i < sound.size(); ++i) places.push_back(i);
  const size_t step = testEverything() ? 1 : 13;
  size_t compacted = 0;
  for (size_t bit = 0; bit < places.size() * 8 && !HasFailure(); bit += step) {
    SCOPED_TRACE("bit " + std::to_string(bit % 8) + " of byte " + std::to_string(places[bit / 8]));
    Bytes bytes = sound;
    bytes[places[bit / 8]] ^= static_cast<uint8_t>(1u << (bit % 8));
    std::filesystem::remove(path(kSource));
    std::filesystem::remove(path(kTarget));
    writeFile(path(kSource), bytes);
    makeOld(path(kSource));
    try {
      qvdb::compact(path(kSource), path(kTarget));
    } catch (const qvdb::Error&) {
      continue;
    }
    ++compacted;
    const auto had = takenRecords(bytes);
    const auto has = recordsOf(readDatabase(path(kTarget)));
    EXPECT_EQ(has, had);
  }
  EXPECT_GT(compacted, 0u);
}

}  // namespace
}  // namespace qvdbase::test
