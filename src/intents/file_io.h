// An open file's bytes, by its number, at any position: the number's own position stays. Under the
// turn of the file.
#pragma once

#include <cstddef>
#include <cstdint>

#include "intents/recovery.h"

namespace qvdbase::intents {

class OpenReader : public Reader {
 public:
  explicit OpenReader(int16_t file);

  int64_t size() const override { return size_; }
  bool read(int64_t position, void* buffer, size_t count) const override;

  // The same where the bytes are in memory already, or come there with others. False where the file
  // has no mirror, or this has no place for them.
  bool readFromMirror(int64_t position, void* buffer, size_t count) const;

 private:
  int16_t file_;
  int64_t size_ = 0;
};

// The length of the file, or -1.
int64_t lengthOf(int16_t file);

// Reads all, or nothing of use.
bool readAt(int16_t file, int64_t position, void* buffer, size_t count);

// Writes all, with the operating system when it returns. Outside of transfer scopes.
bool writeAt(int16_t file, int64_t position, const void* bytes, size_t count);

}  // namespace qvdbase::intents
