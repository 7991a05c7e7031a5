// Finding out what is missing in a file.
#include "intents/missing_patches.h"

#include <algorithm>

#include "format/intent.h"
#include "format/layout.h"
#include "intents/file_io.h"

namespace qvdbase::intents {
namespace {

// Bytes without a start are no word.
bool isSet(const format::WordBytes& word) {
  return std::any_of(word.begin(), word.begin() + format::pending::kNonce,
                     [](unsigned char byte) { return byte != 0; });
}

}  // namespace

bool MissingPatches::lookAt(int16_t file) {
  format::WordBytes word{};
  if (!readAt(file, format::pending::kPosition, word.data(), word.size())) {
    forget();
    const int64_t size = lengthOf(file);
    return size >= 0 && size < format::kNewFileSize;
  }
  if (!isSet(word)) {
    forget();
    return true;
  }
  return planFor(file);
}

bool MissingPatches::planFor(int16_t file) {
  const OpenReader reader(file);
  Bytes head(static_cast<size_t>(format::kNewFileSize));
  if (reader.size() < format::kNewFileSize) {
    forget();
    return reader.size() >= 0;
  }
  if (!reader.read(0, head.data(), head.size())) {
    forget();
    return false;
  }
  if (isAsPlanned(file, head, reader.size())) return true;
  patches_.clear();
  before_.clear();
  head_.clear();
  const RecoveryPlan plan = planAgain(reader, &run_);
  if (plan.pending == Pending::unreadable) return false;
  for (const PlannedWrite& write : plan.writes) {
    Bytes before(write.bytes.size());
    if (!reader.read(write.position, before.data(), before.size())) {
      forget();
      return false;
    }
    before_.emplace_back(write.position, std::move(before));
    patches_.hold(write.position, write.bytes);
  }
  head_ = std::move(head);
  size_ = reader.size();
  return true;
}

void MissingPatches::forget() {
  patches_.clear();
  before_.clear();
  head_.clear();
  run_ = {};
}

bool MissingPatches::isAsPlanned(int16_t file, const Bytes& head, int64_t size) const {
  if (head_.empty() || head != head_ || size != size_) return false;
  return std::all_of(before_.begin(), before_.end(), [file](const auto& place) {
    Bytes now(place.second.size());
    return readAt(file, place.first, now.data(), now.size()) && now == place.second;
  });
}

}  // namespace qvdbase::intents
