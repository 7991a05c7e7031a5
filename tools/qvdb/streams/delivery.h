// Writes bytes from a database to standard output or into a new file.
#pragma once

#include <qvdbase/qvdb.hpp>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <span>
#include <string>

#include "command_line/command.h"

namespace qvdb::tool {

// Reads a part of the bytes: see qvdb::Record::read.
using PieceReader = std::function<size_t(uint64_t offset, std::span<std::byte> buffer)>;

struct DeliveryOptions {
  std::optional<std::string> output;  // a file, or "-" or nothing for standard output
  bool force = false;                 // replace a file that exists
  bool raw = false;                   // show binary bytes on a terminal
  bool parents = false;               // create missing folders in the path of the file
  bool noSync = false;                // do not wait for the device
};

// What the help says about these options.
struct DeliveryHelp {
  const char* output = "Write to this file; '-' is standard output.";
  const char* force = "Replace the output file if it exists.";
  const char* raw = "Show the payload on a terminal even if it is not plain text.";
};
void defineDelivery(Arguments& arguments, DeliveryOptions& options, const DeliveryHelp& help = {});

// Delivers all bytes, in pieces. A new file gets the permissions of `source`, the database. Throws
// Failure when binary bytes would go to a terminal and raw is not set, and when something cannot be
// written; Error for the file (see OutputFile). No part of the file is left then.
void deliver(const PieceReader& read, const std::string& source, const DeliveryOptions& options);

// Writes all bytes to a new file. Throws Error; Interrupted.
void writePieces(const PieceReader& read, OutputFile& file);

}  // namespace qvdb::tool
