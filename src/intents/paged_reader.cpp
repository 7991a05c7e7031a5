#include "intents/paged_reader.h"

#include <algorithm>
#include <utility>

namespace qvdbase::intents {
namespace {

constexpr int64_t kPageSize = 4096;
constexpr size_t kMostPages = 4096;  // in memory at a time

}  // namespace

// Null where not all of it can be read: what was asked for may still be there.
const PagedReader::Page* PagedReader::page(int64_t number) const {
  if (const auto found = pages_.find(number); found != pages_.end()) return &found->second;
  const int64_t start = number * kPageSize;
  Page bytes(static_cast<size_t>(std::min(kPageSize, file_.size() - start)));
  if (!file_.read(start, bytes.data(), bytes.size())) return nullptr;
  if (pages_.size() == kMostPages) pages_.clear();
  return &pages_.emplace(number, std::move(bytes)).first->second;
}

bool PagedReader::read(int64_t position, void* buffer, size_t count) const {
  if (count > static_cast<size_t>(kPageSize)) return file_.read(position, buffer, count);
  auto* to = static_cast<unsigned char*>(buffer);
  while (count > 0) {
    if (position < 0 || position >= file_.size()) return false;
    const Page* bytes = page(position / kPageSize);
    const auto offset = static_cast<size_t>(position % kPageSize);
    if (bytes == nullptr || offset >= bytes->size()) return file_.read(position, to, count);
    const size_t part = std::min(count, bytes->size() - offset);
    std::copy_n(bytes->begin() + static_cast<std::ptrdiff_t>(offset), part, to);
    position += static_cast<int64_t>(part);
    to += part;
    count -= part;
  }
  return true;
}

}  // namespace qvdbase::intents
