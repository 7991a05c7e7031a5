// All positions are known beforehand, so each byte is written once and in order.
#include "upkeep/live_copy.h"

#include <cstring>

#include "format/Aliment8.h"
#include "format/block_heads.h"

using namespace qvdbase::format;
using namespace qvdbase::survey;

namespace qvdbase::upkeep {

namespace {

constexpr size_t kPiece = products::BufferedOutput::kPiece;

TableDataHead liveData(Window& window, int64_t position) {
  const uint8_t* bytes = window.at(position, tabledata::kData);
  return bytes != nullptr ? decodeTableDataHead(bytes) : TableDataHead{};
}

// Each function returns false when the source cannot be read.
class Copier {
 public:
  Copier(const ByteSource& source, products::TargetFile& target)
      : source_(source), window_(source), output_(target) {}

  bool run(const LiveDatabase& database, const LiveLayout& layout,
           const std::function<void()>& step) {
    std::vector<tablePart1> slots;
    for (size_t i = 0; i < database.tables.size(); ++i) {
      slots.push_back(output_.slotAt(database.tables[i].slot, layout.tables[i]));
    }
    output_.directory({}, slots, database.slotCount);  // its header comes last
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

class Comparison {
 public:
  Comparison(const ByteSource& copy, const ByteSource& source)
      : copy_(copy), source_(source), copyWindow_(copy), sourceWindow_(source) {}

  bool sameTable(const LiveTable& copy, const LiveTable& source,
                 const std::function<void()>& step) {
    if (copy.records.size() != source.records.size() || !sameSlot(copy.slot, source.slot)) {
      return false;
    }
    for (size_t i = 0; i < source.records.size(); ++i) {
      step();
      if (!sameRecord(copy.records[i], source.records[i])) return false;
    }
    return sameData(copy.slot.firstDataPos, source.slot.firstDataPos);
  }

 private:
  // Everything but the positions.
  static bool sameSlot(tablePart1 copy, tablePart1 source) {
    for (tablePart1* slot : {&copy, &source}) {
      slot->firstRecordPos = slot->lastRecordPos = slot->lastWrittenRecordPos = 0;
      slot->firstDataPos = slot->lastDataPos = slot->lastWrittenDataPos = 0;
    }
    unsigned char first[kSlotImageSize];
    unsigned char second[kSlotImageSize];
    encodeSlot(copy, first);
    encodeSlot(source, second);
    return std::memcmp(first, second, sizeof first) == 0;
  }

  bool sameRecord(int64_t copyPos, int64_t sourcePos) {
    const recordPart1 copy = liveRecord(copyWindow_, copyPos);
    const recordPart1 source = liveRecord(sourceWindow_, sourcePos);
    return std::memcmp(copy.tableID, source.tableID, kIdentifierSize) == 0 &&
           std::memcmp(copy.recordID, source.recordID, kIdentifierSize) == 0 &&
           copy.createTime == source.createTime && copy.modifyTime == source.modifyTime &&
           copy.dataLength == source.dataLength && copy.dataCapacity == source.dataCapacity &&
           sameBytes(copyPos + record::kData, sourcePos + record::kData, source.dataLength) &&
           copyWindow_.byteAt(copyPos + record::kData + copy.dataCapacity) == kBlockEndMark;
  }

  bool sameData(int64_t copyPos, int64_t sourcePos) {
    if (copyPos == 0 || sourcePos == 0) return copyPos == sourcePos;
    const TableDataHead copy = liveData(copyWindow_, copyPos);
    const TableDataHead source = liveData(sourceWindow_, sourcePos);
    return copy.dataLength == source.dataLength && copy.dataCapacity == source.dataCapacity &&
           sameBytes(copyPos + tabledata::kData, sourcePos + tabledata::kData, source.dataLength) &&
           copyWindow_.byteAt(copyPos + tabledata::kData + copy.dataCapacity) == kBlockEndMark;
  }

  bool sameBytes(int64_t copyPos, int64_t sourcePos, uint32_t count) {
    if (count <= Window::kLargestView) {
      const uint8_t* first = copyWindow_.at(copyPos, count);
      const uint8_t* second = sourceWindow_.at(sourcePos, count);
      return first != nullptr && second != nullptr && std::memcmp(first, second, count) == 0;
    }
    first_.resize(kPiece);
    second_.resize(kPiece);
    for (uint32_t done = 0; done < count;) {
      const size_t part = std::min<size_t>(count - done, kPiece);
      if (copy_.readAt(copyPos + done, first_.data(), part) != part ||
          source_.readAt(sourcePos + done, second_.data(), part) != part ||
          std::memcmp(first_.data(), second_.data(), part) != 0) {
        return false;
      }
      done += static_cast<uint32_t>(part);
    }
    return true;
  }

  const ByteSource& copy_;
  const ByteSource& source_;
  Window copyWindow_;
  Window sourceWindow_;
  std::vector<unsigned char> first_;
  std::vector<unsigned char> second_;
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
  if (!Copier(source, target).run(database, layout, step)) return false;
  if (!target.file().writeAt(0, database.header.data(), database.header.size())) {
    target.failWriting();
  }
  return true;
}

bool isLiveCopy(const ByteSource& copy, const ByteSource& source, const LiveDatabase& database,
                const LiveLayout& layout, const std::function<void()>& step) {
  LiveDatabase copied;
  if (!LiveReader(copy).read(&copied, [] {})) return false;
  if (copied.header != database.header || copied.tables.size() != database.tables.size()) {
    return false;
  }
  if (copy.size() != layout.size) return false;
  Comparison comparison(copy, source);
  for (size_t i = 0; i < database.tables.size(); ++i) {
    if (!comparison.sameTable(copied.tables[i], database.tables[i], step)) return false;
  }
  return true;
}

}  // namespace qvdbase::upkeep
