// All positions are known beforehand, so each byte is written once and in order.
#include "upkeep/live_copy.h"

#include <algorithm>

#include "format/block_heads.h"

using namespace qvdbase::format;
using namespace qvdbase::survey;

namespace qvdbase::upkeep {

namespace {

TableDataHead liveData(Window& window, int64_t position) {
  const uint8_t* bytes = window.at(position, tabledata::kData);
  return bytes != nullptr ? decodeTableDataHead(bytes) : TableDataHead{};
}

// Each function returns false when the source cannot be read.
class Copier {
 public:
  template <typename Target>
  Copier(const ByteSource& source, Target& target)
      : source_(source), window_(source), output_(target) {}

  bool run(const LiveDatabase& database, const LiveLayout& layout, const copy::Header& header,
           const std::function<void()>& step) {
    std::vector<tablePart1> slots;
    for (size_t i = 0; i < database.tables.size(); ++i) {
      slots.push_back(output_.slotAt(database.tables[i].slot, layout.tables[i]));
      // The dead records that the source's number counts, too, are not in the copy. With them in
      // it, a later append that is cut off could not be distinguished from records that were lost.
      slots.back().recordWriteCount = slots.back().recordCount;
    }
    output_.directory(header, slots, database.slotCount);
    for (const LiveTable& table : database.tables) {
      if (!copyTable(table, step)) return false;
    }
    output_.flush();
    return true;
  }

 private:
  bool copyTable(const LiveTable& table, const std::function<void()>& step) {
    if (table.slot.firstDataPos != 0) {
      const TableDataHead head = liveData(window_, table.slot.firstDataPos);
      output_.beginTableData(head);
      if (!copyContent(table.slot.firstDataPos + tabledata::kData, head)) return false;
    }
    for (size_t i = 0; i < table.records.size(); ++i) {
      step();
      const recordPart1 head = liveRecord(window_, table.records[i]);
      output_.beginRecord(head, i == 0, i + 1 == table.records.size());
      if (!copyContent(table.records[i] + record::kData, head)) return false;
    }
    return true;
  }

  template <typename Head>
  bool copyContent(int64_t from, const Head& head) {
    if (!copy(from, head.dataLength)) return false;
    output_.endBlock(head.dataCapacity - head.dataLength);
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
  copy::DatabaseWriter output_;
};

}  // namespace

LiveLayout layOut(const ByteSource& source, const LiveDatabase& database) {
  Window window(source);
  LiveLayout layout;
  layout.size = database.blocksStart();
  for (const LiveTable& table : database.tables) {
    copy::TablePlace place;
    if (table.slot.firstDataPos != 0) {
      place.data = layout.size;
      layout.size +=
          liveData(window, table.slot.firstDataPos).dataCapacity + kTableDataBlockOverhead;
    }
    if (!table.records.empty()) {
      // What was written last may be a block that is dead.
      const int64_t lastWritten =
          table.bytesBeforeLastWritten < 0 ? table.bytesBeforeLast : table.bytesBeforeLastWritten;
      place.firstRecord = layout.size;
      place.lastRecord = layout.size + table.bytesBeforeLast;
      place.lastWrittenRecord = layout.size + lastWritten;
      layout.size += table.blockBytes;
    }
    layout.tables.push_back(place);
  }
  return layout;
}

bool copyLive(const ByteSource& source, const LiveDatabase& database, const LiveLayout& layout,
              products::TargetFile& target, const std::function<void()>& step) {
  if (!Copier(source, target).run(database, layout, {}, step)) return false;
  if (!target.file().writeAt(0, database.header.data(), database.header.size())) {
    target.failWriting();
  }
  return true;
}

bool isLiveCopy(const ByteSource& copy, const ByteSource& source, const LiveDatabase& database,
                const LiveLayout& layout, const std::function<void()>& step) {
  LiveDatabase copied;
  if (copy.size() != layout.size || !LiveReader(copy).read(&copied, [] {})) return false;
  std::vector<unsigned char> there;
  bool isSame = true;
  const auto compare = [&](int64_t position, const unsigned char* bytes, size_t count) {
    there.resize(count);
    isSame = isSame && copy.readAt(position, there.data(), count) == count &&
             std::equal(there.begin(), there.end(), bytes);
  };
  return Copier(source, compare).run(database, layout, database.header, step) && isSame;
}

}  // namespace qvdbase::upkeep
