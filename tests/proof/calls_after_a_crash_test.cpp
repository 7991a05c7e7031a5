// One call of each C function on a file in which a crash has left two transactions, committed and
// not in their places, or only in some of them; then the next opener, who completes what it can.
//
// The C functions know nothing of transactions: they see one of the states that a call that was cut
// off leaves, and while no patch is made simply the state before. Whatever they do, completing
// takes nothing of it back, and nothing that either side has acknowledged is lost to those who look
// at every block. A table in which it cannot complete a transaction it leaves as it is, and says
// so.
#include <gtest/gtest-spi.h>
#include <gtest/gtest.h>
#include <qvdbase/QVFile.h>
#include <qvdbase/qvdbase.h>
#include <qvdbase/qvdb.hpp>

#include <algorithm>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "QVDbase/directory_cache.h"
#include "intents/commit.h"
#include "intents/recovery.h"
#include "intents/shown_contents.h"
#include "intents/staged_transactions.h"
#include "kit/file_image.h"
#include "kit/recorded_calls.h"
#include "kit/test_extent.h"
#include "proof/scripted_calls.h"

namespace qvdbase::test {
namespace {

// The payloads of a table's records that a walk comes to, by their identifiers; as far as it comes.
using Records = std::map<uint64_t, Bytes>;

std::map<uint64_t, Records> reachable(const Bytes& file) {
  std::map<uint64_t, Records> tables;
  for (size_t index = 0; index < file.beAt(16, 2) && index < 31; ++index) {
    const SlotFields slot = decodeSlot(file, index);
    Records& records = tables[identifierNumber(slot.tableID)];
    int64_t at = slot.firstRecordPos;
    for (uint32_t i = 0; i < slot.recordCount && at >= 4630; ++i) {
      const auto begin = static_cast<size_t>(at);
      if (begin + 56 > file.size() || file[begin] != 135) break;
      const RecordFields record = decodeRecord(file, at);
      if (record.tableID != slot.tableID) break;
      records[identifierNumber(record.recordID)] = record.data();
      at = record.nextRecordPos;
    }
  }
  return tables;
}

bool holds(const Bytes& file, const Bytes& payload) {
  return std::search(file.begin(), file.end(), payload.begin(), payload.end()) != file.end();
}

class CallsAfterACrash : public testing::Test {
 protected:
  // What the transactions make of a record: its payload, or nothing where they remove it.
  using Effects = std::map<std::pair<uint64_t, uint64_t>, std::optional<Bytes>>;

  void SetUp() override {
    RecordedCalls host;
    host.setTime(4000);
    bench_.reset();
    const std::filesystem::path path = bench_.folder / "source.qvd";
    sound_ = readFile(path);
    const int16_t db = OpenDBaseW(bench_.wide("source.qvd"), 3);
    ASSERT_NE(db, 0);
    intents::CommitLog log(db, intents::Durability::power);
    log.holdBack(64);
    for (const bool isFirst : {true, false}) {
      Bytes before = readFile(path);
      log.held().layOver(0, before.data(), before.size());
      writeFile(bench_.folder / "work.qvd", before.with(4558, Bytes().zeros(24)));
      const int16_t work = OpenDBaseW(bench_.wide("work.qvd"), 3);
      isFirst ? firstTransaction(work) : secondTransaction(work);
      CloseDBase(work);
      const Bytes after = readFile(bench_.folder / "work.qvd").with(4558, before.at(4558, 24));
      ASSERT_EQ(log.commit(changesBetween(before, after)).outcome, intents::Outcome::committed);
    }
    for (const intents::HeldPatch* patch : log.held().inOrder()) {
      patches_.emplace_back(patch->position, Bytes(patch->bytes.begin(), patch->bytes.end()));
    }
    CloseDBase(db);
    crashed_ = readFile(path);
    ASSERT_EQ(intents::plan(BytesReader(crashed_)).intents.size(), 2u);
  }

  void firstTransaction(int16_t db) {
    change(db, Workbench::kNotes, 0xA2, pattern(400, 41));
    add(db, Workbench::kNotes, 0xB1, pattern(70, 42));
    add(db, Workbench::kRecords, 0xB2, pattern(80, 43));
  }

  void secondTransaction(int16_t db) {
    EXPECT_EQ(DeleteOneRecord(db, Workbench::kNotes, 0xA3, nullptr), 1);
    effects_[{Workbench::kNotes, 0xA3}] = std::nullopt;
    add(db, Workbench::kNotes, 0xB3, pattern(90, 44));
    EXPECT_EQ(SetTableData(db, Workbench::kNotes, pattern(200, 45).data(), 200, 0), 1);
  }

  void change(int16_t db, uint64_t table, uint64_t record, const Bytes& payload) {
    EXPECT_EQ(ModifyRecordData(db, table, payload.data(), static_cast<uint32_t>(payload.size()),
                               record, nullptr),
              1);
    effects_[{table, record}] = payload;
  }

  void add(int16_t db, uint64_t table, uint64_t record, const Bytes& payload) {
    EXPECT_EQ(AddRecordData_AssignRecordID(db, table, payload.data(),
                                           static_cast<uint32_t>(payload.size()), 0, &record),
              1);
    effects_[{table, record}] = payload;
  }

  // The state in which so many patches are made.
  Bytes stateAfter(size_t patches) const {
    Bytes state = crashed_;
    for (size_t i = 0; i < patches; ++i) {
      state = state.with(static_cast<size_t>(patches_[i].first), patches_[i].second);
    }
    return state;
  }

  void call(const ScriptedCall& scripted, bool isPlain) {
    RecordedCalls host;
    host.setTime(5000);
    bench_.db = scripted.wantsHandle ? OpenDBaseW(bench_.wide("source.qvd"), 3) : int16_t{0};
    if (scripted.wantsHandle) QVFile().QVSeekFile(bench_.db, 1, Workbench::kPosition);
    if (isPlain) {
      EXPECT_TRUE(scripted.call(bench_)) << "while nothing is in place it is the state before";
    } else {
      // What it finds may be a call that was cut off.
      testing::TestPartResultArray ignored;
      const testing::ScopedFakeTestPartResultReporter reporter(
          testing::ScopedFakeTestPartResultReporter::INTERCEPT_ONLY_CURRENT_THREAD, &ignored);
      scripted.call(bench_);
    }
    for (int16_t file = 1; file < 10; ++file) {
      int64_t position = 0;
      if (QVFile().QVGetFilePos(file, &position) == 1) CloseDBase(file);
    }
    host.excuseBlocks();
  }

  // What a call has changed of the records that it could reach.
  Effects effectsOf(const Bytes& before, const Bytes& after) {
    Effects effects;
    const auto was = reachable(before);
    const auto is = reachable(after);
    for (const auto& [table, records] : was) {
      for (const auto& [id, payload] : records) {
        if (is.contains(table) && !is.at(table).contains(id)) effects[{table, id}] = std::nullopt;
      }
    }
    for (const auto& [table, records] : is) {
      for (const auto& [id, payload] : records) {
        const auto old = was.find(table);
        const bool isSame =
            old != was.end() && old->second.contains(id) && old->second.at(id) == payload;
        if (!isSame) effects[{table, id}] = payload;
      }
    }
    return effects;
  }

  void expectKept(const Bytes& state, const Bytes& left) {
    const intents::RecoveryPlan plan = intents::plan(BytesReader(left));
    const auto before = reachable(left);
    const Effects ofTheCall = effectsOf(state, left);
    const std::optional<TableContents> shown = shownToReaders();
    EXPECT_EQ(readFile(bench_.folder / "source.qvd"), left) << "reading has changed it";
    qvdb::Database::open(bench_.folder / "source.qvd", qvdb::Mode::exclusive).close();
    const Bytes end = readFile(bench_.folder / "source.qvd");
    EXPECT_GE(end.size(), left.size());
    EXPECT_EQ(end.at(4558, 8), Bytes().zeros(8));
    EXPECT_EQ(shown, shownToReaders()) << "it was not read as it is once completed";
    const auto after = reachable(end);
    for (const auto& [table, records] : before) {
      for (const auto& [id, payload] : records) {
        if (effects_.contains({table, id})) continue;
        const auto found = after.at(table).find(id);
        ASSERT_NE(found, after.at(table).end()) << "record " << id << " is no longer reached";
        EXPECT_EQ(found->second, payload) << id;
      }
    }
    for (const auto& [record, payload] : ofTheCall) {
      const auto found = after.at(record.first).find(record.second);
      const bool isThere = found != after.at(record.first).end();
      EXPECT_TRUE(payload ? isThere && found->second == *payload : !isThere)
          << "what the call did to record " << record.second << " was taken back";
    }
    for (const auto& [record, payload] : effects_) {
      if (payload && !ofTheCall.contains(record)) {
        EXPECT_TRUE(holds(end, *payload)) << "lost to those who look at every block";
      }
    }
    expectWholeTables(plan, before, after, ofTheCall);
    if (!plan.contradicted.empty()) ++contradicted_;
    Bytes twice = end.with(4558, left.at(4558, 24));
    twice = twice.at(4558, 8) == Bytes().zeros(8) ? end : twice;
    for (const intents::PlannedWrite& write : intents::plan(BytesReader(twice)).writes) {
      EXPECT_TRUE(false) << "completing twice writes more, at " << write.position;
    }
  }

  // Nothing where a call that was cut off has left what cannot be read.
  std::optional<TableContents> shownToReaders() const {
    try {
      return shownBy(qvdb::Database::open(bench_.folder / "source.qvd", qvdb::Mode::read_only));
    } catch (const std::exception&) {
      return std::nullopt;
    }
  }

  // Each table goes forward whole, or stays as it was and is reported.
  void expectWholeTables(const intents::RecoveryPlan& plan,
                         const std::map<uint64_t, Records>& before,
                         const std::map<uint64_t, Records>& after, const Effects& ofTheCall) {
    const std::map<uint64_t, int> slots = {{Workbench::kNotes, 0}, {Workbench::kRecords, 2}};
    if (plan.intents.size() != 2) return;
    EXPECT_TRUE(plan.intents[1].isBegun || !plan.contradicted.empty());
    for (const auto& [table, slot] : slots) {
      // A transaction that cannot be completed everywhere is not begun where nothing of it is seen.
      if (plan.contradicted.contains(slot) || !plan.intents[0].isBegun) {
        EXPECT_EQ(after.at(table), before.at(table)) << "changed, though it was contradicted";
        continue;
      }
      for (const auto& [record, payload] : effects_) {
        if (record.first != table || ofTheCall.contains(record)) continue;
        const auto found = after.at(table).find(record.second);
        ASSERT_EQ(found != after.at(table).end(), payload.has_value()) << record.second;
        if (payload) {
          EXPECT_EQ(found->second, *payload) << record.second;
        }
      }
    }
  }

  Workbench bench_;
  Bytes sound_;
  Bytes crashed_;
  std::vector<std::pair<int64_t, Bytes>> patches_;
  Effects effects_;
  uint64_t contradicted_ = 0;
};

TEST_F(CallsAfterACrash, LoseNothingOfEitherSide) {
  uint64_t states = 0;
  const size_t apart = testEverything() ? 1 : 5;
  const std::vector<ScriptedCall>& all = scriptedCalls();
  for (size_t i = 0; i < all.size(); ++i) {
    for (size_t made = testEverything() ? 0 : i % apart; made <= patches_.size(); made += apart) {
      SCOPED_TRACE(all[i].symbol + " " + all[i].variant + " after " + std::to_string(made) +
                   " patches");
      bench_.reset();
      writeFile(bench_.folder / "source.qvd", stateAfter(made));
      call(all[i], made == 0);
      const Bytes left = readFile(bench_.folder / "source.qvd");
      expectKept(stateAfter(made), left);
      ++states;
      if (HasFailure()) return;
    }
  }
  reportCount("calls of C functions between a crash and its recovery", states);
  reportCount("of these, with a table that is reported", contradicted_);
}

}  // namespace
}  // namespace qvdbase::test
