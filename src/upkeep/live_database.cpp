// Reading what is live.
#include "upkeep/live_database.h"

#include <cstring>

#include "format/Aliment8.h"
#include "format/block_heads.h"
#include "recovery/survey/survey.h"
#include "recovery/survey/words.h"

using namespace qvdbase::format;

namespace qvdbase::upkeep {

uint64_t LiveDatabase::recordCount() const {
  uint64_t count = 0;
  for (const LiveTable& table : tables) count += table.records.size();
  return count;
}

bool LiveReader::fail(LiveDamage damage, const std::string& why) {
  damage_ = damage;
  why_ = why;
  return false;
}

bool LiveReader::holds(int64_t position, uint64_t size) const {
  return position >= blocksStart_ && position <= source_.size() &&
         size <= static_cast<uint64_t>(source_.size() - position);
}

const uint8_t* LiveReader::headAt(int64_t position, int64_t size) {
  const auto count = static_cast<size_t>(size);
  return holds(position, count) ? window_.at(position, count) : nullptr;
}

bool LiveReader::read(LiveDatabase* database, const std::function<void()>& step) {
  if (!readDirectory(database)) return false;
  for (LiveTable& table : database->tables) {
    if (!readChain(&table, step) || !readData(table)) return false;
  }
  return true;
}

bool LiveReader::readDirectory(LiveDatabase* database) {
  const uint8_t* header = window_.at(0, database->header.size());
  if (header == nullptr) return fail(LiveDamage::directory, "the file is cut off in its header");
  std::memcpy(database->header.data(), header, database->header.size());
  const auto number = [&](int64_t offset) {
    return loadBigEndian<uint16_t>(database->header.data() + offset);
  };
  const auto tableCount = static_cast<int16_t>(number(kTableCountPos));
  database->slotCount = static_cast<int16_t>(number(kSlotCountPos));
  if (number(kSlotSizePos) != kSlotImageSize || tableCount < 0 ||
      tableCount > database->slotCount) {
    return fail(LiveDamage::directory, "the numbers of its directory are damaged");
  }
  blocksStart_ = database->blocksStart();
  if (blocksStart_ > source_.size()) {
    return fail(LiveDamage::directory, "the file is cut off in its directory");
  }
  for (int16_t i = 0; i < tableCount; ++i) {
    const uint8_t* image = window_.at(slotPosition(i), kSlotImageSize);
    LiveTable table;
    if (image != nullptr) decodeSlot(image, &table.slot);
    if (!slotHoldsTable(table.slot)) {
      return fail(LiveDamage::directory,
                  survey::joined("entry ", i + 1, " of its table directory is damaged"));
    }
    for (const auto& [slot, position] : dataPositions_) {
      if (slot != i) continue;
      tablePart1& fields = table.slot;
      fields.firstDataPos = fields.lastWrittenDataPos = fields.lastDataPos = position;
    }
    table.name = storedName(table.slot);
    database->tables.push_back(std::move(table));
  }
  return true;
}

bool LiveReader::readChain(LiveTable* table, const std::function<void()>& step) {
  const tablePart1& slot = table->slot;
  int64_t position = slot.firstRecordPos;
  int64_t previous = 0;
  const auto damaged = [&](const char* how) {
    recordNumber_ = table->records.size() + 1;
    return fail(LiveDamage::chain,
                survey::joined("record ", recordNumber_, " of table '", table->name, "' ", how));
  };
  for (uint32_t i = 0; i < slot.recordCount; ++i) {
    step();
    if (position == 0) return damaged("is missing: the chain ends before it");
    const uint8_t* bytes = headAt(position, record::kData);
    if (bytes == nullptr) return damaged("cannot be read");
    if (!isRecordOf(bytes, slot.tableID)) return damaged("is not where its chain leads");
    const recordPart1 head = decodeRecordHead(bytes);
    if (head.prevRecordPos != previous) return damaged("does not point back to the one before it");
    if (head.dataLength > head.dataCapacity) return damaged("claims more bytes than its capacity");
    if (!holds(position, uint64_t{head.dataCapacity} + kRecordBlockOverhead)) {
      return damaged("reaches beyond the end of the file");
    }
    table->records.push_back(position);
    if (position == slot.lastWrittenRecordPos) table->bytesBeforeLastWritten = table->blockBytes;
    table->bytesBeforeLast = table->blockBytes;
    table->blockBytes += int64_t{head.dataCapacity} + kRecordBlockOverhead;
    previous = position;
    position = head.nextRecordPos;
  }
  if (position != 0 && (slot.recordCount != 0 || slot.firstRecordPos != 0)) {
    return damaged("is in the chain, but not counted");
  }
  if (slot.lastRecordPos != previous) {
    return fail(LiveDamage::chain,
                "the last record of table '" + table->name + "' is not where the directory says");
  }
  return true;
}

bool LiveReader::readData(const LiveTable& table) {
  const int64_t position = table.slot.firstDataPos;
  if (position == 0) return true;
  const auto damaged = [&] {
    return fail(LiveDamage::data, "the data of table '" + table.name + "' is damaged");
  };
  const uint8_t* bytes = headAt(position, tabledata::kData);
  if (bytes == nullptr) return damaged();
  const TableDataHead head = decodeTableDataHead(bytes);
  const bool isSound = head.blockMark == kTableDataMark &&
                       head.headerSize == kTableDataHeaderSize &&
                       std::memcmp(head.tableID, table.slot.tableID, kIdentifierSize) == 0 &&
                       head.dataLength <= head.dataCapacity &&
                       holds(position, uint64_t{head.dataCapacity} + kTableDataBlockOverhead);
  return isSound || damaged();
}

recordPart1 liveRecord(survey::Window& window, int64_t position) {
  const uint8_t* bytes = window.at(position, record::kData);
  return bytes != nullptr ? decodeRecordHead(bytes) : recordPart1{};
}

}  // namespace qvdbase::upkeep
