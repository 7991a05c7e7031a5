// What an append that failed has left at the end of the file.
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

// Cuts the file back to where a block was to begin that a failed operation on this table has
// appended, so that a full disk does not get fuller with every attempt. Only in a database that is
// open exclusively, and only when nothing leads to the block: neither the table's slot nor one of
// the links that the operation would have written last. Positions of 0 are none.
//
// Returns whether a link, or the beginning of the table, is known to lead to the block: then the
// operation itself has written there before it failed.
bool takeBackBlock(const Operation& operation, Id table, int64_t blockPos,
                   std::initializer_list<LinkPlace> links = {});

}  // namespace qvdb::detail
