// Step 2 of a survey: from every slot along the chain, from both ends, and to the table data.
//
// A walk continues as long as its next block is a record block of the table that it has not passed
// before, so it ends whatever the links and the slot's count say. It also continues after the last
// counted record: an append that was cut off before the slot was written leaves one there.
//
// After changes a chain leads to and fro in the file. So the headers of all blocks that follow one
// another from the first are read before, in the order of the file. A walk looks for a block there,
// and reads only what is elsewhere.
#include <algorithm>
#include <cstring>

#include "format/block_heads.h"
#include "format/identifiers.h"
#include "recovery/survey/survey.h"

using namespace qvdbase::format;

namespace qvdbase::survey {
namespace {

class ChainReader {
 public:
  ChainReader(const ByteSource& source, Survey* survey)
      : source_(source), window_(source), survey_(*survey) {}

  // Reads blocks as long as each one begins where the one before it ends, and can be read.
  void readAhead() {
    if (survey_.knownOwners == 0) return;
    Window window(source_);
    std::vector<int64_t> positions;
    for (int64_t position = survey_.blocksStart; position <= survey_.size - record::kData;) {
      const uint8_t* bytes = window.at(position, record::kData);
      if (bytes == nullptr || !isBlockStart(bytes)) break;
      const bool isRecord = *bytes == kRecordMark;
      Block block = decodeBlock(position, bytes);
      position = block.claimedEnd();
      if (!isRecord) continue;
      block.owner = ownerInDirectory(bytes + record::kTableID);
      if (block.owner == kNoBlock) continue;
      settle(&window, &block);
      if (window.unreadableAt() >= 0) break;
      positions.push_back(block.position);
      ahead_.push_back(block);
    }
    survey_.blocks.reserve(ahead_.size());
    survey_.byPosition.expect(AscendingPositions(std::move(positions)));
  }

  void follow(Table* table) {
    const tablePart1& fields = survey_.slotOf(*table).fields;
    walk(*table, fields.firstRecordPos, fields.recordCount, kForward, &table->forward);
    walk(*table, fields.lastRecordPos, 0, kBackward, &table->backward);
    if (fields.firstDataPos != 0) table->dataState = findTableData(fields.firstDataPos, table);
  }

  int64_t unreadableAt() const { return window_.unreadableAt(); }

 private:
  void walk(const Table& table, int64_t position, uint32_t count, Reach direction, Walk* walk) {
    ++walkNumber_;
    uint32_t number = kNoBlock;
    while (position != 0) {
      number = recordAt(position, table.owner, number, &walk->end);
      if (number != kNoBlock && survey_.blocks[number].walk == walkNumber_) {
        walk->end = WalkEnd::loop;
      }
      if (walk->end != WalkEnd::complete) {
        walk->stoppedAt = position;
        return;
      }
      Block& block = survey_.blocks[number];
      block.walk = walkNumber_;
      if (block.slot == kNoSlot) block.slot = static_cast<int8_t>(table.slot);
      const bool isUncounted = direction == kForward && walk->blocks.size() >= count;
      block.reach = static_cast<uint8_t>(block.reach | (isUncounted ? kUncounted : direction));
      walk->blocks.push_back(number);
      position = direction == kForward ? block.next : block.prev;
    }
  }

  // The number of the record block of `owner` at `position`; kNoBlock, with the reason, if there is
  // none. The walk comes from the block `from`.
  uint32_t recordAt(int64_t position, uint32_t owner, uint32_t from, WalkEnd* why) {
    const auto none = [&](WalkEnd reason) {
      *why = reason;
      return kNoBlock;
    };
    if (isOutside(position)) return none(WalkEnd::outside);
    const uint32_t known = survey_.numberAt(position, from);
    if (known != kNoBlock) {
      const Block& block = survey_.blocks[known];
      if (block.kind != BlockKind::record) return none(WalkEnd::notRecord);
      return block.owner == owner ? known : none(WalkEnd::otherTable);
    }
    const uint32_t ahead = survey_.byPosition.expectedPlace(position);
    if (ahead != kNoBlock) {
      return ahead_[ahead].owner == owner ? add(ahead_[ahead]) : none(WalkEnd::otherTable);
    }
    if (position > survey_.size - record::kData) return none(WalkEnd::notRecord);
    const uint8_t* bytes = window_.at(position, record::kData);
    if (bytes == nullptr) return none(WalkEnd::unreadable);
    if (*bytes != kRecordMark || !isBlockStart(bytes)) return none(WalkEnd::notRecord);
    if (!isOwnedBy(owner, bytes + record::kTableID)) return none(WalkEnd::otherTable);
    return addDecoded(decodeBlock(position, bytes), owner);
  }

  bool isOutside(int64_t position) const {
    return position < survey_.blocksStart || position >= survey_.size;
  }

  bool isOwnedBy(uint32_t owner, const uint8_t* tableID) const {
    return std::memcmp(tableID, survey_.owners[owner].id.data(), kIdentifierSize) == 0;
  }

  // The owner with that identifier; kNoBlock if no slot has it.
  uint32_t ownerInDirectory(const uint8_t* tableID) const {
    for (uint32_t owner = 0; owner < survey_.knownOwners; ++owner) {
      if (isOwnedBy(owner, tableID)) return owner;
    }
    return kNoBlock;
  }

  uint32_t addDecoded(Block block, uint32_t owner) {
    block.owner = owner;
    settle(&window_, &block);
    return add(block);
  }

  uint32_t add(const Block& block) {
    const auto number = static_cast<uint32_t>(survey_.blocks.size());
    survey_.blocks.push_back(block);
    survey_.byPosition.add(block.position, number);
    return number;
  }

  // Where a decoded block ends, and what is wrong with that and with its owner.
  void settle(Window* window, Block* settled) const {
    Block& block = *settled;
    block.end = std::min(block.claimedEnd(), survey_.size);
    if (block.claimedEnd() > survey_.size) {
      block.add(kBeyondEnd);
    } else if (window->byteAt(block.end - 1) != kBlockEndMark) {
      block.add(kNoEndMark);
    }
    if (!isBelieved(window, block)) block.add(kUnbelieved);
    if (!identifierSumIsRight(survey_.owners[block.owner].id.data())) block.add(kWrongTableSum);
  }

  // Whether the bytes where the block ends confirm its capacity: the end mark, or where that is
  // damaged, that the next block begins right there.
  bool isBelieved(Window* window, const Block& block) const {
    if (block.has(kBeyondEnd)) return false;
    if (block.end == survey_.size) return true;
    const int mark = window->byteAt(block.end);
    if (mark != kRecordMark && mark != kTableDataMark) return false;
    if (!block.has(kNoEndMark)) return true;
    const uint8_t* bytes = window->at(block.end, record::kTableID);
    return bytes != nullptr && isBlockStart(bytes);
  }

  DataState findTableData(int64_t position, Table* table) {
    if (isOutside(position)) return DataState::outside;
    const uint8_t* bytes = window_.at(position, tabledata::kData);
    const bool isData = bytes != nullptr && *bytes == kTableDataMark && isBlockStart(bytes);
    if (!isData) return DataState::notData;
    if (!isOwnedBy(table->owner, bytes + tabledata::kTableID)) return DataState::otherTable;
    table->dataBlock = survey_.byPosition.find(position);
    if (table->dataBlock == kNoBlock) {
      table->dataBlock = addDecoded(decodeBlock(position, bytes), table->owner);
    }
    Block& block = survey_.blocks[table->dataBlock];
    block.reach |= kAsData;
    block.slot = static_cast<int8_t>(table->slot);
    return DataState::sound;
  }

  const ByteSource& source_;
  Window window_;
  Survey& survey_;
  std::vector<Block> ahead_;  // at the places of the expected positions
  uint32_t walkNumber_ = 0;
};

}  // namespace

Block decodeBlock(int64_t position, const unsigned char* bytes) {
  Block block;
  block.position = position;
  if (bytes[record::kBlockMark] == kRecordMark) {
    const recordPart1 head = decodeRecordHead(bytes);
    block.prev = head.prevRecordPos;
    block.next = head.nextRecordPos;
    block.recordID = identifierNumber(head.recordID);
    block.createTime = head.createTime;
    block.modifyTime = head.modifyTime;
    block.length = head.dataLength;
    block.capacity = head.dataCapacity;
    if (!identifierSumIsRight(head.recordID)) block.add(kWrongIdSum);
    if (block.recordID == 0) block.add(kZeroId);
  } else {
    const TableDataHead head = decodeTableDataHead(bytes);
    block.kind = BlockKind::tableData;
    block.length = head.dataLength;
    block.capacity = head.dataCapacity;
  }
  if (block.length > block.capacity) block.add(kLengthAboveCapacity);
  return block;
}

void followChains(const ByteSource& source, Survey* survey) {
  ChainReader reader(source, survey);
  reader.readAhead();
  for (const Slot& slot : survey->slots) {
    if (!slot.isTable()) continue;
    Table table;
    table.slot = slot.index;
    table.owner = ownerOf(slot.fields.tableID, survey);
    reader.follow(&table);
    survey->tables.push_back(std::move(table));
  }
  survey->noteUnreadable(reader.unreadableAt());
}

}  // namespace qvdbase::survey
