// qvdb::Checksum and qvdb::PayloadState: payloads that have changed although nothing has written to
// them.
//
// A record that is added with a checksum has 32 bytes more capacity, and at the end of it a hash of
// its payload. Readers of this layer compare the two whenever they read a payload as a whole, and
// throw payload_damaged where they do not agree. Programs that do not know checksums read and write
// such records as any other: to them it is spare capacity. docs/checksums.md says what is noticed
// and what is not.
#pragma once

#include <qvdbase/base.h>
#include <qvdbase/qvdb/cpp20.hpp>

#include <cstdint>
#include <iosfwd>
#include <string_view>

namespace qvdb {

// Whether a record that is added gets a checksum.
enum class Checksum : uint8_t {
  by_default,  // as the table's default says (Table::set_checksum), else OpenOptions::checksums
  no,          // none
  yes,         // one, and 32 bytes more capacity
};

// What the checksum of a payload says.
enum class PayloadState : uint8_t {
  verified,           // the payload is what was stored
  unprotected,        // it has no checksum: it was added without, or moved or packed by a program
                      // that does not know checksums
  changed_elsewhere,  // the checksum is of another time or length than the record's header: it was
                      // changed by a program that does not know checksums, or a change was cut off
  rotten,             // time and length are those of the checksum, the bytes are not: they changed
           // although nothing wrote to them. The one false alarm is a change by a program
           // that does not know checksums, to as many bytes, within the second of the one
           // before
};

// The words for a state: "verified", "unprotected", "changed elsewhere" or "rotten".
QVDBASE_API std::string_view to_string(PayloadState state) noexcept;

// Writes these words.
QVDBASE_API std::ostream& operator<<(std::ostream& out, PayloadState state);

// How many payloads of a file are in each state.
struct PayloadCounts {
  uint64_t verified = 0;           // payloads that are what was stored
  uint64_t unprotected = 0;        // without a checksum
  uint64_t changed_elsewhere = 0;  // with one of another time or length
  uint64_t rotten = 0;             // that do not agree with theirs
};

}  // namespace qvdb
