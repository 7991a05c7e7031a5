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
//   a back link or the slot's last position is that  point it at the predecessor, or at the last
//     of a record that was moved
//   one end or one side of a record is unlinked      finish its deletion
//   the chain is complete but the count is not its   count the chain
//   the slot has the data's position of the source   point it at the data
//     of a pack
//
// What it comes to is then checked as a file is, before anything is written: it must have no error,
// and hold every record that a salvage would bring back, save those whose deletion is finished.
#pragma once

#include <qvdbase/qvdb/mend.hpp>

#include <cstdint>
#include <string>
#include <vector>

#include "recovery/survey/byte_source.h"
#include "recovery/survey/patched_source.h"
#include "recovery/survey/survey.h"

namespace qvdbase::mend {

struct MendPlan {
  std::vector<survey::Patch> patches;  // in the order in which they are to be written
  int64_t size = 0;                // that of the mended file: less than before where it is cut off
  std::vector<std::string> steps;  // what is done, a sentence each
  std::string refusal;             // why nothing can be done; else empty
  int64_t unreadableAt = -1;       // what the host could not read: nothing is known of it then
  uint64_t leftOver = 0;           // whole blocks of writes that were cut off, which stay
  uint64_t leftOverData = 0;       // of these, table data
};

MendPlan planMend(const survey::ByteSource& source, qvdb::CutOffWrites cutOff);

}  // namespace qvdbase::mend
