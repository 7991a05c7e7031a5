// Table data of a table that a pack has written.
//
// The library's pack copies the data of a table first and its records right after it, but leaves
// the positions in the slot that the data had in the source. So the data is the one whole block of
// table data of that table, and it ends where the table's first record begins.
#pragma once

#include "recovery/survey/survey.h"

namespace qvdbase::survey {

// The number of that block; kNoBlock when the table's slot leads to its data, or when there is no
// such block, or not just one.
uint32_t packedData(const Survey& survey, const Table& table);

// The number of the block with the table's data, whether its slot leads there or a pack has moved
// it; kNoBlock when there is none.
uint32_t dataOf(const Survey& survey, const Table& table);

}  // namespace qvdbase::survey
