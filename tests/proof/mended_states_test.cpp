// Mending and compacting every state in which an interrupted operation can leave a file. Each is
// mended or refused: where it is mended, check finds no error and no record is lost; where it is
// refused, not a byte has changed. A compaction of it refuses, or loses nothing that salvage finds.
#include <gtest/gtest.h>
#include <qvdbase/qvdb.hpp>

#include <algorithm>
#include <filesystem>
#include <set>

#include "kit/old_file.h"
#include "kit/recorded_calls.h"
#include "kit/test_extent.h"
#include "proof/base_states.h"
#include "proof/operations.h"
#include "recovery/check/base_files.h"
#include "recovery/salvage/salvage_kit.h"

namespace qvdbase::test {
namespace {

using Effect = Operation::Effect;
using Key = std::pair<uint64_t, uint64_t>;
using Records = std::map<Key, Bytes>;

std::vector<Write> recorded(const TempFolder& folder, const BaseState& base,
                            const Operation& operation) {
  writeFile(folder / "recorded.qvd", base.bytes);
  RecordedCalls host;
  host.setTime(5000);
  operation.run(folder / "recorded.qvd");
  return host.writes("recorded.qvd");
}

// At and around each place where the writes continue elsewhere; everything: after every byte.
std::set<size_t> cuts(const std::vector<Write>& writes) {
  const size_t total = byteCount(writes);
  std::set<size_t> result = {0, total};
  for (size_t n = 0; testEverything() && n < total; ++n) result.insert(n);
  size_t end = 0;
  for (const Write& each : ranges(writes)) {
    end += each.bytes.size();
    for (size_t near = end > 4 ? end - 4 : 0; near <= end + 1; ++near) {
      if (near <= total) result.insert(near);
    }
  }
  return result;
}

class MendedStates : public testing::TestWithParam<BaseState> {
 protected:
  void put(const Bytes& bytes) {
    std::filesystem::remove(path_);
    writeFile(path_, bytes);
    makeOld(path_);
  }

  size_t mendAgain(qvdb::CutOffWrites cutOff) {
    makeOld(path_);
    return qvdb::mend(path_, {.cut_off = cutOff}).steps.size();
  }

  // What `bytes` hold of the records before the operation.
  void expectRecords(const Records& found, const Operation& operation) {
    for (const auto& [key, payload] : before_) {
      const bool isNamed = key.second == operation.record;
      const auto place = found.find(key);
      if (place == found.end()) {
        EXPECT_TRUE(isNamed && operation.effect == Effect::removes) << "lost " << key.second;
      } else if (!isNamed || operation.effect == Effect::none) {
        EXPECT_EQ(place->second, payload) << "payload of " << key.second;
      }
    }
  }

  void expectMended(const Bytes& bytes, const Operation& operation, qvdb::CutOffWrites cutOff) {
    put(bytes);
    try {
      const qvdb::MendReport report = qvdb::mend(path_, {.cut_off = cutOff});
      const Bytes mended = readFile(path_);
      EXPECT_TRUE(!report.steps.empty() || mended == bytes);
      const Checked checked = checkBytes(mended);
      EXPECT_EQ(checked.report.errors, 0u) << checked.text();
      if (mended.size() >= 4630) expectRecords(recordsOf(readDatabase(mended)), operation);
      // What is linked or discarded may show itself only when a link is cleared.
      if (cutOff != qvdb::CutOffWrites::keep) mendAgain(cutOff);
      EXPECT_EQ(mendAgain(cutOff), 0u);
      ++mended_;
    } catch (const qvdb::Error& error) {
      EXPECT_EQ(error.reason(), qvdb::Reason::damaged) << error.what();
      EXPECT_EQ(readFile(path_), bytes);
      ++refused_;
      refusals_.insert(error.what());
    }
  }

  void expectCompacted(const Bytes& bytes, const Operation& operation) {
    put(bytes);
    try {
      qvdb::compact(path_);
    } catch (const qvdb::Error& error) {
      EXPECT_EQ(readFile(path_), bytes) << error.what();
      return;
    }
    expectRecords(recordsOf(readDatabase(path_)), operation);
    const Records found = takenRecords(bytes);
    for (const auto& each : recordsOf(readDatabase(path_))) EXPECT_TRUE(found.contains(each.first));
    EXPECT_EQ(found.size(), recordsOf(readDatabase(path_)).size());
  }

  const TempFolder folder{TempFolder::inMemory()};
  const std::filesystem::path path_ = folder / "a.qvd";
  Records before_;
  uint64_t mended_ = 0;
  uint64_t refused_ = 0;
  std::set<std::string> refusals_;
};

TEST_P(MendedStates, AreSoundAndLoseNothing) {
  const BaseState& base = GetParam();
  before_ = recordsOf(readDatabase(base.bytes));
  for (const Operation& operation : operationsOn(base)) {
    const std::vector<Write> writes = recorded(folder, base, operation);
    size_t i = 0;
    for (const size_t n : cuts(writes)) {
      SCOPED_TRACE(operation.name + ", " + std::to_string(n) + " of " +
                   std::to_string(byteCount(writes)) + " bytes");
      const Bytes bytes = applied(base.bytes, writes, n);
      for (const auto cutOff :
           {qvdb::CutOffWrites::keep, qvdb::CutOffWrites::link, qvdb::CutOffWrites::discard}) {
        if (testEverything() || cutOff == qvdb::CutOffWrites::keep || i % 2 == 0) {
          expectMended(bytes, operation, cutOff);
        }
      }
      expectCompacted(bytes, operation);
      ++i;
      if (HasFailure()) return;
    }
    // Between two whole writes nothing is refused.
    std::vector<Write> some;
    for (const Write& each : ranges(writes)) {
      some.push_back(each);
      SCOPED_TRACE(operation.name + ", " + std::to_string(some.size()) + " whole writes");
      put(applied(base.bytes, some));
      EXPECT_NO_THROW(qvdb::mend(path_));
      if (HasFailure()) return;
    }
  }
  reportCount("interrupted writes, mended", mended_);
  reportCount("interrupted writes, refused by mend", refused_);
}

std::vector<BaseState> soundStates() {
  std::vector<BaseState> sound = baseStates();
  std::erase_if(sound, [](const BaseState& each) { return !each.isSound; });
  return sound;
}

std::string nameOfState(const testing::TestParamInfo<BaseState>& info) {
  std::string name = info.param.name;
  std::replace(name.begin(), name.end(), ' ', '_');
  return name;
}

INSTANTIATE_TEST_SUITE_P(On, MendedStates, testing::ValuesIn(soundStates()), nameOfState);

}  // namespace
}  // namespace qvdbase::test
