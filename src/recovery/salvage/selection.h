// Which blocks of a survey a salvage takes, and to which table each belongs.
#pragma once

#include <qvdbase/qvdb/salvage.hpp>

#include <cstdint>
#include <vector>

#include "recovery/survey/survey.h"

namespace qvdbase::salvage {

struct Group {
  std::vector<uint32_t> members;   // records that belong to the table, in file order
  std::vector<uint32_t> unlinked;  // records that were never counted, in file order
  uint32_t data = survey::kNoBlock;
  bool isPlanned = false;
  bool isEmpty() const { return members.empty() && unlinked.empty() && data == survey::kNoBlock; }
};

struct Taken {
  std::vector<Group> groups;     // by owner
  std::vector<uint32_t> strays;  // records that are no part of their table any more
  uint64_t nameless = 0;         // record blocks with the identifier 0, which are left out
  uint64_t trimmed = 0;          // records without their payload, left out, too

  // The version in use, which the wanted one is to replace; kNoBlock for none. Its group still has
  // it.
  uint32_t replaced = survey::kNoBlock;

  bool takesEveryOrphan = false;
  bool takesWholeOrphans = false;

  // Whether a block of a table that the directory does not have is taken. It counts as lost, unless
  // it may be a piece of a payload or, in an image of a device, a block of another database.
  bool takesOrphan(const survey::Survey& survey, const survey::Block& block) const {
    return takesEveryOrphan || (takesWholeOrphans && survey.isOrphan(block));
  }
};

// `wanted` as for makePlan().
Taken takeBlocks(const survey::Survey& survey, const qvdb::SalvageOptions& options,
                 uint32_t wanted);

}  // namespace qvdbase::salvage
