// All positions are known beforehand, so each byte is written once and in order.
#include "upkeep/live_copy.h"

#include <algorithm>
#include <cassert>
#include <utility>

#include "format/block_heads.h"

using namespace qvdbase::format;
using namespace qvdbase::survey;

namespace qvdbase::upkeep {

namespace {

// Each function returns false when the source cannot be read.
class Copier {
 public:
  template <typename Target>
  Copier(const ByteSource& source, const LiveDatabase& database, Target& target)
      : source_(source), window_(source), database_(database), output_(target) {}

  bool run(const LiveLayout& layout, const copy::Header& header,
           const std::function<void()>& step) {
    std::vector<tablePart1> slots;
    for (size_t i = 0; i < database_.tables.size(); ++i) {
      slots.push_back(output_.slotAt(database_.tables[i].slot, layout.tables[i]));
      // The dead records that the source's number counts, too, are not in the copy. With them in
      // it, a later append that is cut off could not be distinguished from records that were lost.
      slots.back().recordWriteCount = slots.back().recordCount;
    }
    output_.directory(header, slots, database_.slotCount);
    for (size_t i = 0; i < database_.tables.size(); ++i) {
      if (!copyTable(database_.tables[i], layout.tables[i], step)) return false;
    }
    assert(output_.position() == layout.size && "a copy of another size");
    output_.flush();
    return true;
  }

 private:
  bool copyTable(const LiveTable& table, [[maybe_unused]] const copy::TablePlace& place,
                 const std::function<void()>& step) {
    if (table.data != kNoBlock) {
      assert(output_.position() == place.data && "table data out of place");
      const Block& block = database_.block(table.data);
      const uint8_t* const head = window_.at(block.position, tabledata::kData);
      if (head == nullptr) return false;
      output_.beginTableData(decodeTableDataHead(head));
      if (!copyContent(block)) return false;
    }
    assert((table.records.empty() || output_.position() == place.firstRecord) &&
           "records out of place");
    for (size_t i = 0; i < table.records.size(); ++i) {
      step();
      const Block& block = database_.block(table.records[i]);
      const uint8_t* const head = window_.at(block.position, record::kData);
      if (head == nullptr) return false;
      output_.beginRecord(decodeRecordHead(head), i == 0, i + 1 == table.records.size());
      if (!copyContent(block)) return false;
    }
    return true;
  }

  bool copyContent(const Block& block) {
    if (!copy(block.dataPos(), block.length)) return false;
    output_.endBlock(block.capacity - block.length);
    return true;
  }

  // Short payloads come out of the window.
  bool copy(int64_t from, uint32_t count) {
    if (count <= Window::kLargestView) {
      const uint8_t* bytes = window_.at(from, count);
      if (bytes != nullptr) output_.write(bytes, count);
      return bytes != nullptr;
    }
    return output_.fill(count, [&](unsigned char* to, size_t part) {
      const bool isRead = source_.readAt(from, to, part) == part;
      from += static_cast<int64_t>(part);
      return isRead;
    });
  }

  const ByteSource& source_;
  Window window_;
  const LiveDatabase& database_;
  copy::DatabaseWriter output_;
};

}  // namespace

LiveLayout layOut(const LiveDatabase& database) {
  LiveLayout layout;
  layout.size = database.blocksStart();
  const auto take = [&](const Block& block) {
    return std::exchange(layout.size, layout.size + block.claimedEnd() - block.position);
  };
  for (const LiveTable& table : database.tables) {
    copy::TablePlace place;
    if (table.data != kNoBlock) place.data = take(database.block(table.data));
    if (!table.records.empty()) place.firstRecord = layout.size;
    for (const uint32_t number : table.records) {
      const Block& block = database.block(number);
      place.lastRecord = take(block);
      if (block.position == table.slot.lastWrittenRecordPos) {
        place.lastWrittenRecord = place.lastRecord;
      }
    }
    // What was written last may be a block that is dead.
    if (place.lastWrittenRecord == 0) place.lastWrittenRecord = place.lastRecord;
    layout.tables.push_back(place);
  }
  return layout;
}

bool copyLive(const ByteSource& source, const LiveDatabase& database, const LiveLayout& layout,
              products::TargetFile& target, const std::function<void()>& step) {
  if (!Copier(source, database, target).run(layout, {}, step)) return false;
  if (!target.file().writeAt(0, database.header.data(), database.header.size())) {
    target.failWriting();
  }
  return true;
}

bool isLiveCopy(const ByteSource& copy, const ByteSource& source, const LiveDatabase& database,
                const LiveLayout& layout, const std::function<void()>& step) {
  if (copy.size() != layout.size) return false;
  std::vector<unsigned char> there;
  bool isSame = true;
  const auto compare = [&](int64_t position, const unsigned char* bytes, size_t count) {
    there.resize(count);
    isSame = isSame && copy.readAt(position, there.data(), count) == count &&
             std::equal(there.begin(), there.end(), bytes);
  };
  return Copier(source, database, compare).run(layout, database.header, step) && isSame;
}

}  // namespace qvdbase::upkeep
