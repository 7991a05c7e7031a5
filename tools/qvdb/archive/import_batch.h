// The records of an import that are gathered and not in the table yet.
#pragma once

#include <qvdbase/qvdb.hpp>

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "compression/payload_encoder.h"
#include "streams/input.h"

namespace qvdb::tool {

// Adds records in batches. A file is given by its place in the tree of the import.
class ImportBatch {
 public:
  explicit ImportBatch(Table& table) : table_(table) {}

  void add(Id record, size_t file, ByteView payload);

  // Adds a file that is never in memory as a whole, and ends the batch. Returns its size, before it
  // is encoded. `path` is for messages.
  uint64_t addPieces(Id record, size_t file, const Descriptor& from, const std::string& path,
                     PayloadEncoder& encoder);

  // Puts everything gathered into the table. Must be called before anything else is changed there.
  void finish();

  // Ends the batch as far as possible, and returns the place of the first file that is not in the
  // table when the work ends at `current`.
  size_t firstMissing(size_t current);

 private:
  BulkAppender& appender();
  void clear();

  Table& table_;
  std::optional<BulkAppender> bulk_;
  std::vector<size_t> files_;  // those that are in bulk_
  size_t bytes_ = 0;           // in bulk_
};

}  // namespace qvdb::tool
