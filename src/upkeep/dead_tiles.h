// Blocks that no chain leads to, where everything else is whole: whether each is what an operation
// leaves.
//
// An operation leaves the old block of a record that has moved or was deleted, and table data that
// was replaced. A survey decides the same by more, for files of any kind (labels.cpp,
// scanner.cpp). Here every doubt is a no: then the file is surveyed.
#pragma once

#include "recovery/survey/byte_source.h"
#include "recovery/survey/survey.h"
#include "upkeep/tiles.h"

namespace qvdbase::upkeep {

// Whether a salvage would bring nothing back of what is not live. It is known which tiles are, and
// the chains of all tables are whole. `directory` is what the tiles were read with; it may get
// owners more.
bool areDeadTilesExplained(const survey::ByteSource& source, const Tiles& tiles,
                           survey::Survey* directory);

}  // namespace qvdbase::upkeep
