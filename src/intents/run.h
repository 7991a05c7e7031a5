// The run of intents that the pending word leads to, read and checked: one after the other, each
// whole, of this file, this place and this run. What is between two of them are the blocks of the
// first.
#pragma once

#include <algorithm>
#include <cstdint>
#include <optional>
#include <set>
#include <vector>

#include "format/intent.h"
#include "intents/recovery.h"

namespace qvdbase::intents {

// So many commits can be open. An intent with a higher number was not written by the library.
inline constexpr uint64_t kMostOpenIntents = 64;

// The bytes of a file. Beyond its end nothing can be read; a place inside that the host does not
// read is remembered.
class FileBytes {
 public:
  explicit FileBytes(const Reader& file)
      : file_(file), size_(std::max<int64_t>(file.size(), 0)), hasFailed_(file.size() < 0) {}

  int64_t size() const { return size_; }
  bool read(int64_t position, void* buffer, size_t count) const;
  bool hasFailed() const { return hasFailed_; }

 private:
  const Reader& file_;
  int64_t size_;
  mutable bool hasFailed_;
};

// The hash of a part of the file, or nothing when it cannot be read.
std::optional<uint64_t> hashOf(const FileBytes& file, int64_t position, uint64_t length);

struct RunIntent {
  format::Intent intent;
  int64_t blocks = 0;                    // where its blocks begin
  int64_t end = 0;                       // and end
  bool tiles = false;                    // these are whole blocks without a gap
  bool isTorn = false;                   // their hash is not the one in the intent
  std::set<int> slots;                   // the tables that it changes
  std::vector<unsigned char> beginning;  // of its block in the file, up to the entries
};

// The header's fields that are needed here. Nothing when the directory has other sizes than a new
// file's, or cannot be read: such files have no word.
std::optional<internal_Head1> readIntentHeader(const FileBytes& file);

// Those of `known`, which were found when the word was the same, are not read again where they are
// still there: what was whole once was committed, whatever has become of its blocks.
std::vector<RunIntent> readRun(const FileBytes& file, const internal_Head1& header,
                               const format::PendingWord& word, std::vector<RunIntent> known = {});

}  // namespace qvdbase::intents
