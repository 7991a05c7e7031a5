// What a database file holds, read by the format alone: every table with its data and its records
// in chain order. Independent of the library, so that what the library wrote can be compared with
// what should be there.
//
// The reader expects a sound file and throws where a chain cannot be followed;
// finding out what is wrong with a file is the checker's work (file_checker.h).
#pragma once

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "kit/file_fields.h"

namespace qvdbase::test {

struct ReadRecord {
  uint64_t id = 0;
  int64_t position = 0;
  RecordFields fields;
};

struct ReadTable {
  uint64_t id = 0;
  std::string name;
  SlotFields slot;
  std::vector<ReadRecord> records;      // in chain order
  std::optional<TableDataFields> data;  // none while firstDataPos is 0
};

struct ReadDatabase {
  HeaderFields header;
  std::vector<ReadTable> tables;  // in slot order
  size_t fileSize = 0;
};

ReadDatabase readDatabase(const Bytes& file);
ReadDatabase readDatabase(const std::filesystem::path& path);

}  // namespace qvdbase::test
