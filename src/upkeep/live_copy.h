// A new file with what is live in a database and nothing else, and the proof that it is one.
#pragma once

#include <cstdint>
#include <functional>

#include "platform/handles/new_file.h"
#include "recovery/survey/byte_source.h"
#include "upkeep/live_database.h"

namespace qvdbase::upkeep {

// Where everything goes: header, directory, and table after table its data and its records.
class LiveLayout {
 public:
  LiveLayout(const qvdbase::survey::ByteSource& source, const LiveDatabase& database);

  uint64_t size() const { return static_cast<uint64_t>(end_); }

  struct Table {
    int64_t data = 0;  // 0 for none
    int64_t firstRecord = 0;
    int64_t lastRecord = 0;
    int64_t lastWrittenRecord = 0;
  };
  const std::vector<Table>& tables() const { return tables_; }

 private:
  int64_t end_ = 0;
  std::vector<Table> tables_;
};

enum class CopyOutcome { done, cannotRead, cannotWrite };

// Writes the new file. The header comes last, so that a file that is not finished is no database.
// `step` is called for each record and may throw.
CopyOutcome copyLive(const qvdbase::survey::ByteSource& source, const LiveDatabase& database,
                     const LiveLayout& layout, qvdbase::platform::NewFile* target,
                     const std::function<void()>& step);

// Reads the new file back and compares it with the source: header, tables, data, every record with
// its payload, all in order, and nothing else in it. False when anything differs or cannot be read.
bool isLiveCopy(const qvdbase::survey::ByteSource& copy, const qvdbase::survey::ByteSource& source,
                const LiveDatabase& database, const LiveLayout& layout,
                const std::function<void()>& step);

}  // namespace qvdbase::upkeep
