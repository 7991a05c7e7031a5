// What the chain of one table was about to become when an operation on it was interrupted.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "recovery/survey/survey.h"

namespace qvdbase::mend {

struct Completion {
  std::vector<uint32_t> chain;     // blocks of the survey, in order
  std::vector<uint32_t> gone;      // records whose deletion is finished
  std::vector<std::string> steps;  // what is done, a sentence each
  std::string refusal;             // why there is no such chain, or not just one; else empty
  tablePart1 slot = {};            // with the numbers and positions that belong to that chain
};

// How sentences about the table of that slot begin: "table 'notes': ".
std::string aboutTable(const tablePart1& slot);

Completion completeChain(const survey::Survey& survey, const survey::Table& table);

}  // namespace qvdbase::mend
