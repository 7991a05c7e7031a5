// The fields of each structure in a database file, by the format.
#pragma once

#include <cstdint>
#include <span>

namespace qvdb::tool {

enum class FieldKind {
  number,      // unsigned
  count,       // signed
  identifier,  // eight bytes and their sum
  time,        // seconds since 1970
  position,    // of a block; 0 for none
  text,
  mark,
  bytes,  // a hash, and what else has no value to show
  filler,
};

struct Field {
  const char* name;
  int64_t offset;  // from the start of the structure
  int64_t size;
  FieldKind kind;
};

std::span<const Field> headerFields();
std::span<const Field> slotFields();    // integers least significant byte first, unlike the others
std::span<const Field> recordFields();  // up to the payload
std::span<const Field> tableDataFields();    // up to the data
std::span<const Field> pendingWordFields();  // in the last slot; numbers as in slots
std::span<const Field> intentFields();       // from the payload on, up to the entries
std::span<const Field> preludeFields();      // from the payload on

}  // namespace qvdb::tool
