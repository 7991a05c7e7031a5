// Interrupted packs: the new file of a pack that ends after any number of the bytes that it writes.
// It cannot be taken for the finished one, with the one exception that the format has: before the
// mark of an unfinished pack is written, the new file is a database with all tables and no records.
#include <gtest/gtest.h>
#include <qvdbase/qvdbase.h>

#include "kit/recorded_calls.h"
#include "kit/test_extent.h"
#include "kit/wide.h"
#include "proof/base_states.h"
#include "recovery/salvage/salvage_kit.h"

namespace qvdbase::test {
namespace {

constexpr size_t kVersionAt = 4;

std::vector<Write> writesOfPack(const TempFolder& folder, const Bytes& source) {
  writeFile(folder / "source.qvd", source);
  RecordedCalls host;
  host.setTime(5000);
  const WideText from((folder / "source.qvd").u16string());
  const WideText to((folder / "target.qvd").u16string());
  EXPECT_EQ(PackOneDB2NewW(from.data(), to.data(), 0, nullptr), 1);
  EXPECT_TRUE(host.writes("source.qvd").empty());
  return host.writes("target.qvd");
}

bool hasNoRecords(const Bytes& bytes) {
  for (size_t i = 0; i < kSlots; ++i) {
    if (decodeSlot(bytes, i).recordCount != 0) return false;
  }
  return true;
}

TEST(InterruptedPacks, AreNotTakenForFinishedOnes) {
  uint64_t files = 0;
  for (const BaseState& base : baseStates()) {
    if (!base.isSound) continue;
    SCOPED_TRACE(base.name);
    const TempFolder folder;
    const std::vector<Write> writes = writesOfPack(folder, base.bytes);
    const size_t total = byteCount(writes);
    EXPECT_EQ(readFile(folder / "source.qvd"), base.bytes);
    EXPECT_EQ(applied({}, writes), readFile(folder / "target.qvd"));
    EXPECT_EQ(takenRecords(applied({}, writes)), takenRecords(base.bytes));
    bool wasMarked = false;
    const size_t step = testEverything() ? 1 : 53;
    for (size_t n = 0; n < total; n += std::min(step, total - n)) {
      const Bytes bytes = applied({}, writes, n);
      const bool isMarked = bytes.size() >= 6 && bytes.beAt(kVersionAt, 2) == 101;
      // The last byte of all takes the mark away.
      EXPECT_TRUE(isMarked || !wasMarked || n + 1 == total) << n << " of " << total;
      wasMarked = wasMarked || isMarked;
      const Checked checked = checkBytes(bytes);
      if (checked.report.state == qvdb::CheckState::sound) {
        EXPECT_TRUE(!isMarked && hasNoRecords(bytes)) << n << " of " << total;
      }
      ++files;
      if (HasFailure()) return;
    }
    EXPECT_TRUE(wasMarked || base.records.empty());
  }
  reportCount("interrupted packs, files", files);
}

}  // namespace
}  // namespace qvdbase::test
