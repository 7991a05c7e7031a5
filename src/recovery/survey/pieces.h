// Pieces of broken chains.
#pragma once

#include <cstddef>
#include <vector>

namespace qvdbase::survey {

// Splits the numbers below `successors.size()` into pieces that follow each other; those that no
// other follows have a successor beyond all. Pieces that begin with one that follows no other come
// first, then circles, each in the order of their beginnings. Where two have the same successor,
// the first of them takes it.
std::vector<std::vector<size_t>> piecesOf(const std::vector<size_t>& successors);

}  // namespace qvdbase::survey
