// The plan says which tables and blocks the new file has, and in which order. What the blocks hold
// comes from the source.
#include "recovery/salvage/writer.h"

#include <algorithm>
#include <cstring>

#include "format/identifiers.h"
#include "recovery/copy/database_writer.h"
#include "recovery/salvage/payload_reader.h"
#include "recovery/survey/payload_checksums.h"

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
         qvdb::SalvageReport* report, PayloadStates* states)
      : source_(job.source),
        payloads_(job.source),
        survey_(job.survey),
        plan_(plan),
        output_(*target),
        report_(*report),
        states_(*states) {}

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
      const BlockChecksum sum = checksumOf(source_, from);
      const bool isWhole =
          (sum.isThere ? writeProtected(table, table.records[i], sum) : writePayload(from)) &&
          head.dataLength == from.length;
      if (!sum.isThere) ++report_.payloads.unprotected;
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
    const bool isRead = copyPayload(from, nullptr);
    const Content content = contentOf(from);
    output_.endBlock(content.capacity - content.length);
    return isRead;
  }

  // The same with a checksum, which says afterwards what it says here. One of a sound payload that
  // goes into another table is made for that one.
  bool writeProtected(const PlannedTable& table, uint32_t number, BlockChecksum sum) {
    const Block& from = survey_.blocks[number];
    PayloadHash hash;
    const bool isRead = copyPayload(from, &hash);
    PayloadIdentity identity = identityOf(survey_, from);
    const PayloadState state = stateOfPayload(sum.bytes, identity, hash);
    count(state);
    states_[number] = state;
    if (state == PayloadState::verified) {
      identity.table = identifierNumber(table.slot.tableID);
      encodeChecksum(identity, hash.of(identity), sum.bytes);
    }
    output_.endBlock(from.capacity - from.length, sum.bytes);
    return isRead;
  }

  bool copyPayload(const Block& from, PayloadHash* hash) {
    const uint64_t unreadable = payloads_.read(from, [&](const char* bytes, size_t count) {
      output_.write(bytes, count);
      if (hash != nullptr) hash->add(bytes, count);
    });
    report_.payload_bytes += contentOf(from).length;
    report_.bytes_unreadable += unreadable;
    return unreadable == 0;
  }

  void count(PayloadState state) {
    qvdb::PayloadCounts& counts = report_.payloads;
    switch (state) {
      case PayloadState::verified:
        ++counts.verified;
        return;
      case PayloadState::unprotected:
        ++counts.unprotected;
        return;
      case PayloadState::changedElsewhere:
        ++counts.changed_elsewhere;
        return;
      case PayloadState::rotten:
        ++counts.rotten;
        return;
    }
  }

  const ByteSource& source_;
  PayloadReader payloads_;
  const Survey& survey_;
  const Plan& plan_;
  copy::DatabaseWriter output_;
  qvdb::SalvageReport& report_;
  PayloadStates& states_;
};

}  // namespace

int64_t plannedSize(const Survey& survey, const Plan& plan) {
  return layOut(survey, plan).size;
}

int64_t writeFile(const Job& job, const Plan& plan, products::TargetFile* target,
                  qvdb::SalvageReport* report, PayloadStates* states) {
  return Writer(job, plan, target, report, states).write();
}

}  // namespace qvdbase::salvage
