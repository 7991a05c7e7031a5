#include "recovery/survey/pieces.h"

namespace qvdbase::survey {

std::vector<std::vector<size_t>> piecesOf(const std::vector<size_t>& successors) {
  const size_t count = successors.size();
  std::vector<bool> isFollowing(count, false);
  for (const size_t each : successors) {
    if (each < count) isFollowing[each] = true;
  }
  std::vector<std::vector<size_t>> pieces;
  std::vector<bool> isTaken(count, false);
  const auto takeFrom = [&](size_t i) {
    if (isTaken[i]) return;
    pieces.emplace_back();
    for (; i < count && !isTaken[i]; i = successors[i]) {
      isTaken[i] = true;
      pieces.back().push_back(i);
    }
  };
  for (size_t i = 0; i < count; ++i) {
    if (!isFollowing[i]) takeFrom(i);
  }
  for (size_t i = 0; i < count; ++i) takeFrom(i);
  return pieces;
}

}  // namespace qvdbase::survey
