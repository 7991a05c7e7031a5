// How well blocks fit the database of this file, and one that begins elsewhere in it, by their
// links.
#pragma once

#include <vector>

#include "recovery/survey/candidates.h"

namespace qvdbase::survey {

// How well a block's links fit a database.
enum class Fit {
  none,
  near,    // a neighbour is there, but names another block
  linked,  // a neighbour is there and names it
};

// Where a block belongs.
enum class Home { here, unknown, there };

class BlockFit {
 public:
  // Both must outlive the object, and no candidate may move.
  BlockFit(const Survey& survey, const std::vector<Candidate>& candidates);

  // The number of the candidate that begins at `position`, or kNoBlock.
  uint32_t candidateAt(int64_t position) const { return byPosition_.find(position); }

  // The block in use, or else the candidate, that begins at `position`; null if there is none.
  const Block* blockAt(int64_t position) const;

  // How well a block fits the database that begins at `origin`.
  Fit fit(const Block& block, int64_t origin) const;

  // Whether a block belongs here or to the database that begins at `origin`.
  Home homeOf(const Block& block, int64_t origin) const;

 private:
  bool isCopyOfOwn(const Block& block, int64_t origin) const;

  const Survey& survey_;
  const std::vector<Candidate>& candidates_;
  PositionIndex byPosition_;
};

}  // namespace qvdbase::survey
