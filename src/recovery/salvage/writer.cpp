// The plan says which tables and blocks the new file has, and in which order. What the blocks hold
// comes from the source.
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

tablePart1 slotOf(const PlannedTable& table, const TablePlace& place) {
  tablePart1 slot = copy::DatabaseWriter::slotAt(table.slot, place);
  slot.recordCount = static_cast<uint32_t>(table.records.size());
  slot.recordWriteCount = std::max(slot.recordWriteCount, slot.recordCount);
  slot.dataBlockCount = place.data != 0 ? 1 : 0;
  slot.dataWriteCount = place.data != 0 ? std::max<uint32_t>(slot.dataWriteCount, 1) : 0;
  return slot;
}

// The slots of the tables, with the places of their blocks, and the size of the file.
struct Layout {
  std::vector<tablePart1> slots;
  int64_t size = kNewFileSize;
};

// Records first, then the data, table after table.
Layout layOut(const Survey& survey, const Plan& plan) {
  Layout layout;
  const auto take = [&](uint32_t number, int64_t overhead) {
    const int64_t position = layout.size;
    layout.size += overhead + contentOf(survey.blocks[number]).capacity;
    return position;
  };
  for (const PlannedTable& table : plan.tables) {
    TablePlace place;
    if (!table.records.empty()) place.firstRecord = layout.size;
    for (const uint32_t number : table.records) {
      place.lastRecord = place.lastWrittenRecord = take(number, kRecordBlockOverhead);
    }
    if (table.data != kNoBlock) place.data = take(table.data, kTableDataBlockOverhead);
    layout.slots.push_back(slotOf(table, place));
  }
  return layout;
}

class Writer {
 public:
  Writer(const Job& job, const Plan& plan, products::TargetFile* target,
         qvdb::SalvageReport* report)
      : payloads_(job.source),
        survey_(job.survey),
        plan_(plan),
        output_(*target),
        report_(*report) {}

  int64_t write() {
    output_.directory(header(), layOut(survey_, plan_).slots, kNewSlotCount);
    for (const PlannedTable& table : plan_.tables) writeTable(table);
    output_.flush();
    return payloads_.unreadableAt();
  }

 private:
  copy::Header header() const {
    copy::Header bytes;
    std::memcpy(bytes.data(), plan_.header.signature, kSignatureSize);
    storeBigEndian(bytes.data() + kVersionPos, plan_.header.version);
    std::memcpy(bytes.data() + kDatabaseIDPos, plan_.header.databaseID, kIdentifierSize);
    storeBigEndian(bytes.data() + kTableCountPos, static_cast<uint16_t>(plan_.tables.size()));
    storeBigEndian(bytes.data() + kSlotCountPos, kNewSlotCount);
    storeBigEndian(bytes.data() + kSlotSizePos, kSlotImageSize);
    return bytes;
  }

  void writeTable(const PlannedTable& table) {
    for (size_t i = 0; i < table.records.size(); ++i) {
      const Block& from = survey_.blocks[table.records[i]];
      auto head = headOf<recordPart1>(table, from);
      internal_ConvertInt64_2UuID(from.recordID, head.recordID);
      head.createTime = from.createTime;
      head.modifyTime = from.modifyTime;
      output_.beginRecord(head, i == 0, i + 1 == table.records.size());
      const bool isWhole = writePayload(from) && head.dataLength == from.length;
      ++report_.records_written;
      if (!isWhole) ++report_.records_cut;
    }
    if (table.data == kNoBlock) return;
    const Block& from = survey_.blocks[table.data];
    output_.beginTableData(headOf<TableDataHead>(table, from));
    writePayload(from);
    ++report_.data_written;
  }

  template <typename Head>
  static Head headOf(const PlannedTable& table, const Block& from) {
    Head head = {};
    std::memcpy(head.tableID, table.slot.tableID, kIdentifierSize);
    head.dataLength = contentOf(from).length;
    head.dataCapacity = contentOf(from).capacity;
    return head;
  }

  // False when a part of the payload could not be read.
  bool writePayload(const Block& from) {
    const Content content = contentOf(from);
    const uint64_t unreadable =
        payloads_.read(from, [&](const char* bytes, size_t count) { output_.write(bytes, count); });
    output_.endBlock(content.capacity - content.length);
    report_.payload_bytes += content.length;
    report_.bytes_unreadable += unreadable;
    return unreadable == 0;
  }

  PayloadReader payloads_;
  const Survey& survey_;
  const Plan& plan_;
  copy::DatabaseWriter output_;
  qvdb::SalvageReport& report_;
};

}  // namespace

int64_t plannedSize(const Survey& survey, const Plan& plan) {
  return layOut(survey, plan).size;
}

int64_t writeFile(const Job& job, const Plan& plan, products::TargetFile* target,
                  qvdb::SalvageReport* report) {
  return Writer(job, plan, target, report).write();
}

}  // namespace qvdbase::salvage
