// Interrupted writes: an operation that ends after any number of the bytes that it writes, as it
// does when its process is killed. The bytes of each operation on each base state are recorded
// once; then the file is made again with every prefix of them. In each of these files
//
//   - every record is found, by walking or by salvage, with its payload;
//   - the check names what the independent checker finds, and finds nothing else;
//   - listing, appending and repairing end as the check has predicted;
//   - an append after the torn bytes, or a repair, loses nothing.
#include <gtest/gtest.h>
#include <qvdbase/qvdbase.h>

#include <algorithm>
#include <set>

#include "kit/recorded_calls.h"
#include "kit/test_extent.h"
#include "proof/base_states.h"
#include "proof/operations.h"
#include "recovery/check/base_files.h"
#include "recovery/salvage/salvage_kit.h"

namespace qvdbase::test {
namespace {

using Effect = Operation::Effect;
using Records = std::map<std::pair<uint64_t, uint64_t>, Bytes>;

constexpr std::time_t kOperationTime = 5000;

struct Recording {
  std::vector<Write> writes;
  bool succeeded = false;
};

Recording recorded(const TempFolder& folder, const BaseState& base, const Operation& operation) {
  writeFile(folder / "recorded.qvd", base.bytes);
  RecordedCalls host;
  host.setTime(kOperationTime);
  Recording result;
  result.succeeded = operation.run(folder / "recorded.qvd");
  result.writes = host.writes("recorded.qvd");
  return result;
}

// Where an operation is cut off. Everything: after every byte. The sample: at and around each
// place where the writes continue elsewhere or cross the border of a page, and at some others.
std::vector<size_t> cuts(const std::vector<Write>& writes) {
  const size_t total = byteCount(writes);
  const size_t step = testEverything() ? 1 : 41;
  std::set<size_t> result = {0, total};
  for (size_t n = 0; n <= total; n += step) result.insert(n);
  size_t n = 0;
  for (const Write& each : ranges(writes)) {
    const auto toPage = static_cast<size_t>(4096 - each.position % 4096);
    for (const size_t place : {n, n + each.bytes.size(), n + toPage}) {
      for (size_t near = place == 0 ? 0 : place - 1; near <= place + 1; ++near) {
        if (near <= total && near <= n + each.bytes.size()) result.insert(near);
      }
    }
    n += each.bytes.size();
  }
  return {result.begin(), result.end()};
}

std::set<std::string> independentCodes(const Bytes& bytes) {
  const std::vector<std::string> codes = codesOf(checkFile(bytes));
  return {codes.begin(), codes.end()};
}

// Everything that check reports, for comparing.
std::multiset<std::pair<std::string, int64_t>> reportedBy(const Checked& checked) {
  std::multiset<std::pair<std::string, int64_t>> reported;
  for (const qvdb::Finding& each : checked.findings) reported.emplace(each.code, each.offset);
  return reported;
}

// Identifiers of all whole record blocks that are anywhere in the file.
std::set<uint64_t> blocksIn(const Bytes& bytes) {
  std::set<uint64_t> result;
  for (const survey::Block& each : surveyOf(bytes).blocks) {
    if (each.kind == survey::BlockKind::record) result.insert(each.recordID);
  }
  return result;
}

class InterruptedWrites : public testing::TestWithParam<BaseState> {
 protected:
  const QVWCHAR* put(const char* name, const Bytes& bytes) {
    // A new file each time: some file systems wait for the disk when one is emptied and refilled.
    std::filesystem::remove(folder / name);
    writeFile(folder / name, bytes);
    return wide_.emplace(name, (folder / name).u16string()).first->second.data();
  }

  // ---- what each state must hold ----

  // Of a chain that was damaged before, a record between two breaks can look like a deleted one;
  // and a repair drops it in all form. Salvage finds it when it is asked for those too.
  Records recordsFound(const Bytes& bytes) {
    Records found = takenRecords(bytes);
    if (!GetParam().isSound) found.merge(takenRecords(bytes, {.deleted = true}));
    return found;
  }

  void expectRecords(const Bytes& bytes, const Operation& operation) {
    const Records found = recordsFound(bytes);
    for (const auto& [key, payload] : before_) {
      const bool isNamed = key.second == operation.record;
      const auto place = found.find(key);
      if (place == found.end()) {
        EXPECT_TRUE(isNamed && operation.effect == Effect::removes) << "lost record " << key.second;
        continue;
      }
      if (isNamed && operation.effect == Effect::overwrites) continue;
      const bool isNew =
          isNamed && operation.effect == Effect::relocates && place->second == operation.payload;
      EXPECT_TRUE(isNew || place->second == payload) << "payload of record " << key.second;
    }
  }

  void expectNamed(const Bytes& bytes, const Checked& checked) {
    const std::set<std::string> codes = independentCodes(bytes);
    if (!std::includes(codesBefore_.begin(), codesBefore_.end(), codes.begin(), codes.end())) {
      EXPECT_NE(reportedBy(checked), reportedBefore_)
          << "not reported: " << describe(checkFile(bytes));
    } else if (GetParam().isSound) {
      // A whole block that is not counted is worth a warning, which only check reports.
      EXPECT_NE(checked.report.state, qvdb::CheckState::damaged) << checked.text();
    }
  }

  // Before its first byte an operation has done nothing, and after its last one everything.
  void expectSound(const Bytes& bytes) {
    const Checked checked = checkBytes(bytes);
    EXPECT_EQ(checked.report.state, qvdb::CheckState::sound) << checked.text();
    EXPECT_EQ(independentCodes(bytes), std::set<std::string>());
  }

  // The library's calls fare as the check has said; nothing that they do loses a record.
  void expectCalls(const Bytes& bytes, const Operation& operation, const Checked& checked) {
    const int16_t db = OpenDBaseW(put("calls.qvd", bytes), 3);
    ASSERT_NE(db, 0);
    for (const qvdb::TableOutlook& table : checked.report.tables) {
      const uint64_t id = table.id.value;
      if (id != GetParam().table && id != GetParam().other) continue;
      uint32_t count = 0;
      const bool reached = GetNumberOfRecords(db, id, &count) == 1;
      EXPECT_EQ(reached, table.reachable);
      std::vector<uint64_t> list(count + 1);
      EXPECT_EQ(GetRecordUuIDList(db, id, list.data(), &count) == 1, table.list) << checked.text();
      uint64_t record = 0;
      EXPECT_EQ(AddRecordData(db, id, bytesOf("behind").data(), 6, 0, &record) == 1, table.append)
          << checked.text();
      if (record != 0) added_.insert(record);
    }
    CloseDBase(db);
    const Bytes after = readFile(folder / "calls.qvd");
    expectRecords(after, operation);
    expectBlocks(after);
  }

  void expectRepair(const Bytes& bytes, const Checked& checked) {
    int result = -1;
    EXPECT_EQ(FixOneDBLinkErrorW(put("repaired.qvd", bytes), nullptr, 0, nullptr, &result), 1);
    EXPECT_EQ(result, checked.report.repair) << checked.text();
    added_.clear();
    expectBlocks(readFile(folder / "repaired.qvd"));
  }

  // Whatever else happens to chains: the blocks themselves are all there.
  void expectBlocks(const Bytes& bytes) {
    std::set<uint64_t> wanted = added_;
    for (const auto& each : before_) wanted.insert(each.first.second);
    const std::set<uint64_t> found = blocksIn(bytes);
    EXPECT_TRUE(std::includes(found.begin(), found.end(), wanted.begin(), wanted.end()));
  }

  void expectState(const Bytes& bytes, const Operation& operation) {
    const Checked checked = checkBytes(bytes);
    expectRecords(bytes, operation);
    expectNamed(bytes, checked);
    added_.clear();
    expectCalls(bytes, operation, checked);
    expectRepair(bytes, checked);
  }

  void learnBase() {
    const BaseState& base = GetParam();
    before_ = takenRecords(base.bytes);
    for (const uint64_t id : base.records) {
      EXPECT_TRUE(before_.contains({base.table, id})) << "record " << id << " is not in the base";
    }
    codesBefore_ = independentCodes(base.bytes);
    EXPECT_EQ(codesBefore_.empty(), base.isSound);
    if (base.isSound) expectSound(base.bytes);
    reportedBefore_ = reportedBy(checkBytes(base.bytes));
  }

  TempFolder folder;
  std::map<std::string, WideText> wide_;
  Records before_;
  std::set<std::string> codesBefore_;
  std::multiset<std::pair<std::string, int64_t>> reportedBefore_;
  std::set<uint64_t> added_;
};

TEST_P(InterruptedWrites, LoseNothingWhereverTheyEnd) {
  const BaseState& base = GetParam();
  learnBase();
  uint64_t states = 0;
  for (const Operation& operation : operationsOn(base)) {
    const Recording recording = recorded(folder, base, operation);
    if (base.isSound) {
      EXPECT_TRUE(recording.succeeded) << operation.name;
      expectSound(applied(base.bytes, recording.writes));
    }
    for (const size_t n : cuts(recording.writes)) {
      SCOPED_TRACE(base.name + ": " + operation.name + ", " + std::to_string(n) + " of " +
                   std::to_string(byteCount(recording.writes)) + " bytes");
      expectState(applied(base.bytes, recording.writes, n), operation);
      ++states;
      if (HasFailure()) return;
    }
  }
  reportCount("interrupted writes, base states", 1);
  reportCount("interrupted writes, operations on them", operationsOn(base).size());
  reportCount("interrupted writes, files", states);
}

std::string nameOfState(const testing::TestParamInfo<BaseState>& info) {
  std::string name = info.param.name;
  std::replace(name.begin(), name.end(), ' ', '_');
  return name;
}

INSTANTIATE_TEST_SUITE_P(On, InterruptedWrites, testing::ValuesIn(baseStates()), nameOfState);

// The base states are what their names say.
TEST(BaseStates, HaveTheirFieldsWhereTheyAreSaidToBe) {
  EXPECT_LT(slotOffset(28), 4096u);
  EXPECT_GT(slotOffset(28) + kSlotBytes, 4096u);
  const auto secondOf = [](const BaseState& state) {
    return readDatabase(state.bytes).tables.at(0).records.at(1).position;
  };
  EXPECT_EQ(secondOf(states::fieldAcrossPages("", 43)) + 39, 8192 - 4);  // nextRecordPos
  EXPECT_EQ(secondOf(states::fieldAcrossPages("", 35)) + 31, 8192 - 4);  // prevRecordPos
  EXPECT_EQ(secondOf(states::fieldAcrossPages("", 29)) + 27, 8192 - 2);  // modifyTime
}

}  // namespace

void PrintTo(const BaseState& state, std::ostream* out) {
  *out << state.name;
}

}  // namespace qvdbase::test
