// A writer of whole database files. Unlike the engine, which appends and then links, it knows every
// block and so every position beforehand: it writes each byte once, in order, with the links, the
// identifiers, the times and the spare room that the blocks are to have.
#include "recovery/salvage/writer.h"

#include <algorithm>
#include <cstring>

#include "format/Aliment8.h"
#include "format/block_heads.h"
#include "format/identifiers.h"
#include "recovery/salvage/payload_reader.h"

using namespace qvdbase::format;

namespace qvdbase::salvage {
namespace {

using survey::Block;

constexpr size_t kBuffer = size_t{1} << 20;
constexpr int64_t kBlocksStart = kDirectoryPos + int64_t{kNewSlotCount} * kSlotImageSize;

// What a block will hold in the new file.
struct Content {
  uint32_t length;
  uint32_t capacity;
};

Content contentOf(const Block& block) {
  const auto length = static_cast<uint32_t>(block.dataThere());
  // A capacity that the source does not bear out is not carried on.
  return {length, block.isCut() ? length : std::max(length, block.capacity)};
}

// Bytes in order, through a buffer.
class Output {
 public:
  explicit Output(products::TargetFile* target) : target_(*target), buffer_(kBuffer) {}

  void write(const void* bytes, size_t count) {
    const auto* from = static_cast<const unsigned char*>(bytes);
    while (count > 0) {
      const size_t part = std::min(count, buffer_.size() - held_);
      std::memcpy(buffer_.data() + held_, from, part);
      held_ += part;
      from += part;
      count -= part;
      if (held_ == buffer_.size()) flush();
    }
  }

  void fill(uint64_t count) {
    static constexpr unsigned char kZeros[4096] = {};
    while (count > 0) {
      const auto part = static_cast<size_t>(std::min<uint64_t>(count, sizeof kZeros));
      write(kZeros, part);
      count -= part;
    }
  }

  int64_t position() const { return flushed_ + static_cast<int64_t>(held_); }

  void flush() {
    if (!target_.file().writeAt(flushed_, buffer_.data(), held_)) target_.failWriting();
    flushed_ += static_cast<int64_t>(held_);
    held_ = 0;
  }

 private:
  products::TargetFile& target_;
  std::vector<unsigned char> buffer_;
  size_t held_ = 0;
  int64_t flushed_ = 0;
};

class Writer {
 public:
  Writer(const survey::ByteSource& source, const survey::Survey& survey, const Plan& plan,
         Output* output)
      : payloads_(source), survey_(survey), plan_(plan), output_(*output) {}

  Written write() {
    layOut();
    writeHeader();
    for (size_t i = 0; i < kNewSlotCount; ++i) writeSlot(i);
    for (const Place& place : places_) writeTable(place);
    written_.unreadableAt = payloads_.unreadableAt();
    return written_;
  }

 private:
  struct Place {
    const PlannedTable* table;
    std::vector<int64_t> records;  // their positions
    int64_t data = 0;
  };

  const Block& block(uint32_t number) const { return survey_.blocks[number]; }

  // Records first, then the data, table after table.
  void layOut() {
    int64_t position = kBlocksStart;
    for (const PlannedTable& table : plan_.tables) {
      Place place = {&table, {}, 0};
      for (const uint32_t number : table.records) {
        place.records.push_back(position);
        position += kRecordBlockOverhead + contentOf(block(number)).capacity;
      }
      if (table.data != survey::kNoBlock) {
        place.data = position;
        position += kTableDataBlockOverhead + contentOf(block(table.data)).capacity;
      }
      places_.push_back(std::move(place));
    }
  }

  void writeHeader() {
    unsigned char bytes[kDirectoryPos];
    const internal_Head1& fields = plan_.header.fields;
    std::memcpy(bytes, fields.signature, kSignatureSize);
    storeBigEndian(bytes + kVersionPos, 2, fields.version);
    std::memcpy(bytes + kDatabaseIDPos, fields.databaseID, kIdentifierSize);
    storeBigEndian(bytes + kTableCountPos, 2, plan_.tables.size());
    storeBigEndian(bytes + kSlotCountPos, 2, kNewSlotCount);
    storeBigEndian(bytes + kSlotSizePos, 2, kSlotImageSize);
    output_.write(bytes, sizeof bytes);
  }

  void writeSlot(size_t index) {
    tablePart1 slot = {};
    if (index < places_.size()) slot = slotOf(places_[index]);
    unsigned char image[kSlotImageSize];
    encodeSlot(slot, image);
    output_.write(image, sizeof image);
  }

  static tablePart1 slotOf(const Place& place) {
    tablePart1 slot = place.table->slot;
    slot.recordCount = static_cast<uint32_t>(place.records.size());
    if (slot.recordWriteCount < slot.recordCount) slot.recordWriteCount = slot.recordCount;
    slot.firstRecordPos = place.records.empty() ? 0 : place.records.front();
    slot.lastRecordPos = place.records.empty() ? 0 : place.records.back();
    slot.lastWrittenRecordPos = slot.lastRecordPos;
    slot.dataBlockCount = place.data != 0 ? 1 : 0;
    if (place.data == 0) slot.dataWriteCount = 0;
    if (place.data != 0 && slot.dataWriteCount == 0) slot.dataWriteCount = 1;
    slot.firstDataPos = slot.lastWrittenDataPos = slot.lastDataPos = place.data;
    return slot;
  }

  void writeTable(const Place& place) {
    const std::vector<int64_t>& positions = place.records;
    for (size_t i = 0; i < positions.size(); ++i) {
      const int64_t prev = i == 0 ? 0 : positions[i - 1];
      const int64_t next = i + 1 == positions.size() ? 0 : positions[i + 1];
      writeRecord(*place.table, block(place.table->records[i]), prev, next);
    }
    if (place.data != 0) writeTableData(*place.table, block(place.table->data));
  }

  void writeRecord(const PlannedTable& table, const Block& from, int64_t prev, int64_t next) {
    const Content content = contentOf(from);
    recordPart1 head = {};
    head.blockMark = kRecordMark;
    head.headerSize = kRecordHeaderSize;
    std::memcpy(head.tableID, table.slot.tableID, kIdentifierSize);
    internal_ConvertInt64_2UuID(from.recordID, head.recordID);
    head.createTime = from.createTime;
    head.modifyTime = from.modifyTime;
    head.prevRecordPos = prev;
    head.nextRecordPos = next;
    head.dataLength = content.length;
    head.dataCapacity = content.capacity;
    unsigned char bytes[record::kData];
    encodeRecordHead(head, bytes);
    output_.write(bytes, sizeof bytes);
    const bool isWhole = writePayload(from, content) && content.length == from.length;
    ++written_.records;
    if (!isWhole) ++written_.recordsCut;
  }

  void writeTableData(const PlannedTable& table, const Block& from) {
    const Content content = contentOf(from);
    TableDataHead head = {};
    head.blockMark = kTableDataMark;
    head.headerSize = kTableDataHeaderSize;
    std::memcpy(head.tableID, table.slot.tableID, kIdentifierSize);
    head.dataLength = content.length;
    head.dataCapacity = content.capacity;
    unsigned char bytes[tabledata::kData];
    encodeTableDataHead(head, bytes);
    output_.write(bytes, sizeof bytes);
    writePayload(from, content);
    ++written_.data;
  }

  // The payload, fill up to the capacity, and the end mark. False when the source could not be read
  // everywhere.
  bool writePayload(const Block& from, const Content& content) {
    const uint64_t unreadable =
        payloads_.read(from, [&](const char* bytes, size_t count) { output_.write(bytes, count); });
    output_.fill(content.capacity - content.length);
    output_.write(&kBlockEndMark, 1);
    written_.payloadBytes += content.length;
    written_.bytesUnreadable += unreadable;
    return unreadable == 0;
  }

  PayloadReader payloads_;
  const survey::Survey& survey_;
  const Plan& plan_;
  Output& output_;
  std::vector<Place> places_;
  Written written_;
};

}  // namespace

Written writeFile(const survey::ByteSource& source, const survey::Survey& survey, const Plan& plan,
                  products::TargetFile* target) {
  Output output(target);
  const Written written = Writer(source, survey, plan, &output).write();
  output.flush();
  return written;
}

}  // namespace qvdbase::salvage
