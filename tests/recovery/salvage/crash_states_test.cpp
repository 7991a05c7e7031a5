// States in which a process can leave a file: every prefix of an operation's writes, writes that
// reached the device in another order, and torn appends that later appends follow. Whatever
// was in the file before the operation is found in each of them.
#include <qvdbase/qvdbase.h>
#include <qvdbase/qvdb/check.hpp>
#include <qvdbase/qvdb/error.hpp>

#include <functional>

#include "kit/recorded_calls.h"
#include "recovery/check/base_files.h"
#include "recovery/check/random_database.h"
#include "recovery/salvage/salvage_kit.h"

namespace qvdbase::test {
namespace {

struct Operation {
  const char* name;
  std::function<int(int16_t)> run;
};

constexpr uint64_t kNotes = 0x1101;  // of usedFile()

const Operation kOperations[] = {
    {"append",
     [](int16_t db) {
       uint64_t id = 0;
       const Bytes payload = pattern(70);
       return AddRecordData(db, kNotes, payload.data(), 70, 100, &id);
     }},
    {"first append",
     [](int16_t db) {
       uint64_t id = 0;
       return AddRecordData(db, 0x3303, nullptr, 0, 0, &id);
     }},
    {"relocate in the middle",
     [](int16_t db) {
       return ModifyRecordData(db, kNotes, pattern(90).data(), 90, 0xA3, nullptr);
     }},
    {"relocate the first",
     [](int16_t db) {
       return ModifyRecordData(db, kNotes, pattern(90).data(), 90, 0xA1, nullptr);
     }},
    {"relocate the last",
     [](int16_t db) {
       return ModifyRecordData(db, kNotes, pattern(90).data(), 90, 0xA8, nullptr);
     }},
    {"delete in the middle", [](int16_t db) { return DeleteOneRecord(db, kNotes, 0xA3, nullptr); }},
    {"delete the first", [](int16_t db) { return DeleteOneRecord(db, kNotes, 0xA1, nullptr); }},
    {"delete the last", [](int16_t db) { return DeleteOneRecord(db, kNotes, 0xA8, nullptr); }},
    {"set larger data",
     [](int16_t db) { return SetTableData(db, kNotes, pattern(90).data(), 90, 0); }},
    {"add a table", [](int16_t db) { return AddTable(db, "new") != 0 ? 1 : 0; }},
};

// The writes of one operation on the base file.
std::vector<Write> writesOf(const Operation& operation, const Bytes& base) {
  TempFolder folder;
  writeFile(folder / "a.qvd", base);
  const int16_t db = OpenDBaseW(folder.wide("a.qvd"), 3);
  RecordedCalls host;
  EXPECT_EQ(operation.run(db), 1) << operation.name;
  std::vector<Write> writes = host.writes();
  CloseDBase(db);
  return writes;
}

// Every record of `before` is taken by a salvage of `bytes`, with the payload that it had, except
// for the one that the operation was about to delete: that may be gone.
void expectRecords(const ReadDatabase& before, const Bytes& bytes, const std::string& what) {
  const auto records = takenRecords(bytes);
  size_t missing = 0;
  for (const auto& [key, payload] : recordsOf(before)) {
    const auto found = records.find(key);
    if (found == records.end()) {
      ++missing;
      EXPECT_NE(what.find("delete"), std::string::npos) << what << " lost " << key.second;
    } else if (what.find("relocate") == std::string::npos) {
      EXPECT_EQ(found->second, payload) << what;
    }
  }
  EXPECT_LE(missing, 1u) << what;
}

// In these states every call that had returned before is still true.
TEST(SalvageOfCrashStates, FindsEverythingInEveryPrefixOfAnOperation) {
  const Bytes base = usedFile().bytes;
  const ReadDatabase before = readDatabase(base);
  const size_t step = seeds(7, 1) == 1 ? 1 : 7;
  for (const Operation& operation : kOperations) {
    const std::vector<Write> writes = writesOf(operation, base);
    const size_t total = byteCount(writes);
    for (size_t n = 0; n <= total && !testing::Test::HasFailure(); n += step) {
      expectRecords(before, applied(base, writes, n),
                    std::string(operation.name) + " after " + std::to_string(n) + " bytes");
    }
    expectRecords(before, applied(base, writes, total), operation.name);
    for (size_t n = 0; n <= total; n += total / 5) salvaged(applied(base, writes, n));
  }
}

TEST(SalvageOfCrashStates, FindsEverythingWhateverWritesAreMissing) {
  const Bytes base = usedFile().bytes;
  const ReadDatabase before = readDatabase(base);
  for (const Operation& operation : kOperations) {
    const std::vector<Write> writes = ranges(writesOf(operation, base));
    ASSERT_LE(writes.size(), 10u);
    for (unsigned subset = 0; subset < 1u << writes.size(); ++subset) {
      std::vector<Write> some;
      for (size_t i = 0; i < writes.size(); ++i) {
        if (subset >> i & 1) some.push_back(writes[i]);
      }
      expectRecords(before, applied(base, some),
                    std::string(operation.name) + " with writes " + std::to_string(subset));
    }
  }
}

// A torn append stays where it is, and later appends come after it. Its length claims their space,
// and for some lengths an end mark seems to be where it ends.
TEST(SalvageOfTornAppends, NeverSwallowsWhatWasCommittedAfterThem) {
  FileImage image;
  const size_t table = image.addTable("notes", 0x11);
  const int64_t a = image.addRecord(table, 0xA1, bytesOf("first"));
  const Bytes base = image.build();
  RecordFields torn;
  torn.tableID = identifier(0x11);
  torn.recordID = identifier(0xA2);
  torn.prevRecordPos = a;
  torn.createTime = torn.modifyTime = 1000;
  const size_t step = seeds(29, 1) == 1 ? 1 : 29;
  for (uint32_t length = 0; length < 400; length += static_cast<uint32_t>(step)) {
    torn.room = pattern(length);
    torn.dataLength = torn.dataCapacity = length;
    const Bytes block = torn.encode();
    for (size_t there = 1; there < block.size(); there += 13) {
      TempFolder folder;
      writeFile(folder / "a.qvd", Bytes(base).add(block.cut(there)));
      const int16_t db = OpenDBaseW(folder.wide("a.qvd"), 3);
      ASSERT_NE(db, 0);
      for (uint64_t id = 0xB1; id <= 0xB4; ++id) {
        const Bytes payload = Bytes().fill(60, 'i');  // every byte looks like an end mark
        ASSERT_EQ(AddRecordData_AssignRecordID(db, 0x11, payload.data(), 60, 0, &id), 1);
      }
      CloseDBase(db);
      const Bytes bytes = readFile(folder / "a.qvd");
      // Without the chain's help as well.
      Bytes blind = bytes;
      std::fill(blind.begin(), blind.begin() + 4630, uint8_t{0});
      for (const Bytes& each : {bytes, blind}) {
        const survey::Survey survey = surveyOf(each);
        std::set<uint64_t> whole;
        for (const survey::Block& found : survey.blocks) {
          if (found.grade == survey::Grade::a) whole.insert(found.recordID);
        }
        ASSERT_EQ(whole, (std::set<uint64_t>{0xA1, 0xB1, 0xB2, 0xB3, 0xB4}))
            << "torn block of " << length << " bytes, of which " << there << " are there";
      }
    }
  }
}

// Where only the position of the last written record is not up to date, nothing is unfinished.
bool differOnlyInLastWritten(Bytes a, Bytes b) {
  if (a.size() != b.size()) return false;
  a.putLe(slotOffset(0) + 80, 8, 0);
  b.putLe(slotOffset(0) + 80, 8, 0);
  return a == b;
}

// The check names each of these states. Table data that was never put in place is no more than
// information: nothing is lost that had been there, and nothing fails.
TEST(CheckOfCrashStates, NamesEveryUnfinishedState) {
  const Bytes base = usedFile().bytes;
  for (const Operation& operation : kOperations) {
    const std::vector<Write> writes = writesOf(operation, base);
    const size_t total = byteCount(writes);
    const Bytes after = applied(base, writes);
    for (size_t n = 1; n < total; ++n) {
      const Bytes bytes = applied(base, writes, n);
      if (differOnlyInLastWritten(bytes, base) || differOnlyInLastWritten(bytes, after)) continue;
      const Checked checked = checkBytes(bytes, {});
      const bool isNamed = checked.report.state != qvdb::CheckState::sound ||
                           checked.text().find("never put in place") != std::string::npos;
      EXPECT_TRUE(isNamed) << operation.name << " after " << n << " bytes of " << total << "\n"
                           << checked.text();
    }
  }
}

// ---- open_checked: the ends of the chains

bool opensChecked(const Bytes& bytes) {
  TempFolder folder;
  writeFile(folder / "a.qvd", bytes);
  try {
    return qvdb::open_checked(folder / "a.qvd", qvdb::Mode::exclusive).is_open();
  } catch (const qvdb::Error& error) {
    EXPECT_TRUE(error.reason() == qvdb::Reason::chain_damaged ||
                error.reason() == qvdb::Reason::directory_damaged)
        << error.what();
    return false;
  }
}

TEST(OpenChecked, OpensSoundFiles) {
  for (const BaseFile& base : baseFiles()) EXPECT_TRUE(opensChecked(base.bytes)) << base.name;
  EXPECT_TRUE(opensChecked(FileImage().build()));
  for (uint64_t seed = firstSeed(); seed < firstSeed() + 5; ++seed) {
    TempFolder folder;
    RandomDatabase database(folder, "random.qvd", seed);
    database.run(100);
    database.close();
    EXPECT_TRUE(opensChecked(readFile(database.path()))) << "QVDBASE_TEST_SEED=" << seed;
  }
}

// The states between two writes of an operation in which a chain is broken. The ends of the chain
// show five of the eight, among them the two in which what is added next would be lost or refused.
TEST(OpenChecked, RefusesMostStatesThatAnInterruptedOperationLeaves) {
  const Bytes base = usedFile().bytes;
  std::set<std::string> refused;
  std::set<std::string> opened;
  for (const Operation& operation : kOperations) {
    const std::vector<Write> writes = ranges(writesOf(operation, base));
    for (size_t n = 1; n < writes.size(); ++n) {
      const Bytes bytes =
          applied(base, {writes.begin(), writes.begin() + static_cast<std::ptrdiff_t>(n)});
      const std::string state = operation.name + (" " + std::to_string(n));
      if (checkBytes(bytes, {}).report.state == qvdb::CheckState::damaged) {
        (opensChecked(bytes) ? opened : refused).insert(state);
      } else {
        EXPECT_TRUE(opensChecked(bytes)) << state;
      }
    }
  }
  EXPECT_EQ(refused,
            (std::set<std::string>{"append 2", "relocate the first 2", "relocate the last 2",
                                   "delete the first 1", "delete the last 1"}));
  EXPECT_EQ(opened, (std::set<std::string>{"relocate in the middle 2", "delete in the middle 1",
                                           "delete in the middle 2"}));
}

TEST(OpenChecked, LeavesNothingOpenWhenItRefuses) {
  const BaseFile base = usedFile();
  Bytes bytes = base.bytes;
  bytes[slotOffset(base.target)] = 0;
  TempFolder folder;
  writeFile(folder / "a.qvd", bytes);
  EXPECT_THROW(qvdb::open_checked(folder / "a.qvd", qvdb::Mode::exclusive), qvdb::Error);
  EXPECT_NO_THROW(qvdb::Database::open(folder / "a.qvd", qvdb::Mode::exclusive));
}

}  // namespace
}  // namespace qvdbase::test
