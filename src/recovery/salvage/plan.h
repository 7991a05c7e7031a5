// The plan of a salvage: which blocks of the source go where in the new file.
#pragma once

#include <qvdbase/qvdb/salvage.hpp>

#include <string>
#include <vector>

#include "format/Aliment8.h"
#include "platform/handles/file_access.h"
#include "recovery/survey/survey.h"

namespace qvdbase::salvage {

// What is salvaged, and how. All of it must outlive the objects that are made with it.
struct Job {
  const survey::ByteSource& source;
  const survey::Survey& survey;
  const qvdb::SalvageOptions& options;
  const platform::FileAccess* access = nullptr;  // the source's, for new files; null: the usual one
};

// A table of the new file.
struct PlannedTable {
  tablePart1 slot = {};           // what is taken over; the writer sets counts and positions
  std::vector<uint32_t> records;  // blocks of the survey, in chain order
  uint32_t data = survey::kNoBlock;
  std::string name() const { return format::storedName(slot); }
};

struct Plan {
  internal_Head1 header = {};
  std::vector<PlannedTable> tables;
  std::vector<int> destination;  // of each block of the survey: the table's place, or -1
  uint64_t tablesLeftOut = 0;
  std::vector<std::string> notes;
};

// `wanted` is a version of a record that is to be brought back, whatever its label; kNoBlock for
// none.
Plan makePlan(const survey::Survey& survey, const qvdb::SalvageOptions& options,
              uint32_t wanted = survey::kNoBlock);

// Sorts blocks that no chain holds any more: those that still name each other stay together, and
// the pieces follow in the order of the file.
std::vector<uint32_t> inLinkOrder(const survey::Survey& survey, std::vector<uint32_t> blocks);

// The members of a table in the order of its chain: what the walk from the front reaches, then
// pieces that no end leads to, then what only the walk from the back reaches. Where a chain leads
// to a block that is no member, an older version takes its place.
std::vector<uint32_t> chainOrder(const survey::Survey& survey, const survey::Table& table,
                                 const std::vector<uint32_t>& members);

qvdb::FoundBlock describe(const survey::Survey& survey, uint32_t number);

}  // namespace qvdbase::salvage
