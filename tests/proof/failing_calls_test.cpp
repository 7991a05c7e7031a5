// Failing calls to the host: over a script of every exported C function, each call of each kind
// fails once, fails from then on, or moves only a part of its bytes. Whatever happens,
//
//   - a call that reports success has had its whole effect, and one that reports failure has
//     written the beginning of what it would have written, and nothing else;
//   - the file position is as stated, and outputs are as stated;
//   - no file stays open and no memory stays taken, but for what is stated;
//   - the handle works afterwards, and sees what a new one sees;
//   - what the file layer then writes reaches the file.
#include <gtest/gtest.h>
#include <qvdbase/QVFile.h>
#include <qvdbase/caches.h>
#include <qvdbase/qvdbase.h>

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <map>
#include <set>
#include <sstream>

#include "kit/database_fixture.h"
#include "kit/file_checker.h"
#include "kit/reaching_writes.h"
#include "kit/recorded_calls.h"
#include "kit/test_extent.h"
#include "proof/failures.h"
#include "proof/scripted_calls.h"

namespace qvdbase::test {
namespace {

using Files = std::vector<std::pair<std::string, Bytes>>;

int64_t positionOf(int16_t db) {
  int64_t position = -1;
  return QVFile().QVGetFilePos(db, &position) == 1 ? position : -1;
}

// What one attempt led to.
struct Outcome {
  bool succeeded = false;
  bool failed = false;  // something was made to fail
  Files files;
  std::vector<Write> writes;
};

// The bytes of a log, one by one.
std::vector<std::pair<int64_t, uint8_t>> flat(const std::vector<Write>& log,
                                              const std::string& file) {
  std::vector<std::pair<int64_t, uint8_t>> result;
  for (const Write& each : log) {
    if (each.file != file) continue;
    for (size_t i = 0; i < each.bytes.size(); ++i) {
      result.emplace_back(each.position + static_cast<int64_t>(i), each.bytes[i]);
    }
  }
  return result;
}

const Bytes& fileOf(const Files& files, const std::string& name) {
  static const Bytes none;
  for (const auto& [each, bytes] : files) {
    if (each == name) return bytes;
  }
  return none;
}

class FailingCalls : public testing::TestWithParam<ScriptedCall> {
 protected:
  Outcome attempt(const Failure* failure, int skip) {
    const ScriptedCall& scripted = GetParam();
    bench.reset();
    before_ = bench.files();
    RecordedCalls host;
    host.setTime(5000);
    host.setMicroseconds(6000);
    std::srand(1);  // identifiers are the same in each attempt
    bench.db = scripted.wantsHandle ? OpenDBaseW(bench.wide("source.qvd"), 3) : int16_t{0};
    EXPECT_EQ(bench.db != 0, scripted.wantsHandle);
    if (scripted.wantsHandle) QVFile().QVSeekFile(bench.db, 1, Workbench::kPosition);
    host.forget();
    host.heal();

    if (failure != nullptr) failure->plan(host, skip);
    Outcome outcome;
    outcome.succeeded = scripted.call(bench);
    outcome.failed = failure != nullptr && host.failed();
    host.heal();

    outcome.writes = host.writes();
    expectWritesReachTheFile();
    expectHandle(outcome);
    expectNothingLeft(host, outcome, failure);
    outcome.files = bench.files();
    return outcome;
  }

  // The position is as stated; the handle sees what a new one sees.
  void expectHandle(const Outcome& outcome) {
    const ScriptedCall& scripted = GetParam();
    if (!scripted.wantsHandle || !scripted.keepsHandle) return;
    const int64_t position = positionOf(bench.db);
    if (outcome.succeeded) {
      EXPECT_EQ(position, scripted.positionAfter);
    } else if (!scripted.failureMayMove) {
      EXPECT_EQ(position, Workbench::kPosition);
    }
    int32_t tables = -1;
    EXPECT_EQ(GetNumberOfTable(bench.db, &tables), 1);
    const Bytes file = readFile(bench.folder / "source.qvd");
    EXPECT_EQ(tables, static_cast<int32_t>(file.beAt(16, 2)));
    uint32_t records = 0;
    EXPECT_EQ(GetNumberOfRecords(bench.db, Workbench::kNotes, &records), 1);
    EXPECT_EQ(records, file.leAt(22 + 60, 4));
  }

  void expectNothingLeft(RecordedCalls& host, const Outcome& outcome, const Failure* failure) {
    const ScriptedCall& scripted = GetParam();
    if (scripted.wantsHandle && scripted.keepsHandle) {
      EXPECT_NE(CloseDBase(bench.db), 0);
    }
    const bool mayStay =
        outcome.succeeded ? scripted.successLeavesOpen : scripted.failureLeavesOpen;
    int stayed = 0;
    for (int16_t file = 1; file < 10; ++file) {
      if (positionOf(file) == -1) continue;
      ++stayed;
      CloseDBase(file);
      EXPECT_EQ(SearchForGDB2TCache(file), -1);
    }
    EXPECT_LE(stayed, mayStay ? 1 : 0) << "files that stay open";
    EXPECT_EQ(host.openDescriptors(), 0u);
    // The chunk of fill bytes is not freed after a failed write.
    const bool mayLeak = failure != nullptr && failure->kind == Call::write && !outcome.succeeded;
    EXPECT_LE(host.heldBlocks(), mayLeak ? 1u : 0u);
    host.releaseBlocks();
  }

  void expectFiles(const Outcome& outcome, const Outcome& whole) {
    if (outcome.succeeded) {
      ASSERT_EQ(outcome.files.size(), whole.files.size());
      for (size_t i = 0; i < whole.files.size(); ++i) {
        EXPECT_EQ(outcome.files[i].first, whole.files[i].first);
        EXPECT_TRUE(sameBytes(outcome.files[i].second, whole.files[i].second))
            << outcome.files[i].first;
      }
      return;
    }
    for (const auto& [name, bytes] : outcome.files) {
      const auto done = flat(outcome.writes, name);
      const auto wanted = flat(whole.writes, name);
      EXPECT_TRUE(done.size() <= wanted.size() &&
                  std::equal(done.begin(), done.end(), wanted.begin()))
          << name << ": not the beginning of what it would have written";
      if (bytes.empty()) {
        EXPECT_TRUE(name == "new.qvd" || name == "old.qvd") << name;
        continue;
      }
      const Bytes old = done.empty() || name != "old.qvd" ? fileOf(before_, name) : Bytes();
      std::vector<Write> log = outcome.writes;
      std::erase_if(log, [&, &file = name](const Write& each) { return each.file != file; });
      EXPECT_TRUE(sameBytes(bytes, applied(old, log))) << name;
    }
  }

  // Of a call that mends damage, and that takes what it could not read for damage: the blocks are
  // all where they were; only links and slots may change.
  void expectBlocksKept(const Outcome& outcome) {
    for (const auto& [name, bytes] : before_) {
      EXPECT_EQ(fileOf(outcome.files, name).size(), bytes.size()) << name;
    }
  }

  Workbench bench;
  Files before_;
};

TEST_P(FailingCalls, EndInTheStatedFailureOrInFullSuccess) {
  const ScriptedCall& scripted = GetParam();
  const Outcome whole = attempt(nullptr, 0);
  ASSERT_TRUE(whole.succeeded);
  const uint64_t attempts = tryAllFailures(
      50, [&](const Failure* failure, int skip) { return attempt(failure, skip); },
      [&](const Failure& failure, const Outcome& outcome) {
        const bool passesOver = scripted.passesOver.contains(failure.kind);
        if (failure.kind == Call::write && failure.isError && !passesOver) {
          EXPECT_FALSE(outcome.succeeded) << "success, although a write has failed";
        }
        if (isClock(failure.kind)) {
          EXPECT_TRUE(outcome.succeeded) << "a clock that fails is a clock that shows a late time";
        } else if (scripted.takesErrorForDamage && failure.kind == Call::read) {
          expectBlocksKept(outcome);
        } else if (!passesOver || (failure.kind == Call::write && outcome.succeeded)) {
          expectFiles(outcome, whole);
        }
      });
  reportCount("failing calls, calls of the script", 1);
  reportCount("failing calls, failures", attempts);
}

std::string nameOfCall(const testing::TestParamInfo<ScriptedCall>& info) {
  const ScriptedCall& call = info.param;
  return call.variant.empty() ? call.symbol : call.symbol + "_" + call.variant;
}

INSTANTIATE_TEST_SUITE_P(Of, FailingCalls, testing::ValuesIn(scriptedCalls()), nameOfCall);

// The C symbols that the library shows, but for its variables.
std::set<std::string> exportedFunctions() {
  std::ifstream in(QVDBASE_SOURCES "/src/exports/visible_symbols.txt");
  std::set<std::string> result;
  std::string language, symbol;
  for (std::string line; std::getline(in, line);) {
    std::istringstream words(line);
    if (words >> language >> symbol && language == "C") result.insert(symbol);
  }
  for (const char* variable :
       {"gbl_realReaden", "gbl_realWriten", "Gbl_Flush_Time", "gbl_Gdb2tDQ"}) {
    EXPECT_EQ(result.erase(variable), 1u) << variable;
  }
  return result;
}

TEST(TheScriptOfCalls, CoversEveryExportedFunction) {
  std::set<std::string> scripted;
  for (const ScriptedCall& call : scriptedCalls()) scripted.insert(call.symbol);
  EXPECT_EQ(scripted, exportedFunctions());
}

}  // namespace

void PrintTo(const ScriptedCall& call, std::ostream* out) {
  *out << call.symbol << " " << call.variant;
}

}  // namespace qvdbase::test
