// A new file with what is live in a database and nothing else, and the proof that it is one.
#pragma once

#include <cstdint>
#include <functional>
#include <vector>

#include "products/target_file.h"
#include "recovery/copy/database_writer.h"
#include "recovery/survey/byte_source.h"
#include "support/digest.h"
#include "upkeep/compact_open.h"
#include "upkeep/gathered_blocks.h"
#include "upkeep/live_database.h"

namespace qvdbase::upkeep {

// Where everything goes: header, directory, and table after table its data and its records.
struct LiveLayout {
  int64_t size = 0;  // of the new file
  std::vector<copy::TablePlace> tables;
};

LiveLayout layOut(const LiveDatabase& database, const Protection& protection);

// Where its records go from where they are, in the order of the latter.
std::vector<Move> movesOf(const LiveDatabase& database, const Protection& protection);

// A piece of the new file as it was written.
struct WrittenPiece {
  int64_t position = 0;
  size_t size = 0;
  support::Digest digest = {};
};

// Writes the new file. The header comes last, so that a file that is not finished is no database.
// `step` is called for each record and may throw. False when the source cannot be read, or is not
// what was surveyed; throws Error when the target cannot be written.
bool copyLive(const survey::ByteSource& source, const LiveDatabase& database,
              const LiveLayout& layout, const Protection& protection, products::TargetFile& target,
              const std::function<void()>& step, std::vector<WrittenPiece>* written,
              uint64_t* checksumsMade);

// Reads the new file back: it must hold what was written. `step` is called for each piece and may
// throw. False when anything differs or cannot be read.
bool holdsWhatWasWritten(const survey::ByteSource& copy, const std::vector<WrittenPiece>& written,
                         const std::function<void()>& step);

}  // namespace qvdbase::upkeep
