// A database whose writers rest while it is checked.
//
// As a reader of the C++ layer does it: it announces itself and takes a look, in which writers of
// the layer change no byte in place; for as long it excludes the batches of shared writers, which
// are longer than one change. Programs that write by the C functions do not rest, nor do threads of
// this process, whose locks are its own.
#pragma once

#include <cstdint>
#include <filesystem>

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
  bool isAnnounced_ = false;
  bool hasTurn_ = false;
  bool hasLook_ = false;
};

}  // namespace qvdbase::check
