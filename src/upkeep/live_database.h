// What is live in a database file: header, tables, and which blocks hold their records and data.
#pragma once

#include <qvdbase/qvdb/error.hpp>

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "format/layout.h"
#include "recovery/copy/database_writer.h"
#include "recovery/survey/byte_source.h"
#include "recovery/survey/survey.h"

namespace qvdbase::upkeep {

// What a copy has to know of a block.
struct LiveBlock {
  int64_t position = 0;
  uint32_t length = 0;
  uint32_t capacity = 0;
  survey::BlockKind kind = survey::BlockKind::record;
  bool isCut = false;    // its capacity reaches over other blocks
  bool isFirst = false;  // of its table's records in the copy
  bool isLast = false;

  static LiveBlock of(const survey::Block& block) {
    return {block.position, block.length, block.capacity, block.kind, block.isCut()};
  }
  int64_t dataPos() const { return position + survey::headSizeOf(kind); }
  int64_t claimedEnd() const { return dataPos() + int64_t{capacity} + 1; }
};

struct LiveTable {
  tablePart1 slot{};
  std::string name;
  std::vector<LiveBlock> records;  // in the order of the chain
  std::optional<LiveBlock> data;

  void setRecords(std::vector<LiveBlock> chain);
};

struct LiveDatabase {
  copy::Header header{};
  int16_t slotCount = 0;
  std::vector<LiveTable> tables{};

  int64_t blocksStart() const { return format::directoryEnd(slotCount); }
  uint64_t recordCount() const;
};

// What does not fit.
struct LiveDamage {
  qvdb::Reason reason;  // directory_damaged, chain_damaged, data_damaged
  std::string why;
  std::optional<uint64_t> record;  // the number in the chain, counted from 1
};

// Takes header, directory and names from the survey of `source`, which needs no blocks for that.
std::optional<LiveDamage> takeDirectory(const survey::ByteSource& source,
                                        const survey::Survey& survey, LiveDatabase* database);

// Takes all of it from the survey of `source`. Each link of a chain must lead to a record of the
// table whose back link names the record before, and after as many records as the slot counts the
// chain must end, at the slot's last position. Every block must lie in the file. Data that a pack
// has moved is found. `step` is called for each record and may throw.
std::optional<LiveDamage> takeLive(const survey::ByteSource& source, const survey::Survey& survey,
                                   const std::function<void()>& step, LiveDatabase* database);

}  // namespace qvdbase::upkeep
