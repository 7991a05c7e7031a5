// Many small reads of a file that nothing writes to meanwhile: each page is read once.
#pragma once

#include <cstddef>
#include <cstdint>
#include <unordered_map>
#include <vector>

#include "intents/recovery.h"

namespace qvdbase::intents {

class PagedReader : public Reader {
 public:
  // The file must outlive the object.
  explicit PagedReader(const Reader& file) : file_(file) {}

  int64_t size() const override { return file_.size(); }
  bool read(int64_t position, void* buffer, size_t count) const override;

 private:
  using Page = std::vector<unsigned char>;

  const Page* page(int64_t number) const;

  const Reader& file_;
  mutable std::unordered_map<int64_t, Page> pages_;
};

}  // namespace qvdbase::intents
