// The test kit's own tests: files built by hand pass the checker and the reader, and each kind of
// damage is found, under its code and without false company.
#include <functional>
#include <set>
#include <string>

#include "kit/file_checker.h"
#include "kit/file_image.h"
#include "kit/file_reader.h"

namespace qvdbase::test {
namespace {

// Two tables: "notes" with three records, table data written twice, and a superseded record;
// "empty" with nothing.
struct Sample {
  FileImage image;
  size_t notes = 0;
  size_t empty = 0;
  int64_t a = 0;
  int64_t b = 0;
  int64_t c = 0;
  int64_t oldData = 0;
  int64_t data = 0;
  int64_t dead = 0;

  Sample() {
    notes = image.addTable("notes", 0x1101);
    empty = image.addTable("empty", 0x2202);
    a = image.addRecord(notes, 0xA1, bytesOf("first"));
    oldData = image.setTableData(notes, bytesOf("old"));
    b = image.addRecord(notes, 0xA2, bytesOf("second"), {.reserve = 20});
    RecordFields old = image.record(a);
    dead = image.addDeadRecord(old);
    data = image.setTableData(notes, bytesOf("newer"), 30);
    c = image.addRecord(notes, 0xA3, {});
  }
};

using Codes = std::vector<std::string>;

TEST(Checker, FindsNothingInASoundFile) {
  const std::vector<Finding> findings = checkFile(Sample().image.build());
  EXPECT_TRUE(findings.empty()) << describe(findings);
}

TEST(Checker, FindsNothingInANewFile) {
  const Bytes file = FileImage().build();
  EXPECT_EQ(file.size(), 4630u);
  EXPECT_TRUE(checkFile(file).empty());
}

TEST(Checker, AllowsWhatIsOddButLegal) {
  Sample sample;
  sample.image.slot(sample.notes).lastWrittenRecordPos = sample.dead;
  sample.image.addRecord(sample.empty, 0xA1, bytesOf("x"));
  sample.image.addRecord(sample.empty, 0xA1, bytesOf("the same identifier"));
  const std::string longName(32, 'n');
  sample.image.addTable(longName, 0x3303);
  sample.image.addTable(longName, 0x4404);
  const std::vector<Finding> findings = checkFile(sample.image.build());
  EXPECT_TRUE(findings.empty()) << describe(findings);
}

TEST(Reader, GivesBackWhatTheImageHolds) {
  Sample sample;
  const ReadDatabase read = readDatabase(sample.image.build());
  ASSERT_EQ(read.tables.size(), 2u);
  const ReadTable& notes = read.tables[0];
  EXPECT_EQ(notes.id, 0x1101u);
  EXPECT_EQ(notes.name, "notes");
  ASSERT_EQ(notes.records.size(), 3u);
  EXPECT_EQ(notes.records[0].id, 0xA1u);
  EXPECT_EQ(notes.records[1].position, sample.b);
  EXPECT_EQ(notes.records[1].fields.data(), bytesOf("second"));
  EXPECT_EQ(notes.records[1].fields.dataCapacity, 20u);
  ASSERT_TRUE(notes.data.has_value());
  EXPECT_EQ(notes.data->data(), bytesOf("newer"));
  EXPECT_TRUE(read.tables[1].records.empty());
  EXPECT_FALSE(read.tables[1].data.has_value());
}

struct Damage {
  const char* name;
  std::function<void(Sample&)> apply;
  Codes codes;
};

void PrintTo(const Damage& damage, std::ostream* out) {
  *out << damage.name;
}

class CheckerFinds : public testing::TestWithParam<Damage> {};

TEST_P(CheckerFinds, Damage) {
  Sample sample;
  GetParam().apply(sample);
  const std::vector<Finding> findings = checkFile(sample.image.build());
  EXPECT_EQ(codesOf(findings), GetParam().codes) << describe(findings);
}

SlotFields& notesOf(Sample& s) {
  return s.image.slot(s.notes);
}

const Damage kDamages[] = {
    {"Signature", [](Sample& s) { s.image.header().signature = bytesOf("VQdb"); }, {"H1"}},
    {"VersionBelow", [](Sample& s) { s.image.header().version = 99; }, {"H2"}},
    {"VersionAbove", [](Sample& s) { s.image.header().version = 200; }, {"H2"}},
    {"UnfinishedPack", [](Sample& s) { s.image.header().version = 101; }, {"H3"}},
    {"DatabaseSum", [](Sample& s) { ++s.image.header().databaseID[9]; }, {"H4"}},
    {"NegativeTableCount", [](Sample& s) { s.image.header().tableCount = -1; }, {"D2", "H5", "S8"}},
    {"SlotCount", [](Sample& s) { s.image.header().slotCount = 31; }, {"H6"}},
    {"SlotSize", [](Sample& s) { s.image.header().slotSize = 143; }, {"H6"}},
    {"SlotMark", [](Sample& s) { s.image.slot(s.empty).slotMark = 150; }, {"D1"}},
    {"SlotEndMark", [](Sample& s) { s.image.slot(s.empty).slotEndMark = 'Y'; }, {"D1"}},
    {"UncountedSlot", [](Sample& s) { s.image.slot(9).slotMark = 151; }, {"D2"}},
    {"TableSum", [](Sample& s) { ++s.image.slot(s.empty).tableID[8]; }, {"D3"}},
    {"TableIdentifierTwice",
     [](Sample& s) { s.image.slot(s.empty).tableID = identifier(0x1101); },
     {"D3"}},
    {"TableIdentifierZero",
     [](Sample& s) { s.image.slot(s.empty).tableID = identifier(0); },
     {"D3"}},
    {"EmptyName", [](Sample& s) { s.image.slot(s.empty).tableName = {}; }, {"D4"}},
    {"NameTail", [](Sample& s) { s.image.slot(s.empty).tableName = hex("61 00 62"); }, {"D4"}},
    {"NameTwice", [](Sample& s) { s.image.slot(s.empty).tableName = bytesOf("notes"); }, {"D4"}},
    {"InfoSize", [](Sample& s) { notesOf(s).infoSize = 49; }, {"D5"}},
    {"DataInfoSize", [](Sample& s) { notesOf(s).dataInfoSize = 36; }, {"D5"}},
    {"EmptyTableWithAFirst", [](Sample& s) { s.image.slot(s.empty).firstRecordPos = s.a; }, {"D6"}},
    {"EmptyTableWithALastWritten",
     [](Sample& s) { s.image.slot(s.empty).lastWrittenRecordPos = s.a; },
     {"D6"}},
    {"LastWrittenOfNoRecord", [](Sample& s) { notesOf(s).lastWrittenRecordPos = s.data; }, {"D7"}},
    {"LastWrittenBeyondTheEnd",
     [](Sample& s) { notesOf(s).lastWrittenRecordPos = s.image.end(); },
     {"D7"}},
    {"MoreThanWritten", [](Sample& s) { notesOf(s).recordWriteCount = 2; }, {"D8"}},
    {"DataPositionsDiffer", [](Sample& s) { notesOf(s).lastDataPos = s.oldData; }, {"D9"}},
    {"DataCountZero", [](Sample& s) { notesOf(s).dataBlockCount = 0; }, {"D9"}},
    {"FreeSlotNotBlank", [](Sample& s) { s.image.slot(31).tableVersion = 1; }, {"D10"}},
    {"LinkBeyondTheEnd",
     [](Sample& s) { s.image.record(s.b).nextRecordPos = s.image.end(); },
     {"R1", "R10"}},
    {"LinkNegative", [](Sample& s) { s.image.record(s.b).nextRecordPos = -1; }, {"R1", "R10"}},
    {"RecordMark", [](Sample& s) { s.image.record(s.b).blockMark = 134; }, {"R10", "R2", "S5"}},
    {"RecordHeaderSize",
     [](Sample& s) { s.image.record(s.b).headerSize = 63; },
     {"R10", "R2", "S4"}},
    {"RecordOfAnotherTable",
     [](Sample& s) { s.image.record(s.b).tableID = identifier(0x2202); },
     {"R10", "R3"}},
    {"RecordSum", [](Sample& s) { ++s.image.record(s.b).recordID[9]; }, {"R4"}},
    {"ChainEndsEarly", [](Sample& s) { notesOf(s).recordCount = 4; }, {"D8", "R5"}},
    {"LastHasASuccessor", [](Sample& s) { s.image.record(s.c).nextRecordPos = s.dead; }, {"R6"}},
    {"ForwardWalkEndsElsewhere", [](Sample& s) { notesOf(s).lastRecordPos = s.b; }, {"R10", "R7"}},
    {"BackLink", [](Sample& s) { s.image.record(s.c).prevRecordPos = s.a; }, {"R10", "R8"}},
    {"FirstHasAPredecessor", [](Sample& s) { s.image.record(s.a).prevRecordPos = s.dead; }, {"R8"}},
    {"Loop", [](Sample& s) { s.image.record(s.b).nextRecordPos = s.a; }, {"R10", "R9"}},
    {"LengthAboveCapacity", [](Sample& s) { s.image.record(s.b).dataLength = 21; }, {"R11"}},
    {"BlockBeyondTheEnd",
     [](Sample& s) { s.image.record(s.c).dataCapacity = 0xFFFFFFFF; },
     {"R12", "S4"}},
    {"EndMark", [](Sample& s) { s.image.record(s.b).blockEndMark = 'j'; }, {"R13"}},
    {"DataInsideTheDirectory",
     [](Sample& s) {
       SlotFields& slot = notesOf(s);
       slot.firstDataPos = slot.lastDataPos = slot.lastWrittenDataPos = 22;
     },
     {"T1"}},
    {"DataMark", [](Sample& s) { s.image.tableData(s.data).blockMark = 135; }, {"S4", "T2"}},
    {"DataHeaderSize", [](Sample& s) { s.image.tableData(s.data).headerSize = 64; }, {"S4", "T2"}},
    {"DataOfAnotherTable",
     [](Sample& s) { s.image.tableData(s.data).tableID = identifier(0x2202); },
     {"T2"}},
    {"DataLength", [](Sample& s) { s.image.tableData(s.data).dataLength = 31; }, {"T4"}},
    {"DataEndMark", [](Sample& s) { s.image.tableData(s.data).blockEndMark = 0; }, {"T4"}},
    {"BlocksOverlap",
     [](Sample& s) { s.image.record(s.b).dataCapacity = 21 + 55 + 5 - 1 + 22; },
     {"R13", "S1", "S5"}},
    {"DeadBlockTorn", [](Sample& s) { s.image.record(s.dead).blockEndMark = 0; }, {"S4"}},
    {"BytesBehindTheLastBlock", [](Sample& s) { s.image.addRaw(hex("00 87")); }, {"S5"}},
    {"DeadBlockOfNoTable",
     [](Sample& s) { s.image.record(s.dead).tableID = identifier(0x9909); },
     {"S8"}},
};

INSTANTIATE_TEST_SUITE_P(Each, CheckerFinds, testing::ValuesIn(kDamages),
                         [](const auto& damage) { return std::string(damage.param.name); });

TEST(Checker, FindsAFileCutOffAnywhere) {
  const Bytes file = Sample().image.build();
  EXPECT_EQ(codesOf(checkFile(Bytes())), Codes{"F1"});
  EXPECT_EQ(codesOf(checkFile(file.cut(21))), Codes{"F2"});
  EXPECT_EQ(codesOf(checkFile(file.cut(4629))), Codes{"F2"});
  for (size_t length = kDirectoryEnd; length < file.size(); ++length) {
    EXPECT_FALSE(checkFile(file.cut(length)).empty()) << "cut at " << length;
  }
}

TEST(Checker, FindsAChangedFillerByte) {
  for (const size_t filler : {1u, 52u, 55u, 58u, 68u, 98u, 111u, 137u, 143u}) {
    const Bytes file = Sample().image.build().with(slotOffset(0) + filler, hex("00"));
    EXPECT_EQ(codesOf(checkFile(file)), Codes{"D5"}) << "slot offset " << filler;
  }
}

}  // namespace
}  // namespace qvdbase::test
