// Replacing old identifiers by new ones.
#include "maintenance/id_pairs.h"

#include <algorithm>
#include <cstring>

using namespace qvdbase::maintenance;

namespace qvdbase::maintenance {

bool IdPairs::begin(uint32_t expected, uint64_t likely) {
  platform::Buffer array(std::min<uint64_t>(expected, likely) * sizeof(UUIDMapping));
  if (!array) return false;
  array_ = std::move(array);
  exist_ = true;
  count_ = 0;
  written_ = 0;
  return true;
}

bool IdPairs::write(UUIDMapping pair) {
  const uint64_t offset = cursor_ * sizeof pair;
  if (offset + sizeof pair > array_.size() && !grow(cursor_ + 1)) return false;
  std::memcpy(array_.data() + offset, &pair, sizeof pair);
  written_ = std::max(written_, cursor_ + 1);
  return true;
}

// Doubles, so that growing pair by pair costs no more than copying everything once.
bool IdPairs::grow(uint64_t needed) {
  platform::Buffer larger(std::max(needed, 2 * written_) * sizeof(UUIDMapping));
  if (!larger) return false;
  std::memcpy(larger.data(), array_.data(), static_cast<size_t>(written_) * sizeof(UUIDMapping));
  array_ = std::move(larger);
  return true;
}

void IdPairs::buildIndex() {
  if (indexed_) return;
  // What was counted without being written matches nothing.
  const uint64_t searched = std::min(count_, written_);
  const auto* pairs = reinterpret_cast<const UUIDMapping*>(array_.data());
  newOfOld_.reserve(static_cast<size_t>(searched));
  for (uint64_t i = 0; i < searched; ++i) {
    newOfOld_.try_emplace(pairs[i].oldID, pairs[i].newID);  // the first one stays
  }
  indexed_ = true;
}

bool IdPairs::convert(qvrzOneCategoryRecord* record) {
  buildIndex();
  for (int32_t i = 0; i < record->secondIDCount; ++i) {
    const auto found = newOfOld_.find(record->secondIDs[i]);
    if (found == newOfOld_.end()) return false;
    record->secondIDs[i] = found->second;
  }
  return true;
}

}  // namespace qvdbase::maintenance

// The linear search, for callers with pairs of their own.
int InternalConvertOldCategoryID2New(qvrzOneCategoryRecord** record, const UUIDMapping* pairs,
                                     int32_t count) {
  if (pairs == nullptr || record == nullptr || *record == nullptr) return 0;
  if ((*record)->secondIDs == nullptr && (*record)->secondIDCount > 0) return 0;
  const UUIDMapping* end = pairs + std::max(count, 0);
  for (int32_t i = 0; i < (*record)->secondIDCount; ++i) {
    uint64_t& entry = (*record)->secondIDs[i];
    const UUIDMapping* found =
        std::find_if(pairs, end, [&](const UUIDMapping& pair) { return pair.oldID == entry; });
    if (found == end) return 0;
    entry = found->newID;
  }
  return 1;
}
