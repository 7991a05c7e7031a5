// The rows of qvdb_records: a walk over the records that a statement wants, and no others.
//
// A record's rowid is its place in the order of its table, from 1. Where a statement names no
// table, the table's place in the directory, from 0, is in the upper 32 bits. So rows in the order
// of rowid are records in their own order, and the last ones are read from the end of the chain.
#pragma once

#include <qvdbase/qvdb.hpp>

#include <cstdint>
#include <limits>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "sql/open_files.h"

namespace qvdb::sql {

// What a statement wants of a file.
struct WantedRecords {
  std::shared_ptr<OpenFile> file;
  std::optional<std::string> table;  // the argument: a name, or an identifier
  std::optional<std::string> name;   // of all tables, that of this name
  std::optional<Id> id;
  int64_t lowest = 0;  // rowids
  int64_t highest = std::numeric_limits<int64_t>::max();
  bool isNewestFirst = false;
};

class RecordCursor {
 public:
  // Goes to the first row. Throws Error, as do the others.
  void begin(const WantedRecords& wanted);
  void next();
  bool isAtEnd() const { return at_ >= tables_.size(); }

  // Of the row, while there is one.
  const Record& record() const { return found_ ? *found_ : *walk_->place; }
  const Table& table() const { return tables_[at_].table; }
  const OpenFile& file() const { return *wanted_.file; }
  const std::optional<std::string>& argument() const { return wanted_.table; }
  int64_t rowid() const;

  // The payload of the row, read on demand. When row after row is asked for its payload, the walk
  // loads payloads ahead.
  std::span<const std::byte> payload();

 private:
  struct Source {
    Table table;
    int64_t base;  // what is added to a record's place
  };
  struct Walk {
    explicit Walk(RecordRange records) : range(std::move(records)), place(range.begin()) {}
    bool isAtEnd() const { return place == range.end(); }
    RecordRange range;
    RecordRange::iterator place;
  };

  Order order() const { return wanted_.isNewestFirst ? Order::newest_first : Order::oldest_first; }
  void chooseTables();
  void goToRow();
  bool beginTable();
  bool beginWalk();
  bool isInRange() const;
  void changeLoading();

  WantedRecords wanted_;
  std::vector<Source> tables_;
  size_t at_ = 0;
  std::unique_ptr<Walk> walk_;
  std::optional<Record> found_;   // by its identifier
  int64_t place_ = 0;             // of the walk's record in its table, from 1
  int64_t first_ = 0, last_ = 0;  // places that are wanted
  uint64_t askedInARow_ = 0;      // rows whose payload was asked for
  bool isAsked_ = false;
  bool isLoading_ = false;
  std::vector<std::byte> payload_;
};

}  // namespace qvdb::sql
