// Taking and comparing stamps.
#include "objects/kept/kept_stamp.h"

#include <algorithm>
#include <array>
#include <vector>

#include "format/big_endian.h"
#include "platform/handles/file_changes.h"
#include "platform/handles/open_files.h"
#include "support/file_transfers.h"

using namespace qvdbase;

namespace qvdb::detail {

using namespace format::kept;

namespace {

// Larger directories than this are not those of a library's file.
constexpr int64_t kLargestDirectory = 64 * 1024;

// What never changes of a block's header once the block is complete.
constexpr size_t kMarksOfRecord = format::record::kModifyTime;
constexpr size_t kMarksOfData = format::tabledata::kData;

using Header = std::array<unsigned char, format::record::kData>;

bool readRaw(int16_t db, int64_t position, unsigned char* bytes, uint32_t count) {
  uint32_t moved = 0;
  return support::seekTo(db, position) && support::readFile(db, bytes, count, &moved) &&
         moved == count;
}

// The header of whatever block is there: of all its bytes, and of those that never change. Zeros
// where there is none.
struct HeaderSums {
  uint64_t all = 0;
  uint64_t marks = 0;
};

HeaderSums headerSums(int16_t db, int64_t position) {
  Header header = {};
  if (position <= 0 || !readRaw(db, position, header.data(), format::tabledata::kData)) return {};
  const bool isRecord = header[0] == format::kRecordMark;
  if (isRecord && !readRaw(db, position, header.data(), header.size())) return {};
  return {sumOf(header.data(), isRecord ? header.size() : kMarksOfData),
          sumOf(header.data(), isRecord ? kMarksOfRecord : kMarksOfData)};
}

// How many records have been removed, which never becomes less.
int64_t removedFrom(uint32_t recordCount, uint32_t recordWriteCount) {
  return int64_t{recordWriteCount} - int64_t{recordCount};
}

bool identify(int16_t db, Stamp* stamp) {
  const platform::OpenFile* file = platform::findOpenFile(db);
  platform::FileStamp now;
  if (file == nullptr || !platform::stampOf(db, &now)) return false;
  const platform::FileEntry* source = file->entry->source;
  const platform::FileEntry& entry = source != nullptr ? *source : *file->entry;
  stamp->device = static_cast<uint64_t>(entry.device);
  stamp->inode = static_cast<uint64_t>(entry.inode);
  stamp->size = now.size;
  stamp->modifyTime = now.modifyTime;
  stamp->statusTime = now.statusTime;
  return true;
}

// From the number of tables to the end of the directory.
bool sumDirectory(const Operation& operation, uint64_t* sum) {
  const engine::DirectoryNumbers numbers = operation.directory();
  const int64_t end = format::directoryEnd(numbers.slotCount, numbers.slotSize);
  if (numbers.slotCount < 0 || end > kLargestDirectory) return false;
  std::vector<unsigned char> bytes(static_cast<size_t>(end - format::kTableCountPos));
  if (!readRaw(operation.db(), format::kTableCountPos, bytes.data(),
               static_cast<uint32_t>(bytes.size()))) {
    return false;
  }
  *sum = sumOf(bytes.data(), bytes.size());
  return true;
}

}  // namespace

std::optional<Stamp> stampNow(const Operation& operation) {
  Stamp stamp;
  if (!identify(operation.db(), &stamp) || !sumDirectory(operation, &stamp.slots)) {
    return std::nullopt;
  }
  std::vector<tablePart1> slots;
  tablePart1 slot;
  operation.findSlot(&slot, [&slots](const tablePart1& each) {
    slots.push_back(each);
    return false;
  });
  std::vector<unsigned char> sums;
  for (const tablePart1& each : slots) {
    const int64_t positions[] = {each.lastRecordPos, each.lastWrittenRecordPos, each.lastDataPos,
                                 each.lastWrittenDataPos};
    for (const int64_t position : positions) stamp.lastBlock = std::max(stamp.lastBlock, position);
    sums.resize(sums.size() + sizeof(uint64_t));
    format::storeBigEndian(sums.data() + sums.size() - sizeof(uint64_t),
                           headerSums(operation.db(), positions[0]).all);
  }
  stamp.lastRecords = sumOf(sums.data(), sums.size());
  const HeaderSums last = headerSums(operation.db(), stamp.lastBlock);
  stamp.lastBlockHeader = last.all;
  stamp.lastBlockMarks = last.marks;
  return stamp;
}

Chain chainOf(const Operation& operation, const tablePart1& slot) {
  return {.recordCount = slot.recordCount,
          .recordWriteCount = slot.recordWriteCount,
          .first = slot.firstRecordPos,
          .lastWritten = slot.lastWrittenRecordPos,
          .last = slot.lastRecordPos,
          .lastMarks = headerSums(operation.db(), slot.lastRecordPos).marks};
}

Kinship kinshipOf(const Operation& operation, const Head& head, const Stamp& now,
                  const tablePart1& slot) {
  if (now == head.stamp) return Kinship::same;
  const Stamp& then = head.stamp;
  const bool isLater = now.device == then.device && now.inode == then.inode &&
                       now.size >= then.size &&
                       slot.recordWriteCount >= head.chain.recordWriteCount &&
                       removedFrom(slot.recordCount, slot.recordWriteCount) >=
                           removedFrom(head.chain.recordCount, head.chain.recordWriteCount) &&
                       headerSums(operation.db(), then.lastBlock).marks == then.lastBlockMarks &&
                       headerSums(operation.db(), head.chain.last).marks == head.chain.lastMarks;
  return isLater ? Kinship::changed : Kinship::none;
}

}  // namespace qvdb::detail
