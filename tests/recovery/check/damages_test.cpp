// A corrupter: one function for each kind of damage, applied to three files. The check must name
// each, must blame nothing that the damage does not explain, and must account for every byte.
#include <gtest/gtest.h>

#include <functional>

#include "kit/test_extent.h"
#include "recovery/check/base_files.h"

namespace qvdbase::test {
namespace {

// One damage at work on one file.
class Corrupter {
 public:
  explicit Corrupter(const BaseFile& base)
      : base_(base), bytes(base.bytes), read_(readDatabase(base.bytes)) {}

  size_t slot(size_t field) const { return slotOffset(base_.target) + field; }
  size_t emptySlot(size_t field) const { return slotOffset(base_.empty) + field; }
  size_t freeSlot(size_t field) const { return slotOffset(base_.tables) + field; }
  // A record of the target table, by its place in the chain; negative from the end.
  size_t record(int index, size_t field = 0) const {
    const auto& records = read_.tables[base_.target].records;
    const auto i =
        index < 0 ? records.size() + static_cast<size_t>(index) : static_cast<size_t>(index);
    return static_cast<size_t>(records.at(i).position) + field;
  }
  size_t recordCapacity(int index) const { return bytes.beAt(record(index, 51), 4); }
  size_t otherRecord() const {
    return static_cast<size_t>(read_.tables[base_.other].records.at(0).position);
  }
  size_t data(size_t field = 0) const {
    return static_cast<size_t>(read_.tables[base_.target].slot.firstDataPos) + field;
  }
  size_t dataCapacity() const { return bytes.beAt(data(17), 4); }

  void flip(size_t offset) { bytes.at(offset) ^= 0x55; }
  void link(size_t offset, uint64_t position) { bytes.putBe(offset, 8, position); }
  void slotLink(size_t field, uint64_t position) { bytes.putLe(slot(field), 8, position); }

  const BaseFile& base_;
  Bytes bytes;

 private:
  ReadDatabase read_;
};

struct Damage {
  const char* name;
  const char* code;
  std::function<void(Corrupter&)> apply;
  // Errors that may come with it. (Warnings and information may be anything.)
  std::set<std::string> consequences;
  bool isDeep = false;  // only a look into payloads shows it
};

constexpr size_t kNext = 39;
constexpr size_t kPrev = 31;
constexpr uint64_t kFarAway = uint64_t{1} << 40;
constexpr uint64_t kNegative = 0xFFFFFFFFFFFFFF00;
const std::set<std::string> kBrokenChain = {"R5", "R10"};
const std::set<std::string> kAnything = {"D1", "D2", "D3", "D6", "D7", "R1", "R2",
                                         "R3", "R5", "R9", "T1", "T2", "T3", "S1"};

// A database to be stored as a payload.
Bytes storedDatabase() {
  FileImage image;
  const size_t table = image.addTable("stored", 0x4411);
  image.addRecord(table, 0x901, pattern(30));
  return image.build();
}

// A record of the target table with a new identifier, which holds `payload`.
Bytes recordAround(const Bytes& payload, const Corrupter& c) {
  RecordFields record;
  record.tableID = c.bytes.at(c.slot(6), 10);
  record.recordID = identifier(0x98765);
  record.createTime = record.modifyTime = 1000;
  record.room = payload;
  record.dataLength = record.dataCapacity = static_cast<uint32_t>(payload.size());
  return record.encode();
}

const Damage kDamages[] = {
    {"Empty", "F1", [](Corrupter& c) { c.bytes.clear(); }, {}},
    {"CutInHeader", "F2", [](Corrupter& c) { c.bytes.resize(17); }, {}},
    {"CutInDirectory", "F2", [](Corrupter& c) { c.bytes.resize(1000); }, kAnything},
    {"CutAfterDirectory",
     "D7",
     [](Corrupter& c) { c.bytes.resize(4630); },
     {"R5", "T1", "R7", "D7"}},
    {"CutInLastRecord",
     "R12",
     [](Corrupter& c) { c.bytes.resize(c.record(-1, 56 + c.recordCapacity(-1) / 2)); },
     {"D7", "R1", "R5", "R10", "T1", "T4"}},

    {"FirstLetter", "H1", [](Corrupter& c) { c.bytes[0] = 'X'; }, {}},
    {"SecondLetter", "H1", [](Corrupter& c) { c.bytes[1] = 'X'; }, {}},
    {"LettersReversed", "H1", [](Corrupter& c) { std::swap(c.bytes[0], c.bytes[1]); }, {}},
    {"VersionBelow", "H2", [](Corrupter& c) { c.bytes.putBe(4, 2, 99); }, {}},
    {"VersionAbove", "H2", [](Corrupter& c) { c.bytes.putBe(4, 2, 200); }, {}},
    {"UnfinishedPack", "H3", [](Corrupter& c) { c.bytes.putBe(4, 2, 101); }, {}},
    {"DatabaseSum", "H4", [](Corrupter& c) { c.flip(15); }, {}},
    {"DatabaseZero", "H4", [](Corrupter& c) { c.bytes = c.bytes.with(6, Bytes().zeros(10)); }, {}},
    {"NegativeTableCount", "H5", [](Corrupter& c) { c.bytes.putBe(16, 2, 0xFFFF); }, {"D2"}},
    {"TooManyTables", "H5", [](Corrupter& c) { c.bytes.putBe(16, 2, 40); }, {"D1"}},
    {"SlotCount", "H6", [](Corrupter& c) { c.bytes.putBe(18, 2, 31); }, {}},
    {"SlotCountHuge", "H6", [](Corrupter& c) { c.bytes.putBe(18, 2, 0xFFFF); }, {}},
    {"SlotSizeSmall", "H6", [](Corrupter& c) { c.bytes.putBe(20, 2, 143); }, {}},
    {"SlotSizeLarge", "H6", [](Corrupter& c) { c.bytes.putBe(20, 2, 160); }, {}},

    {"SlotMark", "D1", [](Corrupter& c) { c.flip(c.slot(0)); }, {}},
    {"SlotEndMark", "D1", [](Corrupter& c) { c.flip(c.slot(136)); }, {}},
    {"BothSlotMarks",
     "D1",
     [](Corrupter& c) {
       c.flip(c.slot(0));
       c.flip(c.slot(136));
     },
     {}},
    {"TableNotCounted", "D2", [](Corrupter& c) { c.bytes.putBe(16, 2, c.base_.target); }, {"D2"}},
    {"FreeSlotMarked", "D2", [](Corrupter& c) { c.bytes[c.freeSlot(0)] = 151; }, {}},
    {"AddTableCutShort",
     "D2",
     [](Corrupter& c) {
       SlotFields slot;
       slot.tableID = identifier(0x123456);
       slot.tableName = bytesOf("new");
       c.bytes = c.bytes.with(c.freeSlot(0), slot.encode());
     },
     {}},
    {"TableSum",
     "D3",
     [](Corrupter& c) { c.flip(c.slot(15)); },
     {"R3", "R5", "T2", "T3", "D7", "S8"}},
    {"TableZero",
     "D3",
     [](Corrupter& c) { c.bytes = c.bytes.with(c.slot(6), Bytes().zeros(10)); },
     {"R3", "R5", "T2", "D7", "S8"}},
    {"TableTwice",
     "D3",
     [](Corrupter& c) {
       c.bytes = c.bytes.with(c.emptySlot(0), c.bytes.at(c.slot(0), kSlotBytes));
     },
     {"R3"}},
    {"NoName",
     "D4",
     [](Corrupter& c) { c.bytes = c.bytes.with(c.slot(16), Bytes().zeros(32)); },
     {}},
    {"NameTwice",
     "D4",
     [](Corrupter& c) { c.bytes = c.bytes.with(c.emptySlot(16), c.bytes.at(c.slot(16), 32)); },
     {}},
    {"NameUnterminated",
     "D4",
     [](Corrupter& c) { c.bytes = c.bytes.with(c.emptySlot(16), Bytes().fill(32, 'n')); },
     {}},
    {"BytesAfterName", "D4", [](Corrupter& c) { c.bytes[c.slot(16 + 30)] = 'x'; }, {}},
    {"ControlInName", "D4", [](Corrupter& c) { c.bytes[c.slot(16)] = 7; }, {}},
    {"GroupSize", "D5", [](Corrupter& c) { c.flip(c.slot(2)); }, {}},
    {"SlotFiller", "D5", [](Corrupter& c) { c.flip(c.slot(138)); }, {}},
    {"TableVersion", "D5", [](Corrupter& c) { c.flip(c.slot(4)); }, {}},
    {"CountZero", "D6", [](Corrupter& c) { c.bytes.putLe(c.slot(60), 4, 0); }, {}},
    {"FirstZero", "D6", [](Corrupter& c) { c.slotLink(72, 0); }, {"R5", "R10"}},
    {"LastZero", "D6", [](Corrupter& c) { c.slotLink(88, 0); }, {"R7"}},
    {"LastWrittenInEmptyTable",
     "D6",
     [](Corrupter& c) { c.bytes.putLe(c.emptySlot(80), 8, 4630); },
     {}},
    {"FirstBeyondEnd", "D7", [](Corrupter& c) { c.slotLink(72, kFarAway); }, kBrokenChain},
    {"FirstNegative", "D7", [](Corrupter& c) { c.slotLink(72, kNegative); }, kBrokenChain},
    {"FirstInDirectory", "D7", [](Corrupter& c) { c.slotLink(72, 22); }, kBrokenChain},
    {"FirstInsideBlock", "D7", [](Corrupter& c) { c.slotLink(72, c.record(2) + 3); }, kBrokenChain},
    {"LastBeyondEnd", "D7", [](Corrupter& c) { c.slotLink(88, kFarAway); }, {"R7"}},
    {"LastInsideBlock", "D7", [](Corrupter& c) { c.slotLink(88, c.record(2) + 3); }, {"R7"}},
    {"LastWrittenBeyondEnd", "D7", [](Corrupter& c) { c.slotLink(80, kFarAway); }, {}},
    {"CountAboveWritten", "D8", [](Corrupter& c) { c.bytes.putLe(c.slot(64), 4, 1); }, {}},
    {"DataCount", "D9", [](Corrupter& c) { c.bytes.putLe(c.slot(100), 4, 0); }, {}},
    {"DataPositionsDiffer", "D9", [](Corrupter& c) { c.slotLink(128, 5000); }, {}},
    {"FreeSlot", "D10", [](Corrupter& c) { c.flip(c.freeSlot(60)); }, {}},

    {"NextBeyondEnd", "R1", [](Corrupter& c) { c.link(c.record(2, kNext), kFarAway); },
     kBrokenChain},
    {"NextNegative", "R1", [](Corrupter& c) { c.link(c.record(2, kNext), kNegative); },
     kBrokenChain},
    {"NextInHeader", "R1", [](Corrupter& c) { c.link(c.record(2, kNext), 100); }, kBrokenChain},
    {"NextInsideBlock", "R1", [](Corrupter& c) { c.link(c.record(2, kNext), c.record(3) + 5); },
     kBrokenChain},
    {"PrevInsideBlock",
     "R1",
     [](Corrupter& c) { c.link(c.record(2, kPrev), c.record(0) + 5); },
     {"R8"}},
    {"RecordMark", "R2", [](Corrupter& c) { c.flip(c.record(2)); }, kBrokenChain},
    {"RecordHeaderSize", "R2", [](Corrupter& c) { c.flip(c.record(2, 2)); }, kBrokenChain},
    {"NextIsTableData", "R2", [](Corrupter& c) { c.link(c.record(2, kNext), c.data()); },
     kBrokenChain},
    {"RecordOfNoTable",
     "R3",
     [](Corrupter& c) { c.bytes = c.bytes.with(c.record(2, 3), identifier(0x987)); },
     {"R5", "R10", "S8"}},
    {"CrossedChains", "R3", [](Corrupter& c) { c.link(c.record(2, kNext), c.otherRecord()); },
     kBrokenChain},
    {"RecordSum", "R4", [](Corrupter& c) { c.flip(c.record(2, 22)); }, {}},
    {"RecordZero",
     "R4",
     [](Corrupter& c) { c.bytes = c.bytes.with(c.record(2, 13), Bytes().zeros(10)); },
     {}},
    {"NextCleared", "R5", [](Corrupter& c) { c.link(c.record(2, kNext), 0); }, {"R7", "R10"}},
    {"CountTooHigh",
     "R5",
     [](Corrupter& c) { c.bytes.putLe(c.slot(60), 4, c.bytes.leAt(c.slot(60), 4) + 1); },
     {}},
    {"CountHuge", "R5", [](Corrupter& c) { c.bytes.putLe(c.slot(60), 4, 0xFFFFFFFF); }, {}},
    {"CountTooLow",
     "R6",
     [](Corrupter& c) { c.bytes.putLe(c.slot(60), 4, c.bytes.leAt(c.slot(60), 4) - 1); },
     {"R7"}},
    {"LastBeforeEnd", "R7", [](Corrupter& c) { c.slotLink(88, c.record(1)); }, {}},
    {"BackLink", "R8", [](Corrupter& c) { c.link(c.record(3, kPrev), c.record(0)); }, {}},
    {"BackLinkCleared", "R8", [](Corrupter& c) { c.link(c.record(3, kPrev), 0); }, {}},
    {"FirstHasPredecessor",
     "R8",
     [](Corrupter& c) { c.link(c.record(0, kPrev), c.otherRecord()); },
     {"R3"}},
    {"LoopForward", "R9", [](Corrupter& c) { c.link(c.record(3, kNext), c.record(1)); }, {"R10"}},
    {"LoopOntoItself",
     "R9",
     [](Corrupter& c) { c.link(c.record(3, kNext), c.record(3)); },
     {"R10"}},
    {"LoopUnderHugeCount",
     "R9",
     [](Corrupter& c) {
       c.link(c.record(-1, kNext), c.record(0));
       c.bytes.putLe(c.slot(60), 4, 0xFFFFFFFF);
     },
     {}},
    {"LoopBackward", "R9", [](Corrupter& c) { c.link(c.record(1, kPrev), c.record(3)); }, {"R8"}},
    {"OnlyBackward", "R10", [](Corrupter& c) { c.link(c.record(1, kNext), 0); }, {"R5", "R7"}},
    {"LengthAboveCapacity",
     "R11",
     [](Corrupter& c) { c.bytes.putBe(c.record(2, 47), 4, c.recordCapacity(2) + 1); },
     {}},
    {"CapacityBeyondEnd",
     "R12",
     [](Corrupter& c) { c.bytes.putBe(c.record(2, 51), 4, 0xFFFFFFFF); },
     {"S1"}},
    {"CapacityOverNextBlock",
     "S1",
     [](Corrupter& c) { c.bytes.putBe(c.record(1, 51), 4, c.recordCapacity(1) + 60); },
     {"R12", "R13"}},
    {"CapacityTooSmall",
     "R13",
     [](Corrupter& c) { c.bytes.putBe(c.record(2, 51), 4, c.recordCapacity(2) - 5); },
     {"R11"}},
    {"EndMark", "R13", [](Corrupter& c) { c.flip(c.record(2, 55 + c.recordCapacity(2))); }, {}},
    {"ModifiedBeforeCreated",
     "R14",
     [](Corrupter& c) { c.bytes.putBe(c.record(2, 27), 4, 5); },
     {}},
    {"TimeZero", "R14", [](Corrupter& c) { c.bytes.putBe(c.record(2, 23), 8, 0); }, {}},
    {"TimeInFuture",
     "R14",
     [](Corrupter& c) { c.bytes.putBe(c.record(2, 27), 4, kNow + 2 * 86400); },
     {}},
    {"IdentifierInTwoTables",
     "R15",
     [](Corrupter& c) {
       c.bytes = c.bytes.with(c.record(3, 13), c.bytes.at(c.otherRecord() + 13, 10));
     },
     {}},
    {"LastWrittenIsDead",
     "R16",
     [](Corrupter& c) {
       const size_t end = c.bytes.size();
       c.bytes.add(c.bytes.at(c.record(2), 56 + c.recordCapacity(2)));
       c.slotLink(80, end);
     },
     {}},
    {"IdentifierTwice",
     "R15",
     [](Corrupter& c) { c.bytes = c.bytes.with(c.record(3, 13), c.bytes.at(c.record(1, 13), 10)); },
     {}},

    {"DataBeyondEnd", "T1", [](Corrupter& c) { c.slotLink(112, kFarAway); }, {"T3"}},
    {"DataNegative", "T1", [](Corrupter& c) { c.slotLink(112, kNegative); }, {"T3"}},
    {"DataMark", "T2", [](Corrupter& c) { c.flip(c.data()); }, {"T3"}},
    {"DataHeaderSize", "T2", [](Corrupter& c) { c.flip(c.data(2)); }, {"T3"}},
    {"DataOfOtherTable",
     "T2",
     [](Corrupter& c) { c.bytes = c.bytes.with(c.data(3), identifier(0x987)); },
     {"T3", "S8"}},
    {"DataPositionStale", "T3", [](Corrupter& c) { c.slotLink(112, c.record(1)); }, {"T2"}},
    {"DataLength",
     "T4",
     [](Corrupter& c) { c.bytes.putBe(c.data(13), 4, c.dataCapacity() + 1); },
     {}},
    {"DataCapacity", "T4", [](Corrupter& c) { c.bytes.putBe(c.data(17), 4, 0xFFFFFFFF); }, {"S1"}},
    {"DataEndMark", "T4", [](Corrupter& c) { c.flip(c.data(21 + c.dataCapacity())); }, {}},

    {"DataWithoutInnerEndMark",
     "T5",
     [](Corrupter& c) { c.bytes.putBe(c.data(13), 4, c.bytes.beAt(c.data(13), 4) - 1); },
     {}},

    {"PayloadAfterAShorterOne",
     "S7",
     [](Corrupter& c) { c.bytes.putBe(c.record(2, 47), 4, c.bytes.beAt(c.record(2, 47), 4) - 3); },
     {}},
    {"DatabaseInADeadPayload",
     "S6",
     [](Corrupter& c) { c.bytes.add(recordAround(storedDatabase(), c)); },
     {}},
    {"DatabaseInALivePayload",
     "S6",
     [](Corrupter& c) {
       const size_t end = c.bytes.size();
       const uint64_t last = c.record(-1);
       c.bytes.add(recordAround(storedDatabase(), c));
       c.link(end + kPrev, last);
       c.link(end + kNext, 0);
       c.link(static_cast<size_t>(last) + kNext, end);
       c.slotLink(80, end);
       c.slotLink(88, end);
       for (const size_t count : {size_t{60}, size_t{64}}) {
         c.bytes.putLe(c.slot(count), 4, c.bytes.leAt(c.slot(count), 4) + 1);
       }
     },
     {},
     true},
    {"RecordOfALostTable",
     "S8",
     [](Corrupter& c) {
       const size_t end = c.bytes.size();
       c.bytes.add(c.bytes.at(c.record(2), 56 + c.recordCapacity(2)));
       c.bytes = c.bytes.with(end + 3, identifier(0x987));
     },
     {}},
    {"TableDataOfALostTable",
     "S8",
     [](Corrupter& c) {
       const size_t end = c.bytes.size();
       c.bytes.add(c.bytes.at(c.data(), 22 + c.dataCapacity()));
       c.bytes = c.bytes.with(end + 3, identifier(0x987));
     },
     {}},
    {"TornRecordHeader", "S4", [](Corrupter& c) { c.bytes.add(hex("870040")); }, {}},
    {"TornRecord",
     "S4",
     [](Corrupter& c) { c.bytes.add(c.bytes.at(c.record(2), 55)).fill(3, 1); },
     {}},
    {"TornTableData", "S4", [](Corrupter& c) { c.bytes.add(c.bytes.at(c.data(), 21)); }, {}},
    {"JunkAfter", "S5", [](Corrupter& c) { c.bytes.fill(100, 0); }, {}},
    {"DeadRecord",
     "S2",
     [](Corrupter& c) { c.bytes.add(c.bytes.at(c.record(2), 56 + c.recordCapacity(2))); },
     {}},
    {"DeadTableData",
     "S3",
     [](Corrupter& c) { c.bytes.add(c.bytes.at(c.data(), 22 + c.dataCapacity())); },
     {}},
};

// All damages of one file in one test, which takes less than starting a program for each.
class CheckFinds : public testing::TestWithParam<size_t> {};

TEST_P(CheckFinds, TheCodeOfEachDamageAndNoFalseOne) {
  const BaseFile& base = baseFiles()[GetParam()];
  for (const Damage& damage : kDamages) {
    SCOPED_TRACE(std::string(damage.name) + " in " + base.name);
    Corrupter corrupter(base);
    damage.apply(corrupter);
    const Checked checked = checkBytes(corrupter.bytes, {.deep = damage.isDeep, .now = kNow});
    EXPECT_TRUE(checked.has(damage.code)) << checked.text();
    for (const std::string& code : checked.codes(qvdb::Severity::error)) {
      EXPECT_TRUE(code == damage.code || damage.consequences.contains(code))
          << "gives " << code << ":\n"
          << checked.text();
    }
    EXPECT_EQ(sum(checked.report.space), corrupter.bytes.size());
  }
  reportCount("damaged files, each named by its code", std::size(kDamages));
}

INSTANTIATE_TEST_SUITE_P(InFile, CheckFinds, testing::Range(size_t{0}, size_t{3}));

TEST(Corrupter, KnowsAtLeastFiftyKindsOfDamage) {
  EXPECT_GE(std::size(kDamages), 50u);
}

// What is not here is in other tests: a host that cannot read (F5), holes (F3), categories (C1 to
// C4), lists of imported files (I1, I2), payloads (P1 to P3), and what the calls will do (W1).
TEST(Corrupter, KnowsADamageForEveryCode) {
  std::set<std::string> missing;
  for (const qvdb::FindingCode& code : qvdb::finding_codes()) missing.emplace(code.code);
  for (const Damage& damage : kDamages) missing.erase(damage.code);
  EXPECT_EQ(missing, (std::set<std::string>{"F3", "F5", "C1", "C2", "C3", "C4", "I1", "I2", "P1",
                                            "P2", "P3", "X1", "X2", "X3", "X4", "X5", "W1"}));
}

}  // namespace
}  // namespace qvdbase::test
