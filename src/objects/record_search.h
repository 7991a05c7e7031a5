// Locating a record: where it was found before, by the table's index, or along the chain.
#pragma once

#include <qvdbase/qvdb/record.hpp>

#include "QVDbase/record_find.h"
#include "objects/open_database.h"
#include "objects/walks/chain_walker.h"

namespace qvdb::detail {

// Whether a record was located, and how.
enum class Located {
  no,          // there is none
  inPlace,     // where it was found before; its neighbours lead to it
  byIndex,     // its neighbours lead to it; its table was not read, so slotSize is 0
  alongChain,  // by the walk from the first record
  atEarlyEnd,  // the same, but the chain ends with it before its count: it is never changed
};

// Locates a record of a table; of several with the identifier, the first. The caller holds a
// SavedPosition. Throws chain_damaged where the walk reaches damage before the record.
Located locate(const Operation& operation, Id table, Id record,
               qvdbase::engine::FoundRecord* found);

// The same for one that was found before; it is searched only when it is no longer there.
Located locate(const Operation& operation, Id table, const Record& record,
               qvdbase::engine::FoundRecord* found);

// Reads the table, and the record that should be at a position. False when it is not there, or
// when its neighbours, or the slot where it has none, do not lead to it.
bool readInChain(const Operation& operation, Id table, Id record, int64_t position,
                 qvdbase::engine::FoundRecord* found);

// Reads the table, and whichever record is at a position, for a walk that begins with it. False
// when there is none, or when neither side of the chain leads to it: a record beside a damaged one
// is good enough for that.
bool readReachable(const Operation& operation, Id table, int64_t position,
                   qvdbase::engine::FoundRecord* found);

// Whether the walk has ended early because others have made the chain shorter since it began. Not
// in a database that is open exclusively.
bool hasBecomeShorter(const Operation& operation, const ChainWalker& walker);

}  // namespace qvdb::detail
