// Pieces of broken chains.
#pragma once

#include <cstddef>
#include <vector>

namespace qvdbase::survey {

// Splits the numbers below `successors.size()` into pieces, in each of which one number follows the
// other. A number that none follows has a successor that is not below that size. The pieces are in
// the order of their first numbers, circles after all others. Where two numbers have the same
// successor, it follows the first of them.
std::vector<std::vector<size_t>> piecesOf(const std::vector<size_t>& successors);

}  // namespace qvdbase::survey
