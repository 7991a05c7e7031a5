// Which blocks of a survey a salvage takes, and to which table each belongs.
#pragma once

#include <qvdbase/qvdb/salvage.hpp>

#include <cstdint>
#include <vector>

#include "recovery/salvage/plan.h"
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
};

class Selection {
 public:
  // All must outlive the object, except for `wanted`.
  Selection(const survey::Survey& survey, const qvdb::SalvageOptions& options,
            const Wanted& wanted);

  Taken take() const;

  // A block of a table that the directory does not have counts as lost, unless it may be a piece of
  // a payload. In an image it may as well be of another database.
  bool isTakenAsOrphan(const survey::Block& each) const;

  // The version in use, whose place in the chain the wanted one takes; kNoBlock for none. In a
  // group it is in that place.
  uint32_t replaced() const { return replaced_; }

 private:
  const survey::Block& block(uint32_t number) const { return survey_.blocks[number]; }
  bool gradeSuffices(const survey::Block& each) const;
  bool isOtherVersion(uint32_t number) const;
  uint32_t replacedBlock() const;
  void place(uint32_t number, Taken* taken) const;
  void placeRecord(uint32_t number, const survey::Block& each, Taken* taken) const;

  const survey::Survey& survey_;
  const qvdb::SalvageOptions& options_;
  const uint32_t wanted_;
  const bool takesOrphans_;
  const uint32_t replaced_;
};

}  // namespace qvdbase::salvage
