// Handing bytes from a database to the user: to standard output or into a new file.
#ifndef QVDB_TOOL_DELIVERY_H
#define QVDB_TOOL_DELIVERY_H

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <span>
#include <string>

namespace qvdb::tool {

// Reads a part of the bytes: see qvdb::Record::read.
using PieceReader = std::function<std::size_t(std::uint64_t offset, std::span<std::byte> buffer)>;

struct DeliveryOptions {
  std::optional<std::string> output;  // a file, or "-" or nothing for standard output
  bool force = false;                 // write over a file that is there
  bool raw = false;                   // let binary bytes go to a terminal
};

// Delivers all bytes, in pieces. Throws Failure when the file exists and force is not set, when
// binary bytes would go to a terminal and raw is not set (nothing has been written then), and when
// something cannot be written (a half-written file is removed).
void deliver(const PieceReader& read, const DeliveryOptions& options);

// Writes all bytes to an open file. Throws Failure; Interrupted.
void writePieces(const PieceReader& read, int descriptor, const std::string& name);

}  // namespace qvdb::tool

#endif
