#include "intents/paged_reader.h"

#include <algorithm>
#include <cstring>
#include <utility>

namespace qvdbase::intents {
namespace {

constexpr int64_t kPageSize = 4096;
constexpr size_t kMostPages = 4096;  // in memory at a time

}  // namespace

// Null where not all of it can be read: what was asked for may still be there.
const PagedReader::Page* PagedReader::page(int64_t number) const {
  Recent& recent = recent_[static_cast<size_t>(number) % kRecent];
  if (recent.number == number) return recent.page;
  const auto found = pages_.find(number);
  const Page* page = found != pages_.end() ? &found->second : readPage(number);
  if (page != nullptr) recent = {number, page};
  return page;
}

const PagedReader::Page* PagedReader::readPage(int64_t number) const {
  const int64_t start = number * kPageSize;
  const auto size = static_cast<size_t>(std::min(kPageSize, file_.size() - start));
  Page page{std::unique_ptr<unsigned char[]>(new unsigned char[size]), size};
  if (!file_.read(start, page.bytes.get(), size)) return nullptr;
  if (pages_.size() == kMostPages) {
    pages_.clear();
    recent_ = {};
  }
  return &pages_.emplace(number, std::move(page)).first->second;
}

bool PagedReader::read(int64_t position, void* buffer, size_t count) const {
  if (file_.readFromMirror(position, buffer, count)) return true;
  if (count > static_cast<size_t>(kPageSize)) return file_.read(position, buffer, count);
  auto* to = static_cast<unsigned char*>(buffer);
  while (count > 0) {
    if (position < 0 || position >= file_.size()) return false;
    const Page* bytes = page(position / kPageSize);
    const auto offset = static_cast<size_t>(position % kPageSize);
    if (bytes == nullptr || offset >= bytes->size) return file_.read(position, to, count);
    const size_t part = std::min(count, bytes->size - offset);
    std::memcpy(to, bytes->bytes.get() + offset, part);
    position += static_cast<int64_t>(part);
    to += part;
    count -= part;
  }
  return true;
}

}  // namespace qvdbase::intents
