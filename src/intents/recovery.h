// Recovery: what is missing of committed transactions in a file that a crash has left, or that
// another process has just committed to.
//
// plan() is one function of the file's bytes: it writes nothing. recover() carries a plan out; a
// reader that must not write lays the plan's writes over what it reads.
//
// Each table goes forward whole or not at all. A place of the file counts as untouched only if each
// of its sectors holds what some intent of the run says was or should be there; where another
// program has written meanwhile, the intent's part in that table is reported as contradicted and
// nothing of it is written.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <set>
#include <system_error>
#include <vector>

namespace qvdbase::intents {

// The bytes of a file, as they are.
class Reader {
 public:
  virtual ~Reader() = default;
  // Negative where the host does not report it.
  virtual int64_t size() const = 0;
  // Reads `count` bytes, all or nothing.
  virtual bool read(int64_t position, void* buffer, size_t count) const = 0;
};

// An intent of the run, and what was found about it.
struct FoundIntent {
  int64_t position = 0;
  int64_t blocks = 0;  // where its blocks begin
  int64_t end = 0;     // and end
  uint64_t sequence = 0;
  std::set<int> slots;   // the tables it changes
  uint8_t state = 0;     // as it is in the file
  bool isWhole = false;  // committed: an intent that is not, and all after it, never were
  bool isBegun = false;  // committed, and to be completed (or in place already)
};

struct PlannedWrite {
  int64_t position = 0;
  std::vector<unsigned char> bytes;
  int slot = 0;
};

enum class Pending : uint8_t {
  nothing,      // the word is 0
  damagedWord,  // the word is damaged, or not of this file: nothing is known of open intents
  open,
  unreadable,  // the host could not read; nothing is planned
};

struct RecoveryPlan {
  Pending pending = Pending::nothing;
  int64_t start = 0;  // where the run of intents begins
  std::vector<FoundIntent> intents;
  std::vector<PlannedWrite> writes;  // of patches, in the order in which they are to be made
  std::set<int> contradicted;        // slots of tables of which nothing is written

  bool hasWork() const { return pending == Pending::open || pending == Pending::damagedWord; }

  // Whether an intent was committed and is not completed in one of its tables: recovery marks it.
  bool contradicts(const FoundIntent& intent) const {
    return intent.isWhole &&
           std::any_of(intent.slots.begin(), intent.slots.end(),
                       [this](int slot) { return contradicted.count(slot) != 0; });
  }
};

// How strictly a place is judged that was torn: by whole sectors, which is what devices write as
// one, or, where the caller knows that no other program has written to the file, by bytes.
enum class Judging : uint8_t { bySectors, byBytes };

RecoveryPlan plan(const Reader& file, Judging judging = Judging::bySectors);

// Whether the pending word is set, or cannot be read. Reads nothing else than the header and the
// word.
bool hasPendingWord(const Reader& file);

// What a recovery did.
struct Recovered {
  bool succeeded = true;  // false: the host refused to read, write or sync; the word is unchanged
  std::error_code host;   // what it answered
  RecoveryPlan plan;
};

// Completes what is committed: plan, writes, marks of contradicted intents, sync, word 0, sync. For
// a file opened exclusively, or by the one of several writers whose turn it is, under the file's
// turn. Where no intent is open it reads 24 bytes.
Recovered recover(int16_t file, Judging judging = Judging::bySectors);

}  // namespace qvdbase::intents
