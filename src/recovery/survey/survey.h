// A survey of a database image: everything that its bytes say, read by the format alone and without
// a judgement. The checker turns it into findings, the salvager into a new file.
//
// It is made in this order:
//
//   1. directory.cpp     the header and every slot
//   2. chains.cpp        both walks of each table's chain, and its table data
//   3. extents.cpp       what the blocks so found cover, and where they overlap
//   4. scanner.cpp       candidates for blocks in all bytes that are left; nested.cpp finds which
//                        of them are parts of payloads
//   5. transactions.cpp  which blocks are of transactions that are not complete
//   6. labels.cpp        what each unreferenced block is: superseded, deleted, never linked, ...
//
// No count and no length in the file is trusted: every walk ends at a block that it has passed, and
// memory grows with the blocks that are really there.
#pragma once

#include <algorithm>
#include <array>
#include <cstdint>
#include <iterator>
#include <map>
#include <vector>

#include "format/intent.h"
#include "format/layout.h"
#include "recovery/survey/byte_source.h"
#include "recovery/survey/position_index.h"
#include "recovery/survey/window.h"

namespace qvdbase::survey {

using Id = std::array<unsigned char, format::kIdentifierSize>;

inline constexpr uint32_t kNoBlock = PositionIndex::kNone;
inline constexpr int kNoSlot = -1;

// ---- header and directory ----

struct Header {
  internal_Head1 fields = {};
  int16_t tableCount = 0;
  uint16_t slotCount = 0;
  uint16_t slotSize = 0;
};

// Whether a database may begin with these bytes: both letters count in either case.
bool isSignature(const unsigned char* bytes);
bool isVersion(int version);  // one that the library opens

struct Slot {
  int index = 0;
  int64_t position = 0;
  bool counted = false;  // below the header's table count
  tablePart1 fields = {};
  std::array<unsigned char, format::kSlotImageSize> image = {};

  bool hasMark() const { return fields.slotMark == format::kSlotMark; }
  bool hasEndMark() const { return fields.slotEndMark == format::kSlotEndMark; }
  // What the engine asks of a slot in use.
  bool holdsTable() const { return hasMark() && hasEndMark(); }
  // Whether chains are followed from here: also when a mark was damaged.
  bool isTable() const;
};

// ---- blocks ----

enum class BlockKind : uint8_t { record, tableData };

// From its first byte to its payload.
inline int64_t headSizeOf(BlockKind kind) {
  return kind == BlockKind::record ? format::record::kData : format::tabledata::kData;
}

// How much of a block that was found by scanning proved right.
enum class Grade : uint8_t {
  a,  // all of it, and after it begins a block, or the bytes end
  b,  // all but one of end mark, sum and capacity
  c,  // the header only
};

// In the order of qvdb::BlockLabel.
enum class Label : uint8_t {
  live,                  // in the table's chain, or the table's current data
  detached,              // its neighbours still point at it, but no end of the chain leads here
  superseded,            // an older version of a record, or of the table's data
  unfinishedRelocation,  // a newer version that never got into the chain
  deleted,
  unlinked,           // appended, but never counted
  deletedOrUnlinked,  // the block alone does not show which
  uncommitted,        // of a transaction that was never committed
  none,
};

// What is wrong with a block; any number of them.
enum Flaw : uint8_t {
  kWrongIdSum = 1,
  kZeroId = 2,
  kLengthAboveCapacity = 4,
  kBeyondEnd = 8,
  kNoEndMark = 16,
  kCutShort = 32,    // its capacity reaches over other blocks; `end` is where they begin
  kUnbelieved = 64,  // nothing confirms its capacity
  kWrongTableSum = 128,
};

// Who leads to a block; any number of them.
enum Reach : uint8_t {
  kForward = 1,    // the forward walk, within the slot's count
  kBackward = 2,   // the backward walk
  kUncounted = 4,  // the forward walk, but after the last counted record
  kAsData = 8,     // the slot's table data
};

struct Block {
  int64_t position = 0;
  int64_t end = 0;  // after its last byte, as far as that is believed
  int64_t prev = 0;
  int64_t next = 0;
  uint64_t recordID = 0;
  uint32_t createTime = 0;
  uint32_t modifyTime = 0;
  uint32_t length = 0;
  uint32_t capacity = 0;
  uint32_t owner = 0;  // index in Survey::owners
  uint32_t walk = 0;   // the last walk that reached it
  BlockKind kind = BlockKind::record;
  Grade grade = Grade::a;
  Label label = Label::none;
  uint8_t flaws = 0;
  uint8_t reach = 0;
  int8_t slot = kNoSlot;  // the slot whose chain or data it is
  // It begins in the space that an earlier block claims. That one is not whole, so this one may be
  // a piece of its payload.
  bool isInTornBlock = false;
  bool isTrimmed = false;  // its payload was given back to the file system
  // Of a transaction that is committed, and not complete in this table.
  bool isOfContradicted = false;

  int64_t dataPos() const { return position + headSizeOf(kind); }
  // After its last byte, if its capacity is right.
  int64_t claimedEnd() const { return dataPos() + int64_t{capacity} + 1; }
  bool isCut() const { return has(kBeyondEnd | kCutShort); }
  // Bytes of payload that are there.
  int64_t dataThere() const {
    const int64_t space = isCut() ? end - dataPos() : int64_t{capacity};
    return space < 0 ? 0 : space < length ? space : int64_t{length};
  }
  bool isReached() const { return reach != 0; }
  bool has(int anyOfTheseFlaws) const { return (flaws & anyOfTheseFlaws) != 0; }
  void add(Flaw flaw) { flaws = static_cast<uint8_t>(flaws | flaw); }
  void drop(Flaw flaw) { flaws = static_cast<uint8_t>(flaws & ~flaw); }
  bool isDeleted() const { return label == Label::deleted || label == Label::deletedOrUnlinked; }
  // In the chain of its table, or belonging there; the same of table data.
  bool isInUse() const { return label == Label::live || label == Label::detached; }
  bool isRecordOf(uint32_t table) const { return kind == BlockKind::record && owner == table; }
  bool isSameRecord(const Block& other) const {
    return owner == other.owner && recordID == other.recordID;
  }
};

// A table identifier that occurs in blocks.
struct Owner {
  Id id = {};
  uint64_t number = 0;
  int slot = kNoSlot;  // the first slot that holds a table of this identifier
  // Records of it that are there whole: live, detached, or never linked. Versions count as one.
  uint64_t records = 0;
};

// ---- chains ----

enum class WalkEnd : uint8_t {
  complete,    // a link of 0
  outside,     // a position where no block can be
  notRecord,   // wrong mark or header size
  otherTable,  // a record block of another table
  loop,        // a block that this walk has passed
  unreadable,  // the host could not read it
};

struct Walk {
  std::vector<uint32_t> blocks;
  WalkEnd end = WalkEnd::complete;
  int64_t stoppedAt = 0;  // the position that could not be followed; 0 when complete

  bool isComplete() const { return end == WalkEnd::complete; }
};

enum class DataState : uint8_t { none, sound, outside, notData, otherTable };

struct Table {
  int slot = 0;
  uint32_t owner = 0;
  Walk forward;
  Walk backward;
  DataState dataState = DataState::none;
  uint32_t dataBlock = kNoBlock;  // also when it has flaws
};

// ---- space ----

struct Range {
  int64_t begin = 0;
  int64_t end = 0;
  int64_t size() const { return end - begin; }
};

enum class Leftover : uint8_t {
  torn,   // begins like a block
  bytes,  // begins like nothing
};

struct LeftoverRange {
  Range range;
  Leftover kind;
};

// What a transaction has written before its intent, and the prelude before that.
struct EarlyBlocks {
  int64_t prelude = 0;
  Range range;  // of blocks that were never committed; empty where the transaction was
  uint64_t blocks = 0;
  bool isCommitted = false;
};

struct Overlap {
  uint32_t first = kNoBlock;  // kNoBlock: the directory
  uint32_t second = kNoBlock;
};

struct Survey {
  int64_t size = 0;
  Header header;
  bool headerThere = false;
  int slotStride = format::kSlotImageSize;  // bytes from slot to slot, as the survey took them
  int64_t blocksStart = 0;                  // where the first block may be
  std::vector<Slot> slots;
  std::vector<Owner> owners;
  uint32_t knownOwners = 0;  // how many of them, the first ones, have a slot in the directory
  std::map<Id, uint32_t> ownerNumbers;
  std::vector<Block> blocks;
  PositionIndex byPosition;
  std::vector<Table> tables;  // one per slot that is a table, counted or not
  std::vector<Overlap> overlaps;
  std::vector<LeftoverRange> leftovers;
  std::vector<int64_t> nestedBlocks;     // blocks inside the payload of others
  std::vector<int64_t> nestedDatabases;  // where databases seem to begin that are not this one
  std::vector<int64_t> contradicted;     // intents with that mark, in file order
  std::vector<EarlyBlocks> early;        // in file order
  int64_t unreadableAt = -1;             // the first position found that could not be read
  bool hasEqualRecords = false;          // walks reach two blocks of one record

  // Whether the file has a header, and the system cannot read all of it.
  bool isHeaderUnreadable() const { return !headerThere && size >= format::kDirectoryPos; }

  // Negative positions mean none.
  void noteUnreadable(int64_t position) {
    if (position >= 0 && unreadableAt < 0) unreadableAt = position;
  }

  // Whether the owner has a slot in the directory.
  bool isKnown(uint32_t owner) const { return owner < knownOwners; }

  // Whether it is an intent of a transaction: of a table that no directory has.
  bool isIntent(const Block& block) const {
    return block.kind == BlockKind::record && owners[block.owner].id == format::kIntentTableID;
  }

  // What a transaction has written early after the last prelude before or at this position; null
  // where there is none.
  const EarlyBlocks* earlyBefore(int64_t position) const {
    const auto after = std::upper_bound(
        early.begin(), early.end(), position,
        [](int64_t asked, const EarlyBlocks& each) { return asked < each.prelude; });
    return after == early.begin() ? nullptr : &*std::prev(after);
  }

  // What the prelude at this position comes before; null where there is no prelude.
  const EarlyBlocks* earlyAt(int64_t position) const {
    const EarlyBlocks* found = earlyBefore(position);
    return found != nullptr && found->prelude == position ? found : nullptr;
  }

  // Whether bytes are what was cut off of blocks that were never committed.
  bool endsEarlyBlocks(const Range& range) const {
    const EarlyBlocks* found = earlyBefore(range.begin);
    return found != nullptr && !found->isCommitted && found->range.end == range.begin;
  }

  // Whether it is a whole block of a table that the directory does not have. No operation removes a
  // table, so its slot was lost; unless the block is a piece of a payload.
  bool isOrphan(const Block& block) const {
    return ownerSlot(block) == nullptr && !isIntent(block) && block.grade == Grade::a &&
           !block.isInTornBlock;
  }

  const Slot& slotOf(const Table& table) const { return slots[static_cast<size_t>(table.slot)]; }

  // Null for kNoSlot.
  const Slot* slotAt(int slot) const {
    return slot == kNoSlot ? nullptr : &slots[static_cast<size_t>(slot)];
  }

  // The slot of the block's table; null for a table that the directory does not have.
  const Slot* ownerSlot(const Block& block) const { return slotAt(owners[block.owner].slot); }

  // The block that begins at `position`; null if there is none.
  const Block* blockAt(int64_t position) const {
    const uint32_t number = byPosition.find(position);
    return number == kNoBlock ? nullptr : &blocks[number];
  }

  // The number of that block, or kNoBlock. It is found at once if a walk reached it right before or
  // after the block `near`.
  uint32_t numberAt(int64_t position, uint32_t near) const {
    for (const uint32_t number : {near + 1, near - 1}) {
      if (number < blocks.size() && blocks[number].position == position) return number;
    }
    return byPosition.find(position);
  }

  const Table* tableOfSlot(int slot) const {
    for (const Table& table : tables) {
      if (table.slot == slot) return &table;
    }
    return nullptr;
  }
};

struct SurveyOptions {
  bool deep = false;             // look for blocks inside the payloads of live blocks, too
  int64_t from = 0;              // first byte that may belong to a block
  bool ignoreDirectory = false;  // treat the image as blocks alone
};

Survey makeSurvey(const ByteSource& source, const SurveyOptions& options = {});

// What the header of a block says by itself: all but the owner, the end and what depends on them.
// `bytes` holds record::kData bytes where the mark is that of a record, else tabledata::kData.
Block decodeBlock(int64_t position, const unsigned char* bytes);

// ---- the steps ----

void readDirectory(const ByteSource& source, const SurveyOptions& options, Survey* survey);
void followChains(const ByteSource& source, Survey* survey);
void layExtents(Survey* survey);
void scanGaps(const ByteSource& source, const SurveyOptions& options, Survey* survey);
void noteTransactions(const ByteSource& source, Survey* survey);
void labelBlocks(Survey* survey);
void findTrimmed(const ByteSource& source, Survey* survey);

// The numbers of all blocks, sorted by position.
std::vector<uint32_t> blocksInFileOrder(const Survey& survey);

// The number of that identifier among the owners, which it joins if it is new.
uint32_t ownerOf(const unsigned char* id, Survey* survey);

}  // namespace qvdbase::survey
