// Writing the file in which indexes are kept: section after section, each in one pass.
//
// The heads and the front are written last, because the stamp is taken when everything else is
// there; until then no page says what the others are.
#pragma once

#include <cstdint>
#include <functional>
#include <vector>

#include "format/index_pages.h"
#include "objects/indexes/ordered_keys.h"
#include "objects/kept/kept_pages.h"

namespace qvdb::detail {

class KeptWriter {
 public:
  // Writes so many bytes at a position. False unless all were written.
  using WriteAt = std::function<bool(int64_t position, const unsigned char* bytes, size_t count)>;

  // generation  of the first section; the next ones have those after it
  KeptWriter(WriteAt writeAt, uint64_t generation);

  // Whether everything was written so far. After a failure nothing else has an effect.
  bool isGood() const { return isGood_; }

  // Whether it has as many sections as a file can have.
  bool isFull() const;

  // Begins a section; head.entries says how many hashes it will have at most.
  void begin(qvdbase::format::kept::Head head);
  // The hashes, in order; one that is there twice counts once.
  void add(const qvdbase::format::kept::HashEntry& entry);
  // After these the keys, in order.
  void addKey(std::string_view key, int64_t position);
  void end();

  // A section of another file of this kind as it is; it is left out where a page of it is not
  // right.
  void copy(const KeptPages::ReadAt& readAt, const qvdbase::format::kept::Section& section);

  // Writes heads, all with this stamp, and front.
  bool finish(const qvdbase::format::kept::Stamp& stamp);

  uint64_t bytes() const { return nextPage_ * qvdbase::format::kept::kPageSize; }

 private:
  using Page = qvdbase::format::kept::Page;
  using Head = qvdbase::format::kept::Head;
  using Section = qvdbase::format::kept::Section;

  void write(uint64_t page, const Page& bytes);
  void flush();
  void endHashPage(bool spills);
  void endHashes();
  void addBytes(const unsigned char* bytes, size_t count);
  void endKeyPage();
  uint64_t numberInSection() const { return nextPage_ - section_.firstPage; }

  WriteAt writeAt_;
  uint64_t generation_;
  uint64_t nextPage_ = 1;              // in the file
  std::vector<unsigned char> buffer_;  // pages that come before it, not written yet
  bool isGood_ = true;

  std::vector<std::pair<Section, Head>> heads_;
  std::vector<Section> copied_;

  // The section that is being written.
  Section section_;
  Head head_;
  Page page_ = {};
  size_t inPage_ = 0;      // entries, or bytes of the content
  uint64_t hashPage_ = 0;  // the one that is being filled
  qvdbase::format::kept::HashEntry last_;
  bool hasHashes_ = false;  // all
  uint32_t first_ = 0;      // in the page of keys
  uint64_t keyPage_ = 0;
  uint64_t beganIn_ = 0;  // the page in which the latest key begins
};

}  // namespace qvdb::detail
