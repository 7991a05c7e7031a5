// The plan of a mend: which bytes complete what an interrupted operation has begun.
//
// The order in which the operations write allows few states, and in most of them only one
// completion fits everything that is there. The plan is made for those, table by table, from the
// two walks of its chain:
//
//   a record is linked but not counted               count it
//   the link of the last record leads nowhere        clear it (its append was never counted)
//   the walk from the front breaks, the one from     restore the links that break it
//     the back is complete
//   a back link, or the slot's last position, leads  point it at the predecessor, or at the last
//     to where a record was before it was moved        record
//   a record is unlinked on one of its two sides     finish its deletion
//   the chain is complete, but not as long as the    count the chain
//     slot says
//   a pack has left the position in the slot that    point it at the data
//     the data had in the source
//   transactions are committed, but not in place     complete them
//
// Before anything is written, the result is checked as a file would be: it must have no error, and
// hold every record that a salvage would bring back, except those whose deletion is finished.
#pragma once

#include <qvdbase/qvdb/mend.hpp>

#include <cstdint>
#include <string>
#include <vector>

#include "intents/recovery.h"
#include "recovery/survey/byte_source.h"
#include "recovery/survey/patched_source.h"
#include "recovery/survey/survey.h"

namespace qvdbase::mend {

struct MendPlan {
  std::vector<survey::Patch> patches;  // in the order in which they are to be written
  int64_t size = 0;  // of the mended file: smaller than before when its end is cut off
  std::vector<std::string> steps;  // what is done, a sentence each
  std::string refusal;             // why nothing can be done; else empty
  int64_t unreadableAt = -1;       // where the host could not read; then nothing is planned
  uint64_t leftOver = 0;           // whole blocks of writes that were cut off, which are left alone
  uint64_t leftOverData = 0;       // of these, table data
};

// `source` is the file with its open transactions laid over it; completing these is the first step
// of the plan, and not among its patches.
MendPlan planMend(const survey::ByteSource& source, const intents::RecoveryPlan& transactions,
                  qvdb::CutOffWrites cutOff);

}  // namespace qvdbase::mend
