// All bytes of a file in a new one.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <vector>

#include "products/target_file.h"
#include "recovery/survey/open_file.h"

namespace qvdbase::upkeep {

class FileCopy {
 public:
  static constexpr size_t kPiece = size_t{1} << 20;

  // `target` must have been made. Both outlive this.
  FileCopy(const survey::OpenedFile& source, products::TargetFile& target)
      : source_(source), target_(target) {}

  // Lets the file system share what the source has stored. False where it cannot.
  bool share();

  // Copies all that was there when the source was looked at last. What is not stored in the source
  // is not stored in the copy. `step` is called for each piece and may throw. False when the source
  // cannot be read; throws when the target cannot be written.
  bool copy(const std::function<void()>& step);

  // Makes the copy what the source is now, of which most is in it already: reads both, and writes
  // where they differ.
  bool bringUpToDate();

 private:
  const survey::ByteSource& source() const { return source_.source(); }
  bool copyPart(int64_t begin, int64_t end, const std::function<void()>& step);
  bool copyPiece(int64_t position, size_t count);
  bool updatePiece(int64_t position, size_t count);
  bool readSource(int64_t position, size_t count);
  void write(int64_t position, size_t count);
  void setLength(int64_t length);

  const survey::OpenedFile& source_;
  products::TargetFile& target_;
  bool copiesInHost_ = true;
  std::vector<unsigned char> bytes_;
  std::vector<unsigned char> copied_;
};

}  // namespace qvdbase::upkeep
