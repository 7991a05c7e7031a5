// What a transaction has changed in the index of a table, so that it can be taken back, and moved
// with the blocks when the transaction is committed.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "format/layout.h"

namespace qvdb::detail {

struct EndedTransaction;
struct OpenDatabase;
struct TableIndex;
struct TableKeys;

struct IndexJournal {
  // A key's position before and after a change; 0 is none.
  struct Change {
    uint64_t key;
    int64_t before;
    int64_t after;
  };
  // Beyond so many, building the index again costs less than remembering them.
  static constexpr size_t kMost = size_t{1} << 16;

  tablePart1 slot = {};  // of the index when the transaction began
  int64_t lastPos = 0;
  std::vector<Change> changes;
  bool isKept = false;  // there is a journal, and it has everything

  void note(uint64_t key, int64_t before, int64_t after);
  void lose();
};

// The same for an index of keys. That may know too much, so that what a transaction has entered
// need not be taken out: only what it has taken out is entered again.
struct KeyJournal {
  struct Entry {
    std::string key;
    int64_t position;
  };

  tablePart1 slot = {};
  int64_t lastPos = 0;
  uint64_t generation = 0;
  std::vector<Entry> entered;
  std::vector<Entry> erased;
  bool isKept = false;

  void note(std::vector<Entry> KeyJournal::*entries, std::string_view key, int64_t position);
};

// Every index of the database that is held.
void beginIndexJournals(OpenDatabase& database);
void endIndexJournals(OpenDatabase& database, const EndedTransaction& ended) noexcept;

}  // namespace qvdb::detail
