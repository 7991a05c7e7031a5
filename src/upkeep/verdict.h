// What a copy of a database would leave out, judged before it is made: a copy that follows the
// chains makes a damaged database into a sound one with less in it.
#pragma once

#include <cstdint>
#include <filesystem>
#include <string>

#include "recovery/survey/byte_source.h"
#include "recovery/survey/survey.h"

namespace qvdbase::upkeep {

struct Verdict {
  uint64_t errors = 0;  // that check finds, without those of data that a pack has moved
  std::string firstError;
  uint64_t records = 0;     // that a salvage would bring back and the copy would not have
  uint64_t dataBlocks = 0;  // the same of table data
  uint64_t cutOff = 0;      // of the records, those of writes that were cut off
  std::string firstCutOff;  // where the first of these lies
  uint64_t tornBlocks = 0;  // of writes that were cut off: nothing brings them back
  bool grows = false;       // the copy would be larger than the source

  bool isClean() const { return errors == 0 && records == 0 && dataBlocks == 0 && !grows; }
  std::string why() const;
};

// Judges a copy of what the chains of the counted tables lead to.
Verdict judgeCopy(const qvdbase::survey::ByteSource& source, const qvdbase::survey::Survey& survey);

}  // namespace qvdbase::upkeep
