// Which candidates are parts of payloads, as where a database is stored in one.
#pragma once

#include <vector>

#include "recovery/survey/candidates.h"

namespace qvdbase::survey {

// One of those that compete for the bytes of the gaps.
struct Candidate {
  Block block;
  bool isAnchored = false;  // a neighbour in this file names it
  bool isNested = false;    // it is part of a payload
};

// Judges the candidates, which must be in file order. Of each place, also in file order, `begin` is
// where a database seems to begin, and `end` what it cannot reach beyond.
void judgeNested(const Survey& survey, const std::vector<Range>& places, CandidateReader* reader,
                 std::vector<Candidate>* candidates);

}  // namespace qvdbase::survey
