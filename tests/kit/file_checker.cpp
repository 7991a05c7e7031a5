// The independent checker of database files.
//
//   1. header and directory, slot by slot
//   2. each table's chain forwards and backwards, and its table data; every block that is reached
//      leaves its extent behind
//   3. the extents must not overlap
//   4. from the directory's end to the end of the file, block behind block: a live one, or a dead
//      one that is whole
#include "kit/file_checker.h"

#include <algorithm>
#include <map>
#include <optional>
#include <set>

#include "kit/file_fields.h"

namespace qvdbase::test {
namespace {

using Positions = std::vector<int64_t>;

constexpr int64_t kBlocksStart = static_cast<int64_t>(kDirectoryEnd);
constexpr int64_t kRecordOverhead = 56;  // 55 bytes of header and the end mark
constexpr int64_t kDataOverhead = 22;    // 21 bytes of header and the end mark

struct RecordHead {  // what the walks need, read without trusting the lengths
  uint8_t mark = 0;
  uint16_t headerSize = 0;
  Bytes tableID;
  Bytes recordID;
  int64_t prev = 0;
  int64_t next = 0;
  uint32_t length = 0;
  uint32_t capacity = 0;
};

std::string number(int64_t value) {
  return std::to_string(value);
}

class Checker {
 public:
  explicit Checker(const Bytes& file) : file_(file), size_(static_cast<int64_t>(file.size())) {}

  std::vector<Finding> run() {
    if (!checkHeader()) return findings_;
    checkDirectory();
    for (const size_t index : soundSlots_) {
      checkRecords(index);
      checkTableData(index);
    }
    checkOverlap();
    checkSpace();
    return findings_;
  }

 private:
  void report(const char* code, int64_t offset, const std::string& text) {
    findings_.push_back({code, text, offset});
  }

  // ---- header and directory ----

  bool checkHeader() {
    if (size_ == 0) return report("F1", 0, "the file is empty"), false;
    if (size_ < 22) return report("F2", size_, "the header is cut off"), false;
    const HeaderFields header = decodeHeader(file_);
    const bool q = header.signature[0] == 'Q' || header.signature[0] == 'q';
    const bool v = header.signature[1] == 'V' || header.signature[1] == 'v';
    if (!q || !v) report("H1", 0, "signature " + header.signature.str());
    if (header.version < 100 || header.version > 199) {
      report("H2", 4, "version " + number(header.version));
    }
    if (header.version == 101) report("H3", 4, "version 101: unfinished pack");
    if (!identifierSound(header.databaseID)) report("H4", 6, "sum of the database identifier");
    if (header.tableCount < 0 || header.tableCount > 31) {
      report("H5", 16, "table count " + number(header.tableCount));
    }
    if (header.slotCount != 32 || header.slotSize != 144) {
      return report("H6", 18, "directory is not 32 slots of 144 bytes"), false;
    }
    if (size_ < kBlocksStart) return report("F2", size_, "the directory is cut off"), false;
    tableCount_ = static_cast<size_t>(std::clamp<int>(header.tableCount, 0, 32));
    return true;
  }

  void checkDirectory() {
    for (size_t i = 0; i < kSlots; ++i) {
      if (i < tableCount_) {
        checkUsedSlot(i);
      } else {
        checkFreeSlot(i);
      }
    }
  }

  // The last slot of a new directory has 24 bytes that say where a transaction is not in place yet,
  // while the file is open.
  static Bytes withoutPendingWord(size_t index, const Bytes& slot) {
    return index == 31 ? slot.with(72, Bytes(24)) : slot;
  }

  void checkFreeSlot(size_t index) {
    const auto offset = static_cast<int64_t>(slotOffset(index));
    const SlotFields slot = decodeSlot(file_, index);
    if (slot.slotMark == 151 || slot.slotEndMark == 'y') {
      report("D2", offset,
             "slot " + number(static_cast<int>(index)) + " is not counted but marked");
    } else if (withoutPendingWord(index, file_.at(slotOffset(index), kSlotBytes)) !=
               freeSlot().encode()) {
      report("D10", offset, "free slot " + number(static_cast<int>(index)) + " is not blank");
    }
  }

  void checkUsedSlot(size_t index) {
    const auto offset = static_cast<int64_t>(slotOffset(index));
    const SlotFields slot = decodeSlot(file_, index);
    if (slot.slotMark != 151 || slot.slotEndMark != 'y') {
      return report("D1", offset, "slot " + number(static_cast<int>(index)) + " lacks a mark");
    }
    slots_[index] = slot;
    soundSlots_.push_back(index);
    if (!identifierSound(slot.tableID)) report("D3", offset + 6, "sum of the table identifier");
    if (identifierNumber(slot.tableID) == 0) report("D3", offset + 6, "table identifier 0");
    if (!tableIDs_.insert(slot.tableID).second) {
      report("D3", offset + 6, "table identifier of another slot");
    }
    checkName(slot, offset);
    checkConstants(slot, offset);
    checkCounts(slot, offset);
  }

  void checkName(const SlotFields& slot, int64_t offset) {
    const std::string name = slot.name();
    if (name.empty()) report("D4", offset + 16, "empty table name");
    const auto tail = slot.tableName.begin() + static_cast<std::ptrdiff_t>(name.size());
    if (std::any_of(tail, slot.tableName.end(), [](uint8_t byte) { return byte != 0; })) {
      report("D4", offset + 16, "bytes behind the table name");
    }
    if (name.size() < 32 && !names_.insert(name).second) {
      report("D4", offset + 16, "two tables named " + name);
    }
  }

  void checkConstants(const SlotFields& slot, int64_t offset) {
    if (slot.infoSize != 50 || slot.recordsInfoSize != 40 || slot.dataInfoSize != 40) {
      report("D5", offset, "size groups are not 50, 40 and 40");
    }
    if (slot.encode() != file_.at(static_cast<size_t>(offset), kSlotBytes)) {
      report("D5", offset, "a filler byte is not 0xCC");
    }
  }

  void checkCounts(const SlotFields& slot, int64_t offset) {
    const bool empty = slot.recordCount == 0;
    if (empty != (slot.firstRecordPos == 0) || empty != (slot.lastRecordPos == 0)) {
      report("D6", offset + 60, "record count and chain ends disagree");
    }
    if (empty && slot.lastWrittenRecordPos != 0) {
      report("D6", offset + 80, "an empty table has a last written record");
    }
    if (slot.recordCount > slot.recordWriteCount) {
      report("D8", offset + 60, "more records than were ever written");
    }
    const bool noData = slot.firstDataPos == 0;
    if (slot.lastWrittenDataPos != slot.firstDataPos || slot.lastDataPos != slot.firstDataPos) {
      report("D9", offset + 112, "the three table-data positions differ");
    }
    if (slot.dataBlockCount != (noData ? 0u : 1u) || (slot.dataWriteCount == 0) != noData) {
      report("D9", offset + 100, "table-data counts and position disagree");
    }
  }

  // ---- blocks ----

  bool inBlockArea(int64_t position, int64_t bytes) const {
    return position >= kBlocksStart && position <= size_ - bytes;
  }

  RecordHead recordHead(int64_t position) const {
    const Bytes head = file_.at(static_cast<size_t>(position), kRecordHeaderBytes);
    RecordHead result;
    result.mark = head[0];
    result.headerSize = static_cast<uint16_t>(head.beAt(1, 2));
    result.tableID = head.at(3, 10);
    result.recordID = head.at(13, 10);
    result.prev = static_cast<int64_t>(head.beAt(31, 8));
    result.next = static_cast<int64_t>(head.beAt(39, 8));
    result.length = static_cast<uint32_t>(head.beAt(47, 4));
    result.capacity = static_cast<uint32_t>(head.beAt(51, 4));
    return result;
  }

  bool endMarkAt(int64_t position) const { return file_[static_cast<size_t>(position)] == 'i'; }

  // The header when `position` can hold a record block of the table; otherwise the reason is
  // reported.
  std::optional<RecordHead> reachRecord(const SlotFields& owner, int64_t position) {
    if (!inBlockArea(position, kRecordOverhead)) {
      return report("R1", position, "no place for a record block"), std::nullopt;
    }
    RecordHead head = recordHead(position);
    if (head.mark != 135 || head.headerSize != 64) {
      return report("R2", position, "no record block"), std::nullopt;
    }
    if (head.tableID != owner.tableID) {
      return report("R3", position, "record block of another table"), std::nullopt;
    }
    return head;
  }

  void checkRecordBlock(int64_t position, const RecordHead& head) {
    if (!identifierSound(head.recordID)) report("R4", position + 13, "sum of the identifier");
    if (head.length > head.capacity) report("R11", position + 47, "length above capacity");
    const int64_t length = kRecordOverhead + head.capacity;
    if (!inBlockArea(position, length)) {
      return report("R12", position, "the block reaches beyond the end of the file");
    }
    if (!endMarkAt(position + length - 1)) report("R13", position + length - 1, "no end mark");
    live_[position].push_back(length);
  }

  // ---- chains ----

  void checkRecords(size_t index) {
    const SlotFields& slot = slots_[index];
    const auto offset = static_cast<int64_t>(slotOffset(index));
    if (slot.firstRecordPos == 0 || slot.recordCount == 0) return;
    const Positions forward = walkForward(slot, offset);
    Positions backward = walkBackward(slot);
    std::reverse(backward.begin(), backward.end());
    if (backward != forward) {
      report("R10", offset + 88, "backward walk differs from the forward one");
    }
    checkLastWritten(slot, offset);
  }

  Positions walkForward(const SlotFields& slot, int64_t offset) {
    Positions chain;
    std::set<int64_t> seen;
    int64_t position = slot.firstRecordPos;
    int64_t previous = 0;
    while (position != 0 && chain.size() < slot.recordCount) {
      if (!seen.insert(position).second) return report("R9", position, "loop"), chain;
      const std::optional<RecordHead> head = reachRecord(slot, position);
      if (!head) return chain;
      checkRecordBlock(position, *head);
      if (head->prev != previous) report("R8", position + 31, "back link is not the predecessor");
      chain.push_back(position);
      previous = position;
      position = head->next;
    }
    if (chain.size() < slot.recordCount) report("R5", previous, "chain ends before the count");
    if (position != 0) report("R6", previous + 39, "last counted record has a successor");
    if (previous != slot.lastRecordPos) {
      report("R7", offset + 88,
             "forward walk ends at " + number(previous) + ", not at " + number(slot.lastRecordPos));
    }
    return chain;
  }

  // Quiet: what is wrong with a block has been said by the forward walk, or the two walks differ.
  Positions walkBackward(const SlotFields& slot) const {
    Positions chain;
    int64_t position = slot.lastRecordPos;
    while (position != 0 && chain.size() < slot.recordCount &&
           inBlockArea(position, kRecordOverhead)) {
      const RecordHead head = recordHead(position);
      if (head.mark != 135 || head.tableID != slot.tableID) break;
      chain.push_back(position);
      position = head.prev;
    }
    return chain;
  }

  void checkLastWritten(const SlotFields& slot, int64_t offset) {
    const int64_t position = slot.lastWrittenRecordPos;
    if (!inBlockArea(position, kRecordOverhead)) {
      return report("D7", offset + 80, "last written position " + number(position));
    }
    const RecordHead head = recordHead(position);
    if (head.mark != 135 || head.tableID != slot.tableID) {
      report("D7", offset + 80, "last written position is no record of the table");
    }
  }

  // ---- table data ----

  void checkTableData(size_t index) {
    const SlotFields& slot = slots_[index];
    const int64_t position = slot.firstDataPos;
    if (position == 0) return;
    if (!inBlockArea(position, kDataOverhead)) {
      return report("T1", static_cast<int64_t>(slotOffset(index)) + 112,
                    "table data at " + number(position));
    }
    const Bytes head = file_.at(static_cast<size_t>(position), kDataHeaderBytes);
    if (head[0] != 150 || head.beAt(1, 2) != 32 || head.at(3, 10) != slot.tableID) {
      return report("T2", position, "no table data of this table");
    }
    const uint64_t capacity = head.beAt(17, 4);
    if (head.beAt(13, 4) > capacity) report("T4", position + 13, "length above capacity");
    const int64_t length = kDataOverhead + static_cast<int64_t>(capacity);
    if (!inBlockArea(position, length)) {
      return report("T4", position, "the block reaches beyond the end of the file");
    }
    if (!endMarkAt(position + length - 1)) report("T4", position + length - 1, "no end mark");
    live_[position].push_back(length);
  }

  // ---- space ----

  void checkOverlap() {
    int64_t end = kBlocksStart;
    for (const auto& [position, lengths] : live_) {
      if (position < end || lengths.size() > 1) report("S1", position, "blocks overlap");
      end = std::max(end, position + *std::max_element(lengths.begin(), lengths.end()));
    }
  }

  void checkSpace() {
    int64_t position = kBlocksStart;
    auto next = live_.begin();
    while (position < size_) {
      while (next != live_.end() && next->first < position) ++next;
      if (next != live_.end() && next->first == position) {
        position += next->second.front();
        continue;
      }
      const int64_t limit = next == live_.end() ? size_ : next->first;
      position = checkDeadBlock(position, limit);
    }
  }

  // Returns where the walk goes on: behind the block, or at `limit` when there is no whole one.
  int64_t checkDeadBlock(int64_t position, int64_t limit) {
    const uint8_t mark = file_[static_cast<size_t>(position)];
    if (mark != 135 && mark != 150) {
      return report("S5", position, number(limit - position) + " bytes of no block"), limit;
    }
    const bool record = mark == 135;
    const int64_t overhead = record ? kRecordOverhead : kDataOverhead;
    if (position > limit - overhead) return report("S4", position, "cut off header"), limit;
    const auto start = static_cast<size_t>(position);
    const size_t lengthAt = start + (record ? 47 : 13);
    const uint64_t capacity = file_.beAt(lengthAt + 4, 4);
    const int64_t length = overhead + static_cast<int64_t>(capacity);
    const Bytes tableID = file_.at(start + 3, 10);
    const bool sound = file_.beAt(start + 1, 2) == (record ? 64u : 32u) &&
                       file_.beAt(lengthAt, 4) <= capacity && identifierSound(tableID) &&
                       (!record || identifierSound(file_.at(start + 13, 10))) &&
                       position <= limit - length && endMarkAt(position + length - 1);
    if (!sound) return report("S4", position, "unreferenced block that is not whole"), limit;
    // Intents of transactions belong to a table that no directory has.
    const bool isIntent = record && tableID == Bytes().text("QVintent").be(2, 0x339);
    if (!isIntent && !tableIDs_.contains(tableID)) {
      report("S8", position, "unreferenced block of no table");
    }
    return position + length;
  }

  const Bytes& file_;
  const int64_t size_;
  size_t tableCount_ = 0;
  std::map<size_t, SlotFields> slots_;
  std::vector<size_t> soundSlots_;
  std::set<Bytes> tableIDs_;
  std::set<std::string> names_;
  std::map<int64_t, Positions> live_;  // position to the lengths that were claimed for it
  std::vector<Finding> findings_;
};

}  // namespace

std::vector<Finding> checkFile(const Bytes& file) {
  return Checker(file).run();
}

std::vector<Finding> checkFile(const std::filesystem::path& path) {
  return checkFile(readFile(path));
}

std::string describe(const std::vector<Finding>& findings) {
  std::string text;
  for (const Finding& each : findings) {
    text += "  " + each.code + " at " + number(each.offset) + ": " + each.text + "\n";
  }
  return text;
}

std::vector<std::string> codesOf(const std::vector<Finding>& findings) {
  std::set<std::string> codes;
  for (const Finding& each : findings) codes.insert(each.code);
  return {codes.begin(), codes.end()};
}

}  // namespace qvdbase::test
