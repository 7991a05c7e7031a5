// Compacting a file that stays open.
#pragma once

#include <qvdbase/qvdb/maintenance.hpp>

#include <cstdint>
#include <filesystem>
#include <functional>
#include <vector>

#include "products/target_file.h"

namespace qvdbase::upkeep {

// Where a record was, and where it is now.
struct Move {
  int64_t from = 0;
  int64_t to = 0;
};

// All of them, in the order of the places where they were.
using MovesFunction = std::function<std::vector<Move>()>;

// Gives the finished file its name.
using PlaceFunction = std::function<void(products::TargetFile& made, const MovesFunction& moves)>;

struct OpenSource {
  int16_t number = 0;           // under which it is open, exclusively
  std::filesystem::path path;   // for messages
  std::filesystem::path place;  // the same, absolute
};

// Compacts the file into a new one in its place, which `place` puts there when it is complete.
// Throws Error as qvdb::compact().
qvdb::CompactReport compactOpen(const OpenSource& source, const qvdb::ProgressFunction& progress,
                                const qvdb::CompactOptions& options, const PlaceFunction& place);

}  // namespace qvdbase::upkeep
