// Which places whole blocks among the candidates hold: what is there is part of a payload.
//
// A whole block holds no anchored one, and its end mark is its own: a torn append claims space into
// which other blocks were written, and what looks like its end mark is a byte of one of them.
#pragma once

#include <vector>

#include "recovery/survey/candidates.h"

namespace qvdbase::survey {

class WholeBlocks {
 public:
  // The candidates are in file order, and must outlive the object.
  explicit WholeBlocks(const std::vector<Candidate>& candidates);

  // Whether a whole block holds `position`.
  bool hold(int64_t position) const;

  // Where the first anchored candidate begins that does not begin before `position`; INT64_MAX if
  // there is none.
  int64_t nextAnchored(int64_t position) const { return nextAnchored_[numberFrom(position)]; }

 private:
  size_t numberFrom(int64_t position) const;
  bool hasOwnEnd(const Block& block, const std::vector<size_t>& furthest) const;

  const std::vector<Candidate>& candidates_;
  std::vector<int64_t> nextAnchored_;  // for each: where it or the next anchored one begins
  std::vector<int64_t> covered_;  // for each: where of it and all before it the last whole one ends
};

}  // namespace qvdbase::survey
