// The walk over the records that have certain keys.
#pragma once

#include <qvdbase/qvdb/key_index.hpp>

#include <cstdint>
#include <exception>
#include <memory>
#include <optional>
#include <string>
#include <unordered_set>
#include <vector>

#include "objects/indexes/ordered_keys.h"
#include "objects/indexes/table_keys.h"
#include "objects/open_database.h"
#include "support/seeded_hash.h"

namespace qvdb::detail {

// Where a walk is, and the batch of matches that it has read.
struct KeyMatches {
  using Place = OrderedKeys::Place;

  struct Match {
    std::string key;
    Record record;
  };

  KeyMatches(std::shared_ptr<TableKeys> index, KeyBounds wanted);

  // Goes to the next match. False at the end.
  bool next();
  Match& current() { return found[at - 1]; }

 private:
  // A record that is in the table, at a place that the index knows for a key.
  struct Candidate {
    Place place;
    RecordInfo info;
    std::shared_ptr<std::vector<std::byte>> payload;
  };
  // The keys of a payload: a record with many of them comes often.
  struct Made {
    int64_t position;
    std::shared_ptr<std::vector<std::byte>> payload;
    KeyList keys;
  };
  // What was read in one turn.
  struct Batch {
    std::vector<Candidate> candidates;
    Place last;
    bool isAtEnd = false;
    bool isBroken = false;  // the file of a kept index, or the index was emptied
    bool isOfAnotherFile = false;
    uint64_t changes = 0;
    uint64_t generation = 0;
    uint32_t opening = 0;
    uint32_t transaction = 0;
    bool mayHaveMoved = false;
  };

  void begin();
  void beginAgain();
  void fill();
  void assure();
  void build();
  bool isEmptied(const Operation& operation) const;
  void readBatch(const Operation& operation, Batch* batch) const;
  std::vector<Place> placesAfter(const Place& place) const;
  static bool readBefore(const Batch& batch, const Place& place, Candidate* candidate);
  bool readAt(const Operation& operation, const Place& place, Candidate* candidate) const;
  void enterWhereItIs(const Operation& operation, const Place& place) const;
  void match(const Batch& batch);
  const KeyList& keysOf(const Candidate& candidate, const std::vector<Made>& earlier);
  bool wasDelivered(const Candidate& candidate);
  void drop(const Batch& batch, const std::vector<Place>& wrong) const;

  const std::shared_ptr<TableKeys> keys;
  const KeyBounds bounds;
  Place place;  // that was looked at last
  std::vector<Match> found;
  size_t at = 0;
  std::vector<Made> made;  // of the batch
  size_t atOnce = 1;
  bool hasBegun = false;
  bool hasDelivered = false;
  std::optional<uint32_t> opening;  // of the file that it walks through
  bool isAssured = false;           // the index knew everything when the walk began, or since
  uint64_t generation = 0;          // of its maps, then
  bool hasCaughtUp = false;
  bool isAtEnd = false;
  std::exception_ptr failure;  // of the walk that has built the index
  uint64_t changesAtBegin = 0;
  std::string deliveredKey;
  std::unordered_set<uint64_t, qvdbase::support::SeededHash> delivered;  // with this key
};

}  // namespace qvdb::detail
