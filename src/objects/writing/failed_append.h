// What a change that failed has left at the end of the file.
#pragma once

#include <qvdbase/qvdb/id.hpp>

#include <cstdint>
#include <initializer_list>

#include "objects/open_database.h"

namespace qvdb::detail {

// A record at a position, and the offset of one of its links.
struct LinkPlace {
  int64_t recordPos;
  int64_t offset;
};

// To be called first after a change that failed: takes back the block that it appended, or was
// about to append, at blockPos, so that a full disk does not get fuller with every attempt. Only in
// a database that is open exclusively, and only when nothing leads to the block: neither the
// table's slot nor one of the links that the operation would have written last. Positions of 0 are
// none.
//
// Then throws as failedWrite() does when the host has refused a write, or when the operation has
// linked the block already, so that only the host can have stopped it. What the file holds then is
// a part of the change, not a reason for its failure. `bytes` is as for failedWrite().
void takeBack(const Operation& operation, Id table, int64_t blockPos,
              std::initializer_list<LinkPlace> links, uint64_t bytes);

}  // namespace qvdb::detail
