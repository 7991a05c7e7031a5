// The steps of the packs.
#include "maintenance/pack_steps.h"

#include <qvdbase/QVFile.h>

#include <algorithm>
#include <exception>

#include "QVDbase/directory_cache.h"
#include "QVDbase/record_find.h"
#include "QVDbase/table_data.h"
#include "QVDbase/tables.h"
#include "format/Aliment8.h"
#include "format/fields.h"
#include "maintenance/file_extent.h"
#include "maintenance/pack_record.h"
#include "platform/handles/open_files.h"
#include "platform/host/memory.h"
#include "platform/host/thread_cancelled.h"

using namespace qvdbase::format;
using namespace qvdbase::engine;
using namespace qvdbase::maintenance;

namespace qvdbase::maintenance {
namespace {

constexpr int kCreateOneWriter = 2;
constexpr int kEmptyExisting = 0;  // a file that is there is emptied, not refused

constexpr uint64_t kLargestTransfer = 1u << 30;

// A payload up to this length is read without asking first whether the file holds it.
constexpr uint32_t kUnsuspiciousLength = 1u << 16;

// Moves any number of bytes by readBytes or writeBytes.
template <typename Byte>
bool moveLong(bool (*move)(int16_t, Byte*, uint32_t), int16_t file, uint8_t* bytes,
              uint64_t count) {
  while (count > 0) {
    const auto part = static_cast<uint32_t>(std::min(count, kLargestTransfer));
    if (!move(file, bytes, part)) return false;
    bytes += part;
    count -= part;
  }
  return true;
}

}  // namespace

int PackSteps::run(const QVWCHAR* srcPath) {
  if (QVFile().QVOpenFile(srcPath, platform::kSharedWriters, &src_) != 1) return 0;
  ownsSource_ = true;
  srcTurn_.emplace(src_);
  return run();
}

int PackSteps::run() {
  try {
    if (fill() && finish() && report(100)) return 1;
  } catch (platform::ThreadCancelled&) {
    fail();
    throw;
  } catch (const std::exception&) {
    // No memory, which is a failure like the others.
  }
  fail();
  return 0;
}

bool PackSteps::fill() {
  return src_ != 0 && readSourceDirectory() && createDestination() && copyHeader() &&
         copyDirectory() && report(1) && copyTables();
}

bool PackSteps::finish() {
  closeSource();
  if (!completeDestination()) return false;
  closeDestination();
  *out_.dstRef = 0;
  return true;
}

bool PackSteps::readSourceDirectory() {
  if (!readDirectoryNumbers(src_, &directory_)) return false;
  headerLength_ = myGetFilePos(src_);
  return true;
}

bool PackSteps::createDestination() {
  if (QVFile().QVCreateAndOpenFile(dstPath_, kCreateOneWriter, &dst_, kEmptyExisting) != 1) {
    dst_ = 0;
    *out_.status = PackOutputs::kKept;
    return false;
  }
  dstTurn_.emplace(dst_);
  // Where another thread had the source's turn meanwhile, it may have added a table.
  DirectoryCacheEntry present;
  if (findDirectoryEntry(src_, &present)) directory_.tableCount = present.tableCount;
  *out_.status = PackOutputs::kEmptied;
  *out_.srcRef = static_cast<uint16_t>(src_);
  *out_.dstRef = static_cast<uint16_t>(dst_);
  return true;
}

bool PackSteps::copyHeader() {
  const auto length = static_cast<uint32_t>(headerLength_);
  platform::Buffer header(length);
  // Intended: without memory for it the header is left out, without an error, and everything else
  // is done anyway. The slots then begin at the start of the destination.
  if (!header) return true;
  bufferHeld_ = true;
  if (myFileSeek(src_, 0, kFromStart) != 0) return false;  // unreached: own position
  if (!readBytes(src_, header.data(), length)) return false;
  adjustHeader(header.data());
  if (!writeBytes(dst_, header.data(), length) || !CallScope::completeWrites()) return false;
  bufferHeld_ = false;
  return true;
}

bool PackSteps::copyDirectory() {
  for (int i = 0; i < directory_.slotCount; ++i) {
    tablePart1 slot;
    if (ReadOne_TablePartOne(src_, &slot, directory_.slotSize) != 1) return false;
    totalRecords_ += slot.recordCount;
    zeroRecordFields(&slot);
    if (!writeDirectorySlot(slot)) return false;
  }
  return CallScope::completeWrites();
}

bool PackSteps::copyTables() {
  if (!seekBoth(headerLength_, headerLength_)) return false;  // unreached: own position
  for (int t = 0; t < directory_.tableCount; ++t) {
    if (!copyTable()) return false;
  }
  return true;
}

bool PackSteps::copyTable() {
  const int64_t slotPos = myGetFilePos(dst_);
  tablePart1 slot;
  if (!readTableSlot(dst_, &slot)) return false;  // only to move past it
  if (!readTableSlot(src_, &slot) || !slotHoldsTable(slot)) return false;
  const int64_t nextSrcSlot = myGetFilePos(src_);
  const int64_t nextDstSlot = myGetFilePos(dst_);

  if (slot.firstDataPos != 0 && !copyTableData(slot, slotPos)) return false;
  if (slot.recordCount != 0 && slot.firstRecordPos != 0 && !copyRecords(slot, slotPos)) {
    return false;
  }
  if (!reportTable()) return false;
  return seekBoth(nextSrcSlot, nextDstSlot);
}

bool PackSteps::copyTableData(const tablePart1& slot, int64_t slotPos) {
  int64_t length = 0;
  int64_t newDataPos = 0;
  if (!measureTableDataBlock(src_, slot.firstDataPos, slot.tableID, &length)) return false;
  if (!copyBlock(slot.firstDataPos, length, &newDataPos)) return false;

  tablePart1 copy = slot;
  copy.firstDataPos = copy.lastWrittenDataPos = copy.lastDataPos = newDataPos;
  zeroRecordFields(&copy);
  if (myFileSeek(dst_, slotPos, kFromStart) != 0) return false;  // unreached: own position
  return rewriteSlotWithData(copy) && CallScope::completeWrites();
}

bool PackSteps::copyBlock(int64_t blockPos, int64_t length, int64_t* newBlockPos) {
  const auto count = static_cast<uint64_t>(length);
  platform::Buffer block(count + 1);
  if (!block) return false;
  bufferHeld_ = true;
  // unreached: its length was measured there
  if (myFileSeek(src_, blockPos, kFromStart) != 0) return false;
  if (!moveLong(readBytes, src_, block.data(), count)) return false;
  if (myFileSeek(dst_, 0, kFromEnd) != 0) return false;  // unreached: own position
  *newBlockPos = myGetFilePos(dst_);
  if (!moveLong(writeBytes, dst_, block.data(), count) || !CallScope::completeWrites())
    return false;
  bufferHeld_ = false;
  return true;
}

bool PackSteps::copyRecords(const tablePart1& slot, int64_t slotPos) {
  // Required: the working slot is the source's again, its three table-data positions
  // included, and the first record appended writes these over the ones that copyTableData has just
  // put into the destination. A packed table that has records does not find its table data.
  tablePart1 working = slot;
  zeroRecordFields(&working);
  if (myFileSeek(src_, slot.firstRecordPos, kFromStart) != 0) return false;
  if (!beginRecords(slot)) return false;
  for (uint32_t i = 0; i < slot.recordCount; ++i) {
    recordPart1 header;
    if (!copyRecord(&working, slotPos, &header)) return false;
    ++copiedRecords_;
    if (!reportRecord(percentOfRecords())) return false;
    if (header.nextRecordPos == 0) return completeRecords();
    if (myFileSeek(src_, header.nextRecordPos, kFromStart) != 0) return false;
    steppedOn();
  }
  // A longer chain is cut here, and one that loops ends after as many copies as were counted.
  return completeRecords();
}

bool PackSteps::copyRecord(tablePart1* working, int64_t slotPos, recordPart1* header) {
  if (internal_GetOneRecordDataInfo(src_, working->tableID, header) != 1) return false;
  const uint32_t length = header->dataLength;
  // A length that the file does not hold is a read that fails, without the memory for it.
  if (length > kUnsuspiciousLength && !fileHoldsAhead(src_, length)) {
    bufferHeld_ = true;
    return false;
  }
  platform::Buffer payload(uint64_t{length} + 1);
  if (!payload) return false;
  bufferHeld_ = true;
  if (!readBytes(src_, payload.data(), length)) return false;
  if (!appendRecord(working, slotPos, *header, payload.data())) return false;
  if (progress_.function != nullptr && !CallScope::completeWrites()) return false;
  bufferHeld_ = false;
  return true;
}

// Between two progress calls the writes of many records are gathered. One that is refused belongs
// to a record whose payload was in memory when it was made.
bool PackSteps::completeRecords() {
  if (CallScope::completeWrites()) return true;
  bufferHeld_ = true;
  return false;
}

bool PackSteps::writeDirectorySlot(const tablePart1& slot) {
  return WriteOne_TablePartOne(dst_, &slot) == 1;
}

bool PackSteps::readTableSlot(int16_t file, tablePart1* slot) {
  return ReadOne_TablePartOne(file, slot, directory_.slotSize) == 1;
}

bool PackSteps::rewriteSlotWithData(const tablePart1& slot) {
  return PackSteps::writeDirectorySlot(slot);
}

bool PackSteps::appendRecord(tablePart1* working, int64_t slotPos, const recordPart1& source,
                             const unsigned char* payload) {
  return internal_AddOneRecordData_ForPack(dst_, working, working->tableID, slotPos,
                                           directory_.slotSize, payload, &source) == 1;
}

bool PackSteps::completeDestination() {
  return scope_.end();
}

void PackSteps::closeSource() {
  if (!ownsSource_) return;
  close(src_, srcTurn_);
  *out_.srcRef = 0;
}

void PackSteps::closeDestination() {
  close(dst_, dstTurn_);
}

// What is closed is closed once more, as required, but not where the number is that of a file which
// another thread has opened since.
void PackSteps::close(int16_t file, std::optional<platform::Turn>& turn) {
  if (!turn && !platform::wasOpenedHere(file)) return;
  dropDirectoryEntry(file);
  QVFile().QVCloseFile(file);
  turn.reset();
}

bool PackSteps::report(uint32_t percent) {
  if (progress_.function == nullptr) return true;
  return callOutside(progress_.function, progress_.userData, static_cast<int>(percent),
                     progress_.argument) != 0;
}

// From 1 to 98, in unsigned 32-bit arithmetic; a total of 0 counts as no progress.
uint32_t PackSteps::percentOfRecords() const {
  return totalRecords_ == 0 ? 1 : 97u * copiedRecords_ / totalRecords_ + 1;
}

void PackSteps::fail() {
  // First, so that the scope is over when the one around it ends, whichever step failed.
  static_cast<void>(scope_.end());
  closeSource();
  if (dst_ != 0) {
    closeDestination();
    // The status counts as the caller left it: a progress function that stores 100 keeps the file.
    if (*out_.status != PackOutputs::kKept) QVFile().QVDeleteFile(dstPath_);
  }
  // The only failure after which the caller's destination number is 0: the others leave it.
  if (bufferHeld_) *out_.dstRef = 0;
}

bool PackSteps::seekBoth(int64_t srcPos, int64_t dstPos) {
  // unreached: own positions
  return myFileSeek(src_, srcPos, kFromStart) == 0 && myFileSeek(dst_, dstPos, kFromStart) == 0;
}

}  // namespace qvdbase::maintenance
