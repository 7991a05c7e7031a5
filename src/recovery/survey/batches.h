// Batches of records that were cut off before they were linked.
#pragma once

#include <cstdint>
#include <vector>

#include "recovery/survey/survey.h"

namespace qvdbase::survey {

// Of the records of one owner that are apart from their chain, the ones whose batch was never
// counted, if so many records were not. What name each other is a batch: counted as a whole, or not
// at all. Those that were not are the latest ones, as the blocks of a file are in the order in
// which they were written. Each block of `single`, of the same owner, may have been counted or not.
std::vector<Block*> uncountedBatches(const std::vector<Block*>& apart,
                                     const std::vector<Block*>& single, uint64_t neverCounted);

}  // namespace qvdbase::survey
