// Many small reads of a file whose bytes do not change meanwhile: they come from its mirror, or
// each page is read once.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <unordered_map>

#include "intents/file_io.h"

namespace qvdbase::intents {

class PagedReader : public Reader {
 public:
  // The file must outlive the object.
  explicit PagedReader(const OpenReader& file) : file_(file) {}

  int64_t size() const override { return file_.size(); }
  bool read(int64_t position, void* buffer, size_t count) const override;

 private:
  struct Page {
    std::unique_ptr<unsigned char[]> bytes;
    size_t size;
  };
  struct Recent {
    int64_t number = -1;
    const Page* page = nullptr;
  };
  static constexpr size_t kRecent = 16;

  const Page* page(int64_t number) const;
  const Page* readPage(int64_t number) const;

  const OpenReader& file_;
  mutable std::unordered_map<int64_t, Page> pages_;
  // Those that were used last, of each remainder of their number: reads come to few at a time.
  mutable std::array<Recent, kRecent> recent_;
};

}  // namespace qvdbase::intents
