// A database whose writers rest while it is checked.
//
// As a reader of the C++ layer does it: it announces itself and takes a look, in which writers of
// the layer change no byte in place; for as long it excludes the batches of shared writers, which
// are longer than one change. Writers of this process, whose locks are its own, wait for the turn
// of the file instead. What does not rest: the batch of a writer that is alone, which takes no lock
// before its end, and programs that write by the C functions.
#pragma once

#include <cstdint>
#include <filesystem>
#include <optional>

#include "platform/handles/turns.h"

namespace qvdbase::check {

class StillFile {
 public:
  // Waits for writers as long as an operation of the layer does. Where they do not come to an end,
  // or the file cannot be opened or locked, they do not rest, and what is read shows that.
  explicit StillFile(const std::filesystem::path& path);
  ~StillFile();
  StillFile(const StillFile&) = delete;
  StillFile& operator=(const StillFile&) = delete;

 private:
  void begin();
  bool takeTurn(uint64_t until);
  bool takeLook(uint64_t until);

  int16_t file_ = 0;
  std::optional<platform::Turn> turn_;  // of a file that this process writes to
  bool isAnnounced_ = false;
  bool hasTurn_ = false;
  bool hasLook_ = false;
};

}  // namespace qvdbase::check
