#include "recovery/survey/batches.h"

#include <algorithm>
#include <functional>
#include <unordered_map>

#include "recovery/survey/pieces.h"
#include "support/seeded_hash.h"

namespace qvdbase::survey {
namespace {

using Batch = std::vector<Block*>;

int64_t latestPosition(const std::vector<Block*>& blocks) {
  int64_t latest = 0;
  for (const Block* each : blocks) latest = std::max(latest, each->position);
  return latest;
}

// The latest batch in the file comes first.
std::vector<Batch> latestFirst(const std::vector<Block*>& apart) {
  std::unordered_map<int64_t, size_t, support::SeededHash> places;  // in `apart`
  for (size_t i = 0; i < apart.size(); ++i) places.emplace(apart[i]->position, i);
  std::vector<size_t> successors;
  for (const Block* each : apart) {
    const auto next = places.find(each->next);
    successors.push_back(next != places.end() ? next->second : apart.size());
  }
  std::vector<Batch> batches;
  for (const std::vector<size_t>& piece : piecesOf(successors)) {
    batches.emplace_back();
    for (const size_t place : piece) batches.back().push_back(apart[place]);
  }
  std::ranges::sort(batches, std::ranges::greater(), latestPosition);
  return batches;
}

// How many of the batches were never counted.
size_t countUncounted(const std::vector<Batch>& batches, const std::vector<Block*>& single,
                      uint64_t neverCounted) {
  const int64_t latestSingle = latestPosition(single);
  size_t chosen = 0;
  bool fits = false;
  uint64_t sum = 0;
  for (size_t count = 0;; ++count) {
    const bool isFitting = neverCounted <= sum + single.size();
    const bool isLatest = count > 0 && latestPosition(batches[count - 1]) > latestSingle;
    if (!fits || (isFitting && isLatest)) {
      chosen = count;
      fits = isFitting;
    }
    if (count == batches.size() || sum + batches[count].size() > neverCounted) return chosen;
    sum += batches[count].size();
  }
}

}  // namespace

std::vector<Block*> uncountedBatches(const std::vector<Block*>& apart,
                                     const std::vector<Block*>& single, uint64_t neverCounted) {
  std::vector<Batch> batches = latestFirst(apart);
  batches.resize(countUncounted(batches, single, neverCounted));
  std::vector<Block*> uncounted;
  for (const Batch& batch : batches) uncounted.insert(uncounted.end(), batch.begin(), batch.end());
  return uncounted;
}

}  // namespace qvdbase::survey
