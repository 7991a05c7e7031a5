// What is live in a database file: header, tables, and which blocks hold their records and data.
// Taken from a survey, and believed only if everything fits together.
#pragma once

#include <qvdbase/qvdb/error.hpp>

#include <cstdint>
#include <functional>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "format/layout.h"
#include "recovery/copy/database_writer.h"
#include "recovery/survey/byte_source.h"
#include "recovery/survey/survey.h"

namespace qvdbase::upkeep {

struct LiveTable {
  tablePart1 slot{};
  std::string name;
  std::span<const uint32_t> records;  // their blocks, in the order of the chain
  uint32_t data = survey::kNoBlock;
};

struct LiveDatabase {
  const survey::Survey& survey;  // whose blocks they are
  copy::Header header{};
  int16_t slotCount = 0;
  std::vector<LiveTable> tables{};

  const survey::Block& block(uint32_t number) const { return survey.blocks[number]; }
  int64_t blocksStart() const { return format::directoryEnd(slotCount); }
  uint64_t recordCount() const;
};

// What does not fit.
struct LiveDamage {
  qvdb::Reason reason;  // directory_damaged, chain_damaged, data_damaged
  std::string why;
  std::optional<uint64_t> record;  // the number in the chain, counted from 1
};

// Takes all of it from the survey of `source`. Each link of a chain must lead to a record of the
// table whose back link names the record before, and after as many records as the slot counts the
// chain must end, at the slot's last position. Every block must lie in the file. Data that a pack
// has moved is found. `step` is called for each record and may throw.
std::optional<LiveDamage> takeLive(const survey::ByteSource& source,
                                   const std::function<void()>& step, LiveDatabase* database);

}  // namespace qvdbase::upkeep
