// Intents of transactions, and the pending word: every offset of both.
//
// An intent is a record block of a table that no directory has. Its payload lists what a
// transaction changes in place; the transaction's new blocks follow the block. The pending word is
// in the last slot of the directory, which never holds a table: it says where the first intent is
// whose changes may be missing from the file. All numbers are stored most significant byte first
// but the word's position, which is stored as the numbers of slots are.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <vector>

#include "format/layout.h"
#include "format/place_bytes.h"
#include "support/xxh3.h"

namespace qvdbase::format {

// The identifier of the table that intents belong to: "QVintent" and the sum of these bytes.
inline constexpr std::array<unsigned char, kIdentifierSize> kIntentTableID = {
    'Q', 'V', 'i', 'n', 't', 'e', 'n', 't', 0x03, 0x39};

// The pending word, offsets in the file. All zeros while nothing is open.
namespace pending {
inline constexpr int64_t kPosition = slotPosition(kNewSlotCount - 1) + slot::kFirstRecordPos;
inline constexpr int kStart = 0;  // int64, least significant byte first; offsets from kPosition
inline constexpr int kNonce = kStart + 8;
inline constexpr int kHash = kNonce + 8;
inline constexpr int kSize = kHash + 8;
static_assert(kPosition == 4558 && kSize == 24);
static_assert(kPosition / 512 == (kPosition + kSize - 1) / 512, "one sector holds all of it");
}  // namespace pending

using Nonce = std::array<unsigned char, 8>;

struct PendingWord {
  int64_t start = 0;
  Nonce nonce{};
};
using WordBytes = std::array<unsigned char, pending::kSize>;

WordBytes encodePendingWord(const PendingWord& word, const unsigned char* databaseID);
// Nothing when the bytes are no word of this database, or name no place where a block can be.
std::optional<PendingWord> decodePendingWord(const WordBytes& bytes,
                                             const unsigned char* databaseID);

// An intent's payload, offsets from its first byte.
namespace intent {
inline constexpr int kMagic = 0;  // 8 bytes
inline constexpr int kDatabaseID = kMagic + 8;
inline constexpr int kFlags = kDatabaseID + static_cast<int>(kIdentifierSize);
inline constexpr int kState = kFlags + 1;                // uint8, taken as 0 by the hash
inline constexpr int kEntryCount = kState + 1;           // uint32
inline constexpr int kNonce = kEntryCount + 4;           // 8 bytes
inline constexpr int kSequence = kNonce + 8;             // uint64, from 1 in each run
inline constexpr int kSynced = kSequence + 8;            // uint64
inline constexpr int kOwnPosition = kSynced + 8;         // int64
inline constexpr int kLengthBefore = kOwnPosition + 8;   // int64
inline constexpr int kBlocksLength = kLengthBefore + 8;  // uint64
inline constexpr int kBlocksHash = kBlocksLength + 8;    // 16 bytes
inline constexpr int kHash = kBlocksHash + 16;           // 16 bytes
inline constexpr int kEntries = kHash + 16;
static_assert(kEntries == 104);

// An entry, offsets from its first byte.
inline constexpr int kEntrySlot = 0;      // uint8
inline constexpr int kEntryKind = 1;      // uint8
inline constexpr int kEntryLength = 2;    // uint16, of `before` and, where there is one, of `after`
inline constexpr int kEntryPosition = 4;  // int64
inline constexpr int kEntryValues = 12;
}  // namespace intent

inline constexpr unsigned char kIntentMagic[8] = {'Q', 'V', 't', 'x', 0, 2, '\r', '\n'};
inline constexpr uint8_t kIntentIsSynced = 1;      // flag: commits wait for the device
inline constexpr uint8_t kIntentContradicted = 2;  // state, for those who look for what is wrong

enum class EntryKind : uint8_t {
  patch = 1,        // before, after
  guard = 2,        // before: it must still be there
  guardByHash = 4,  // before is the length (uint32) of the bytes there, after their hash
  backLink = 5,     // a patch of the link to a record's predecessor
};
constexpr bool isPatch(EntryKind kind) {
  return (static_cast<uint8_t>(kind) & 1) != 0;
}

struct IntentEntry {
  uint8_t slot = 0;
  EntryKind kind = EntryKind::patch;
  int64_t position = 0;
  PlaceBytes before;
  PlaceBytes after;
};

struct Intent {
  uint8_t flags = 0;
  uint8_t state = 0;
  Nonce nonce{};
  uint64_t sequence = 0;
  uint64_t synced = 0;       // up to this sequence all was on the device before it was written
  int64_t position = 0;      // of its block
  int64_t lengthBefore = 0;  // of the file, before the transaction
  uint64_t blocksLength = 0;
  support::Hash128 blocksHash{};
  std::vector<IntentEntry> entries;
};

// The sizes of entries and of whole blocks, which do not depend on the values.
int64_t entrySize(const IntentEntry& entry);
int64_t intentBlockSize(const std::vector<IntentEntry>& entries);

// The whole block of an intent. `time` is its creation time; `previous` the position of the intent
// before it in the run, or 0. Its size is at most what a record can have.
std::vector<unsigned char> encodeIntent(const Intent& intent, const unsigned char* databaseID,
                                        uint32_t time, int64_t previous);

// The length of the payload of an intent that begins with this header, or nothing when it is that
// of something else.
std::optional<uint32_t> intentPayloadLength(const unsigned char* head);

// Decodes the block of an intent: header, payload, end mark. Nothing unless it is one of this
// database whose hash is right; every entry then has the length of its kind and place. Which
// places these are, and whether they are in the file, is for the caller to judge.
std::optional<Intent> decodeIntent(std::span<const unsigned char> block,
                                   const unsigned char* databaseID);

// A prelude: a block of the same table, which comes before what a transaction writes before its
// intent. Where no intent follows that begins the transaction here, these blocks were never
// committed. It is written again whenever more of them follow.
namespace prelude {
inline constexpr int kMagic = 0;  // 8 bytes
inline constexpr int kDatabaseID = kMagic + 8;
inline constexpr int kOwnPosition = kDatabaseID + static_cast<int>(kIdentifierSize);  // int64
inline constexpr int kLength = kOwnPosition + 8;                                      // int64
inline constexpr int kHash = kLength + 8;  // 8 bytes: of the block up to here
inline constexpr int kSize = kHash + 8;
inline constexpr int64_t kBlockSize = kRecordBlockOverhead + kSize;
static_assert(kSize == 42 && kBlockSize == 98);
}  // namespace prelude

inline constexpr unsigned char kPreludeMagic[8] = {'Q', 'V', 't', 'p', 0, 1, '\r', '\n'};

struct Prelude {
  int64_t position = 0;  // of its block: the length of the file before the transaction
  int64_t length = 0;    // of the blocks after it, as far as they were written or about to be
  uint32_t time = 0;     // when it was written last
};
using PreludeBlock = std::array<unsigned char, static_cast<size_t>(prelude::kBlockSize)>;

PreludeBlock encodePrelude(const Prelude& prelude, const unsigned char* databaseID);
// Nothing when it is no prelude of this database, or not whole.
std::optional<Prelude> decodePrelude(const PreludeBlock& block, const unsigned char* databaseID);

// The hash of an intent's blocks, fed in pieces of any size. Links of records count as zeros: later
// transactions change them in place.
class BlocksHash {
 public:
  void add(std::span<const unsigned char> piece);
  // Nothing when what was added is not a row of whole blocks.
  std::optional<support::Hash128> finish();

 private:
  size_t addToHead(std::span<const unsigned char> piece);
  void hashHead(size_t headSize, uint64_t rest);

  support::Xxh3 hash_;
  std::array<unsigned char, record::kData> head_{};  // of the block that has begun
  size_t headSize_ = 0;                              // of what is there of it
  uint64_t rest_ = 0;                                // of the block, after its header
  bool tiles_ = true;
};

}  // namespace qvdbase::format
