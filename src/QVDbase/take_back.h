// Taking back what was appended to the file and nothing refers to.
#pragma once

#include <cstdint>

namespace qvdbase::engine {

// Bytes that this process has appended: from `from` to `end` at most, since a write may have been
// cut short.
struct Appended {
  int64_t from = 0;
  int64_t end = 0;
};

// Takes back appended bytes to which no link and no slot leads. Where they are the end of a file
// that is open exclusively, the file is cut off there; where something else has been appended
// after them, or other processes write to the file too, they are overwritten with zeros, so that a
// search for lost records finds no blocks in them. True when one of the two was done. The file
// position is not restored.
bool takeBack(int16_t db, const Appended& appended);

// The first of the two only: a file that cannot be cut off stays unchanged.
bool cutBack(int16_t db, const Appended& appended);

}  // namespace qvdbase::engine
