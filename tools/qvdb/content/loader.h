// The lines of a dump, made into a database. Each line is checked, and must be where it is.
#pragma once

#include <qvdbase/qvdb.hpp>

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "archive/imported_entry.h"
#include "content/json_line.h"

namespace qvdb::tool {

// A record's line, decoded: what load and patch have in common.
struct RecordLine {
  Id id;
  uint32_t created = 0;
  uint32_t modified = 0;
  std::optional<uint32_t> capacity;
  std::optional<uint32_t> size;  // of the whole payload, where it goes on in further lines
  std::string payload;           // or the first piece of it
  bool hasChecksum = false;

  NewRecord newRecord() const;
};

// Throws BadLine where the capacity is less than the size.
void requireCapacity(const std::optional<uint64_t>& capacity, uint64_t size);

// Takes the members of the record. Throws BadLine.
RecordLine takeRecord(Members& members);

// The members of a table's line. Throws BadLine.
NewTable takeNewTable(Members& members);

// The next piece of a payload, which must be number `number` and no longer than what is missing of
// it. Throws BadLine.
std::string takeNextPiece(Members& members, uint64_t number, uint64_t missing);

// Whether the library refuses something for what a line says, not for the file or the device.
bool isAboutTheInput(Reason reason);

class Loader {
 public:
  // The database appears at `path` when finish() is called, and not at all otherwise.
  Loader(std::string path, const CreateOptions& options);

  // Takes the next line. Throws BadLine, and Error.
  void take(std::string_view line);

  // After the last line. Throws BadLine when lines are missing.
  void finish();

  uint64_t tables() const { return tables_; }
  uint64_t records() const { return records_; }

 private:
  enum class Place : uint8_t {
    header,
    betweenTables,
    table,
    records,
    entries,
    pieces,
    dataPieces,
    end
  };

  void takeHeader(Members& members);
  void takeTable(Members& members);
  void takeData(Members& members);
  void takeEntry(Members& members);
  void takeNewRecord(Members& members);
  void takePiece(Members& members);
  void takeEnd(Members& members);
  void endTable(Members& members);
  void addPiece(std::string_view piece);
  void storeData();
  void setLastWritten(uint64_t place);

  std::string path_;
  CreateOptions options_;
  Place place_ = Place::header;
  std::optional<Database> database_;
  std::optional<Table> table_;
  std::optional<BulkAppender> appender_;
  std::optional<RecordWriter> writer_;
  uint64_t tables_ = 0;
  uint64_t records_ = 0;
  uint64_t inTable_ = 0;
  // What is not complete yet: the pieces of a payload or of a table's data, or a list.
  uint64_t missing_ = 0;  // bytes, or entries
  uint64_t piece_ = 0;    // the number of the last one
  std::string data_;
  uint32_t dataCapacity_ = 0;
  std::vector<ImportedFile> entries_;
  qvdbase::format::imported::Head listHead_;  // of their list
};

}  // namespace qvdb::tool
