// The tables, their order and their blocks are the plan's; what the blocks hold is the source's.
#include "recovery/salvage/writer.h"

#include <algorithm>
#include <cstring>

#include "format/identifiers.h"
#include "recovery/copy/database_writer.h"
#include "recovery/salvage/payload_reader.h"

using namespace qvdbase::format;
using namespace qvdbase::survey;

namespace qvdbase::salvage {
namespace {

using copy::TablePlace;

// What a block will hold in the new file.
struct Content {
  uint32_t length;
  uint32_t capacity;
};

Content contentOf(const Block& block) {
  const auto length = static_cast<uint32_t>(block.dataThere());
  // A capacity that the source does not confirm is not kept.
  return {length, block.isCut() ? length : std::max(length, block.capacity)};
}

class Writer {
 public:
  Writer(const ByteSource& source, const Survey& survey, const Plan& plan,
         products::TargetFile& target)
      : payloads_(source), survey_(survey), plan_(plan), output_(target) {}

  Written write() {
    output_.directory(header(), slots(), kNewSlotCount);
    for (const PlannedTable& table : plan_.tables) writeTable(table);
    output_.flush();
    written_.unreadableAt = payloads_.unreadableAt();
    return written_;
  }

 private:
  const Block& block(uint32_t number) const { return survey_.blocks[number]; }

  copy::Header header() const {
    copy::Header bytes;
    const internal_Head1& fields = plan_.header.fields;
    std::memcpy(bytes.data(), fields.signature, kSignatureSize);
    storeBigEndian(bytes.data() + kVersionPos, fields.version);
    std::memcpy(bytes.data() + kDatabaseIDPos, fields.databaseID, kIdentifierSize);
    storeBigEndian(bytes.data() + kTableCountPos, static_cast<uint16_t>(plan_.tables.size()));
    storeBigEndian(bytes.data() + kSlotCountPos, kNewSlotCount);
    storeBigEndian(bytes.data() + kSlotSizePos, kSlotImageSize);
    return bytes;
  }

  // Records first, then the data, table after table.
  std::vector<tablePart1> slots() const {
    std::vector<tablePart1> slots;
    int64_t position = kNewFileSize;
    for (const PlannedTable& table : plan_.tables) {
      TablePlace place;
      if (!table.records.empty()) place.firstRecord = position;
      for (const uint32_t number : table.records) {
        place.lastRecord = place.lastWrittenRecord = position;
        position += kRecordBlockOverhead + contentOf(block(number)).capacity;
      }
      if (table.data != kNoBlock) {
        place.data = position;
        position += kTableDataBlockOverhead + contentOf(block(table.data)).capacity;
      }
      slots.push_back(slotOf(table, place));
    }
    return slots;
  }

  static tablePart1 slotOf(const PlannedTable& table, const TablePlace& place) {
    tablePart1 slot = copy::DatabaseWriter::slotAt(table.slot, place);
    slot.recordCount = static_cast<uint32_t>(table.records.size());
    slot.recordWriteCount = std::max(slot.recordWriteCount, slot.recordCount);
    slot.dataBlockCount = place.data != 0 ? 1 : 0;
    slot.dataWriteCount = place.data != 0 ? std::max<uint32_t>(slot.dataWriteCount, 1) : 0;
    return slot;
  }

  void writeTable(const PlannedTable& table) {
    for (size_t i = 0; i < table.records.size(); ++i) {
      writeRecord(table, i, block(table.records[i]));
    }
    if (table.data != kNoBlock) writeTableData(table, block(table.data));
  }

  void writeRecord(const PlannedTable& table, size_t index, const Block& from) {
    const Content content = contentOf(from);
    recordPart1 head = {};
    std::memcpy(head.tableID, table.slot.tableID, kIdentifierSize);
    internal_ConvertInt64_2UuID(from.recordID, head.recordID);
    head.createTime = from.createTime;
    head.modifyTime = from.modifyTime;
    head.dataLength = content.length;
    head.dataCapacity = content.capacity;
    output_.beginRecord(head, index == 0, index + 1 == table.records.size());
    const bool isWhole = writePayload(from, content) && content.length == from.length;
    ++written_.records;
    if (!isWhole) ++written_.recordsCut;
  }

  void writeTableData(const PlannedTable& table, const Block& from) {
    const Content content = contentOf(from);
    TableDataHead head = {};
    std::memcpy(head.tableID, table.slot.tableID, kIdentifierSize);
    head.dataLength = content.length;
    head.dataCapacity = content.capacity;
    output_.beginTableData(head);
    writePayload(from, content);
    ++written_.data;
  }

  // False when the source could not be read everywhere.
  bool writePayload(const Block& from, const Content& content) {
    const uint64_t unreadable =
        payloads_.read(from, [&](const char* bytes, size_t count) { output_.write(bytes, count); });
    output_.endBlock(content.capacity - content.length);
    written_.payloadBytes += content.length;
    written_.bytesUnreadable += unreadable;
    return unreadable == 0;
  }

  PayloadReader payloads_;
  const Survey& survey_;
  const Plan& plan_;
  copy::DatabaseWriter output_;
  Written written_;
};

}  // namespace

int64_t plannedSize(const Survey& survey, const Plan& plan) {
  int64_t size = kNewFileSize;
  const auto add = [&](uint32_t number, int64_t overhead) {
    size += overhead + contentOf(survey.blocks[number]).capacity;
  };
  for (const PlannedTable& table : plan.tables) {
    for (const uint32_t number : table.records) add(number, kRecordBlockOverhead);
    if (table.data != kNoBlock) add(table.data, kTableDataBlockOverhead);
  }
  return size;
}

Written writeFile(const ByteSource& source, const Survey& survey, const Plan& plan,
                  products::TargetFile* target) {
  return Writer(source, survey, plan, *target).write();
}

}  // namespace qvdbase::salvage
