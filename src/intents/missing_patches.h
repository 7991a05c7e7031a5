// What is committed and not in its place yet, for an opener who only reads: after a crash, and
// beside another one who commits. It is laid over what is read until the file shows it.
//
// The plan of the recovery says what is missing. It is made again when something in the file has
// changed that it depends on: every change of a table changes the directory, or the length.
#pragma once

#include <cstdint>
#include <utility>
#include <vector>

#include "intents/held_patches.h"
#include "intents/known_run.h"

namespace qvdbase::intents {

class MissingPatches {
 public:
  // Looks at the file: 24 bytes of it where no intent is open. Under its turn, while no other
  // opener changes it in place, and with nothing laid over it. False where the host does not read
  // it: what is missing is not known then.
  bool lookAt(int16_t file);

  // As of the last time. They change within lookAt() only.
  const HeldPatches& patches() const { return patches_; }

 private:
  using Bytes = std::vector<unsigned char>;

  void forget();
  bool planFor(int16_t file);
  bool isAsPlanned(int16_t file, const Bytes& head, int64_t size) const;

  Bytes head_;  // the directory, for which they were planned; empty for none
  int64_t size_ = 0;
  std::vector<std::pair<int64_t, Bytes>> before_;  // what was in their places
  KnownRun run_;
  HeldPatches patches_;
};

}  // namespace qvdbase::intents
