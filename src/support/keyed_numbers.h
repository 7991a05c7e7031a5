// Sorting numbers by 64-bit keys, without a comparison: for the blocks of large files, where a sort
// that looks each key up waits for the memory at every step.
#pragma once

#include <cstdint>
#include <vector>

namespace qvdbase::support {

struct KeyedNumber {
  uint64_t key;
  uint32_t number;
  uint32_t note;  // free for the caller
};

// Numbers with equal keys stay in their order. Takes as much memory again meanwhile, and the same
// time whatever the keys are.
void sortByKey(std::vector<KeyedNumber>* items);

}  // namespace qvdbase::support
