// A new file with what is live in a database and nothing else, and the proof that it is one.
#pragma once

#include <cstdint>
#include <functional>
#include <vector>

#include "products/target_file.h"
#include "recovery/copy/database_writer.h"
#include "recovery/survey/byte_source.h"
#include "upkeep/live_database.h"

namespace qvdbase::upkeep {

// Where everything goes: header, directory, and table after table its data and its records.
struct LiveLayout {
  int64_t size = 0;  // of the new file
  std::vector<copy::TablePlace> tables;
};

LiveLayout layOut(const LiveDatabase& database);

// Writes the new file. The header comes last, so that a file that is not finished is no database.
// `step` is called for each record and may throw. False when the source cannot be read; throws
// Error when the target cannot be written.
bool copyLive(const survey::ByteSource& source, const LiveDatabase& database,
              const LiveLayout& layout, products::TargetFile& target,
              const std::function<void()>& step);

// Reads the new file back: it must hold byte for byte what the source gives now. False when
// anything differs or cannot be read.
bool isLiveCopy(const survey::ByteSource& copy, const survey::ByteSource& source,
                const LiveDatabase& database, const LiveLayout& layout,
                const std::function<void()>& step);

}  // namespace qvdbase::upkeep
