// What the tables of a database hold, as plain values that can be compared and printed: read from
// the bytes of the file, without the library.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "kit/file_reader.h"

namespace qvdbase::test {

// Identifiers and payloads of a table's records, in order, and the data of the table.
struct TableContent {
  std::vector<std::pair<uint64_t, std::string>> records;
  std::string data;
  bool operator==(const TableContent&) const = default;
};

// By the names of the tables.
using TableContents = std::map<std::string, TableContent>;

inline TableContents tableContentsOf(const Bytes& file) {
  TableContents contents;
  for (const ReadTable& table : readDatabase(file).tables) {
    TableContent& content = contents[table.name];
    if (table.data) content.data = table.data->data().str();
    for (const ReadRecord& record : table.records) {
      content.records.emplace_back(record.id, record.fields.data().str());
    }
  }
  return contents;
}

}  // namespace qvdbase::test
