// Writing and checking the compacted file.
//
// All positions are known beforehand, so each byte is written once and in order, through a buffer.
#include "upkeep/live_copy.h"

#include <algorithm>
#include <cstring>

#include "format/Aliment8.h"
#include "format/block_heads.h"

using namespace qvdbase::format;

namespace qvdbase::upkeep {

using survey::ByteSource;
using survey::Window;

namespace {

constexpr size_t kPiece = size_t{256} << 10;

TableDataHead liveData(Window& window, int64_t position) {
  const uint8_t* bytes = window.at(position, tabledata::kData);
  return bytes != nullptr ? decodeTableDataHead(bytes) : TableDataHead{};
}

// Thrown inside this file only.
struct CannotRead {};
struct CannotWrite {};

class Writer {
 public:
  Writer(const ByteSource& source, platform::NewFile& target)
      : source_(source), window_(source), target_(target), buffer_(kPiece) {}

  Window& window() { return window_; }
  int64_t position() const { return flushed_ + static_cast<int64_t>(held_); }

  void write(const void* bytes, size_t count) {
    const auto* from = static_cast<const unsigned char*>(bytes);
    while (count > 0) {
      const size_t part = std::min(count, buffer_.size() - held_);
      std::memcpy(buffer_.data() + held_, from, part);
      took(part);
      from += part;
      count -= part;
    }
  }

  void zeros(uint64_t count) {
    while (count > 0) {
      const auto part = static_cast<size_t>(std::min<uint64_t>(count, buffer_.size() - held_));
      std::memset(buffer_.data() + held_, 0, part);
      took(part);
      count -= part;
    }
  }

  // Bytes of the source; short payloads come out of its window.
  void copy(int64_t from, uint32_t count) {
    if (count <= Window::kLargestView) {
      const uint8_t* bytes = window_.at(from, count);
      if (bytes == nullptr) throw CannotRead();
      return write(bytes, count);
    }
    while (count > 0) {
      const size_t part = std::min<size_t>(count, buffer_.size() - held_);
      if (source_.readAt(from, buffer_.data() + held_, part) != part) throw CannotRead();
      took(part);
      from += static_cast<int64_t>(part);
      count -= static_cast<uint32_t>(part);
    }
  }

  void flush() {
    if (!target_.writeAt(flushed_, buffer_.data(), held_)) throw CannotWrite();
    flushed_ += static_cast<int64_t>(held_);
    held_ = 0;
  }

 private:
  void took(size_t count) {
    held_ += count;
    if (held_ == buffer_.size()) flush();
  }

  const ByteSource& source_;
  Window window_;
  platform::NewFile& target_;
  std::vector<unsigned char> buffer_;
  size_t held_ = 0;
  int64_t flushed_ = 0;
};

void writeSlot(Writer& out, const tablePart1& slot) {
  unsigned char image[kSlotImageSize];
  encodeSlot(slot, image);
  out.write(image, sizeof image);
}

tablePart1 slotOf(const LiveTable& table, const LiveLayout::Table& place) {
  tablePart1 slot = table.slot;
  slot.firstRecordPos = place.firstRecord;
  slot.lastRecordPos = place.lastRecord;
  slot.lastWrittenRecordPos = place.lastWrittenRecord;
  slot.firstDataPos = slot.lastWrittenDataPos = slot.lastDataPos = place.data;
  return slot;
}

void writeDirectory(Writer& out, const LiveDatabase& database, const LiveLayout& layout) {
  out.zeros(kDirectoryPos);  // until everything else is there
  for (size_t i = 0; i < database.tables.size(); ++i) {
    writeSlot(out, slotOf(database.tables[i], layout.tables()[i]));
  }
  const tablePart1 freeSlot{};
  for (int i = database.tableCount; i < database.slotCount; ++i) writeSlot(out, freeSlot);
}

// The fill behind payload and data is new: what stood there is dead.
void writeRoom(Writer& out, int64_t from, uint32_t length, uint32_t capacity) {
  out.copy(from, length);
  out.zeros(capacity - length);
  out.write(&kBlockEndMark, 1);
}

void writeData(Writer& out, int64_t from) {
  const TableDataHead head = liveData(out.window(), from);
  unsigned char bytes[tabledata::kData];
  encodeTableDataHead(head, bytes);
  out.write(bytes, sizeof bytes);
  writeRoom(out, from + tabledata::kData, head.dataLength, head.dataCapacity);
}

int64_t writeRecord(Writer& out, int64_t from, int64_t previous, bool isLast) {
  const int64_t position = out.position();
  recordPart1 head = liveRecord(out.window(), from);
  const uint32_t length = head.dataLength;
  const uint32_t capacity = head.dataCapacity;
  head.prevRecordPos = previous;
  head.nextRecordPos = isLast ? 0 : position + capacity + kRecordBlockOverhead;
  unsigned char bytes[record::kData];
  encodeRecordHead(head, bytes);
  out.write(bytes, sizeof bytes);
  writeRoom(out, from + record::kData, length, capacity);
  return position;
}

void writeTable(Writer& out, const LiveTable& table, const std::function<void()>& step) {
  if (table.slot.firstDataPos != 0) writeData(out, table.slot.firstDataPos);
  int64_t previous = 0;
  for (size_t i = 0; i < table.records.size(); ++i) {
    step();
    previous = writeRecord(out, table.records[i], previous, i + 1 == table.records.size());
  }
}

// ---- comparing ----

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

LiveLayout::LiveLayout(const ByteSource& source, const LiveDatabase& database) {
  Window window(source);
  end_ = database.blocksStart();
  for (const LiveTable& table : database.tables) {
    Table place;
    if (table.slot.firstDataPos != 0) {
      place.data = end_;
      end_ += liveData(window, table.slot.firstDataPos).dataCapacity + kTableDataBlockOverhead;
    }
    if (!table.records.empty()) {
      // What was written last may be a block that is dead.
      const int64_t lastWritten =
          table.bytesBeforeLastWritten < 0 ? table.bytesBeforeLast : table.bytesBeforeLastWritten;
      place.firstRecord = end_;
      place.lastRecord = end_ + table.bytesBeforeLast;
      place.lastWrittenRecord = end_ + lastWritten;
      end_ += table.blockBytes;
    }
    tables_.push_back(place);
  }
}

CopyOutcome copyLive(const ByteSource& source, const LiveDatabase& database,
                     const LiveLayout& layout, platform::NewFile* target,
                     const std::function<void()>& step) {
  try {
    Writer out(source, *target);
    writeDirectory(out, database, layout);
    for (const LiveTable& table : database.tables) writeTable(out, table, step);
    out.flush();
    if (!target->writeAt(0, database.header.data(), database.header.size())) throw CannotWrite();
  } catch (const CannotRead&) {
    return CopyOutcome::cannotRead;
  } catch (const CannotWrite&) {
    return CopyOutcome::cannotWrite;
  }
  return CopyOutcome::done;
}

bool isLiveCopy(const ByteSource& copy, const ByteSource& source, const LiveDatabase& database,
                const LiveLayout& layout, const std::function<void()>& step) {
  LiveDatabase copied;
  if (!LiveReader(copy).read(&copied, [] {})) return false;
  if (copied.header != database.header || copied.tables.size() != database.tables.size()) {
    return false;
  }
  if (copy.size() != static_cast<int64_t>(layout.size())) return false;
  Comparison comparison(copy, source);
  for (size_t i = 0; i < database.tables.size(); ++i) {
    if (!comparison.sameTable(copied.tables[i], database.tables[i], step)) return false;
  }
  return true;
}

}  // namespace qvdbase::upkeep
