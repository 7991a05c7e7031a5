// What differs between two databases, table by table and record by record.
//
// Tables are the same when they have the same identifier; of the others, when they have the same
// name. Records are the same when they have the same identifier. Of the records that both tables
// have, as many as possible stay where they are in the order; the others have moved.
#pragma once

#include <qvdbase/qvdb.hpp>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace qvdb::tool {

// Two tables that are the same, or one that only one of the databases has.
struct TablePair {
  std::optional<Table> a;
  std::optional<Table> b;
};

// What differs of the two tables themselves.
struct TableDifferences {
  bool name = false;
  bool id = false;
  bool version = false;
  bool flags = false;
  bool data = false;

  bool any() const { return name || id || version || flags || data; }
};

struct RecordDifferences {
  bool payload = false;
  bool times = false;

  bool any() const { return payload || times; }
};

// Takes what differs, in this order: the header, the tables that only A has, and then each table
// of B with its records. Removed records come first, in their order in A; the others in their
// order in B. All must be there for the call only.
class DifferenceTaker {
 public:
  virtual ~DifferenceTaker() = default;

  virtual void header(const DatabaseInfo& a, const DatabaseInfo& b) = 0;
  virtual void tableOrder() = 0;
  virtual void tableRemoved(const Table& table) = 0;
  // `pair` has a table of B; without one of A it is new, and all its records are added.
  virtual void beginTable(const TablePair& pair, const TableDifferences& differences) = 0;
  virtual void removed(const Record& record) = 0;
  // `before` is the record that precedes it in B; nothing for the first one.
  virtual void added(const Record& record, std::optional<Id> before) = 0;
  virtual void changed(const Record& a, const Record& b, const RecordDifferences& differences) = 0;
  virtual void moved(const Record& record, std::optional<Id> before) = 0;
  virtual void endTable() = 0;
};

// Compares, in memory for identifiers and places only. Returns whether anything differs. Throws
// Failure for a table that has an identifier twice, ChangedMeanwhile, at the end, when one of them
// was written to meanwhile, Error, Interrupted.
bool compareDatabases(const Database& a, const Database& b, DifferenceTaker& taker);

// Which of these numbers, all different, belong to one of their longest ascending series.
std::vector<bool> ascendingSeries(const std::vector<uint32_t>& numbers);

}  // namespace qvdb::tool
