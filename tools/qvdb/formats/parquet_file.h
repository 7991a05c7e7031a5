// Writes rows into a Parquet file: six flat columns, values one after the other (PLAIN), pages
// compressed by zstd where the tool is built with it.
//
// A file is "PAR1", groups of rows, and a footer that says where everything is. A group has a run
// of pages for each column. Memory holds one group.
#pragma once

#include <qvdbase/qvdb.hpp>

#include <array>
#include <cstdint>
#include <string>
#include <vector>

#include "formats/rows.h"

namespace qvdb::tool {

inline constexpr size_t kParquetColumns = 6;

class ParquetFile {
 public:
  // `file` is empty, and outlives this object.
  explicit ParquetFile(OutputFile& file);

  // Throws Failure for a payload that no page can hold.
  void add(const FlatRow& row);

  // Writes the footer. The file is not placed yet.
  void finish();

 private:
  // The pages of one column in one group, and of a page that is being filled its values.
  struct Column {
    std::string values;
    int32_t count = 0;
    std::string pages;
    int64_t uncompressed = 0;
    int64_t total = 0;  // values of the group
  };
  struct Chunk {
    int64_t position = 0;
    int64_t size = 0;
    int64_t uncompressed = 0;
  };
  struct Group {
    std::array<Chunk, kParquetColumns> chunks;
    int64_t rows = 0;
    int64_t bytes = 0;
  };

  void addNumber(size_t column, int64_t value);
  void addBytes(size_t column, std::string_view bytes);
  void endPage(Column& column);
  void endGroup();
  void write(std::string_view bytes);
  std::string footer() const;

  OutputFile& file_;
  int64_t position_ = 0;
  std::array<Column, kParquetColumns> columns_;
  std::vector<Group> groups_;
  int64_t rows_ = 0;         // of all groups
  int64_t rowsOfGroup_ = 0;  // of the one that is being filled
};

}  // namespace qvdb::tool
