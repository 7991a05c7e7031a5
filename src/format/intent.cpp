// Intents of transactions and the pending word, as bytes.
#include "format/intent.h"

#include <algorithm>
#include <cassert>
#include <cstring>
#include <iterator>
#include <limits>

#include "format/big_endian.h"
#include "format/block_heads.h"

namespace qvdbase::format {
namespace {

constexpr size_t kIdentifierBytes = static_cast<size_t>(kIdentifierSize);
constexpr size_t kHeadBytes = static_cast<size_t>(record::kData);

void storeHash(unsigned char* bytes, const support::Hash128& hash) {
  storeBigEndian<uint64_t>(bytes, hash.high);
  storeBigEndian<uint64_t>(bytes + 8, hash.low);
}

support::Hash128 loadHash(const unsigned char* bytes) {
  return {.low = loadBigEndian<uint64_t>(bytes + 8), .high = loadBigEndian<uint64_t>(bytes)};
}

// Of header, payload up to the hash, and entries; the state counts as 0.
support::Hash128 hashOfIntent(std::span<const unsigned char> block) {
  static constexpr unsigned char kNoState = 0;
  const size_t state = kHeadBytes + intent::kState;
  const size_t hash = kHeadBytes + intent::kHash;
  const size_t entries = kHeadBytes + intent::kEntries;
  support::Xxh3 sum;
  sum.add(block.data(), state);
  sum.add(&kNoState, 1);
  sum.add(block.data() + state + 1, hash - state - 1);
  sum.add(block.data() + entries, block.size() - 1 - entries);
  return sum.result128();
}

uint64_t hashOfPrelude(const PreludeBlock& block) {
  support::Xxh3 sum;
  sum.add(block.data(), kHeadBytes + prelude::kHash);
  return sum.result64();
}

uint64_t hashOfWord(const unsigned char* bytes, const unsigned char* databaseID) {
  support::Xxh3 sum;
  sum.add(databaseID, kIdentifierBytes);
  sum.add(bytes, pending::kHash);
  return sum.result64();
}

size_t sizeOfAfter(EntryKind kind, size_t before) {
  if (isPatch(kind)) return before;
  return kind == EntryKind::guardByHash ? 8 : 0;
}

// Whether an entry of this kind can have values of this length, by what there is to be changed.
bool isLength(EntryKind kind, int64_t position, size_t length) {
  if (kind == EntryKind::guardByHash) return length == 4;
  if (position == kTableCountPos) return kind == EntryKind::patch && length == 2;
  if (position >= kNewFileSize) return length == 8 || (kind == EntryKind::guard && length == 4);
  return position >= kDirectoryPos && kind != EntryKind::backLink && length == kSlotImageSize;
}

bool isKind(uint8_t kind) {
  return kind == static_cast<uint8_t>(EntryKind::patch) ||
         kind == static_cast<uint8_t>(EntryKind::guard) ||
         kind == static_cast<uint8_t>(EntryKind::guardByHash) ||
         kind == static_cast<uint8_t>(EntryKind::backLink);
}

unsigned char* encodeEntry(const IntentEntry& entry, unsigned char* out) {
  assert(entry.after.size() == sizeOfAfter(entry.kind, entry.before.size()));
  out[intent::kEntrySlot] = entry.slot;
  out[intent::kEntryKind] = static_cast<uint8_t>(entry.kind);
  storeBigEndian(out + intent::kEntryLength, static_cast<uint16_t>(entry.before.size()));
  storeBigEndian(out + intent::kEntryPosition, static_cast<uint64_t>(entry.position));
  out = std::copy(entry.before.begin(), entry.before.end(), out + intent::kEntryValues);
  return std::copy(entry.after.begin(), entry.after.end(), out);
}

// Takes the entry at the beginning of `bytes` off them.
std::optional<IntentEntry> takeEntry(std::span<const unsigned char>* bytes) {
  if (bytes->size() < intent::kEntryValues) return std::nullopt;
  const unsigned char* fields = bytes->data();
  if (!isKind(fields[intent::kEntryKind])) return std::nullopt;
  IntentEntry entry;
  entry.slot = fields[intent::kEntrySlot];
  entry.kind = static_cast<EntryKind>(fields[intent::kEntryKind]);
  entry.position = static_cast<int64_t>(loadBigEndian<uint64_t>(fields + intent::kEntryPosition));
  const size_t before = loadBigEndian<uint16_t>(fields + intent::kEntryLength);
  const size_t after = sizeOfAfter(entry.kind, before);
  *bytes = bytes->subspan(intent::kEntryValues);
  if (!isLength(entry.kind, entry.position, before) || bytes->size() < before + after) {
    return std::nullopt;
  }
  entry.before = PlaceBytes(bytes->data(), before);
  entry.after = PlaceBytes(bytes->data() + before, after);
  *bytes = bytes->subspan(before + after);
  return entry;
}

std::optional<std::vector<IntentEntry>> takeEntries(std::span<const unsigned char> bytes,
                                                    uint32_t count) {
  std::vector<IntentEntry> entries;
  for (uint32_t i = 0; i < count; ++i) {
    std::optional<IntentEntry> entry = takeEntry(&bytes);
    if (!entry) return std::nullopt;
    entries.push_back(std::move(*entry));
  }
  if (!bytes.empty()) return std::nullopt;
  return entries;
}

// Of a block of the intents' table.
recordPart1 headOf(uint64_t number, uint32_t payload, uint32_t time, int64_t previous) {
  recordPart1 head{};
  head.blockMark = kRecordMark;
  head.headerSize = kRecordHeaderSize;
  std::copy(kIntentTableID.begin(), kIntentTableID.end(), head.tableID);
  storeBigEndian(head.recordID, number);
  uint16_t sum = 0;
  for (int64_t i = 0; i < kIdentitySize; ++i) sum = static_cast<uint16_t>(sum + head.recordID[i]);
  storeBigEndian(head.recordID + kIdentitySize, sum);
  head.createTime = time;
  head.modifyTime = time;
  head.prevRecordPos = previous;
  head.nextRecordPos = 0;
  head.dataLength = payload;
  head.dataCapacity = payload;
  return head;
}

void encodeFixedPart(const Intent& intent, const unsigned char* databaseID, unsigned char* out) {
  std::copy(std::begin(kIntentMagic), std::end(kIntentMagic), out + intent::kMagic);
  std::copy(databaseID, databaseID + kIdentifierSize, out + intent::kDatabaseID);
  out[intent::kFlags] = intent.flags;
  out[intent::kState] = intent.state;
  storeBigEndian(out + intent::kEntryCount, static_cast<uint32_t>(intent.entries.size()));
  std::copy(intent.nonce.begin(), intent.nonce.end(), out + intent::kNonce);
  storeBigEndian(out + intent::kSequence, intent.sequence);
  storeBigEndian(out + intent::kSynced, intent.synced);
  storeBigEndian(out + intent::kOwnPosition, static_cast<uint64_t>(intent.position));
  storeBigEndian(out + intent::kLengthBefore, static_cast<uint64_t>(intent.lengthBefore));
  storeBigEndian(out + intent::kBlocksLength, intent.blocksLength);
  storeHash(out + intent::kBlocksHash, intent.blocksHash);
}

}  // namespace

WordBytes encodePendingWord(const PendingWord& word, const unsigned char* databaseID) {
  WordBytes bytes{};
  for (size_t i = 0; i < 8; ++i) {
    bytes[pending::kStart + i] =
        static_cast<unsigned char>(static_cast<uint64_t>(word.start) >> 8 * i & 0xFF);
  }
  std::copy(word.nonce.begin(), word.nonce.end(), bytes.begin() + pending::kNonce);
  storeBigEndian(bytes.data() + pending::kHash, hashOfWord(bytes.data(), databaseID));
  return bytes;
}

std::optional<PendingWord> decodePendingWord(const WordBytes& bytes,
                                             const unsigned char* databaseID) {
  PendingWord word;
  uint64_t start = 0;
  for (size_t i = 0; i < 8; ++i) start |= uint64_t{bytes[pending::kStart + i]} << 8 * i;
  word.start = static_cast<int64_t>(start);
  std::copy_n(bytes.begin() + pending::kNonce, word.nonce.size(), word.nonce.begin());
  const auto hash = loadBigEndian<uint64_t>(bytes.data() + pending::kHash);
  if (word.start < kNewFileSize || hash != hashOfWord(bytes.data(), databaseID)) {
    return std::nullopt;
  }
  return word;
}

int64_t entrySize(const IntentEntry& entry) {
  return intent::kEntryValues + static_cast<int64_t>(entry.before.size() + entry.after.size());
}

int64_t intentBlockSize(const std::vector<IntentEntry>& entries) {
  int64_t size = kRecordBlockOverhead + intent::kEntries;
  for (const IntentEntry& entry : entries) size += entrySize(entry);
  return size;
}

std::vector<unsigned char> encodeIntent(const Intent& intent, const unsigned char* databaseID,
                                        uint32_t time, int64_t previous) {
  const int64_t size = intentBlockSize(intent.entries);
  const int64_t payload = size - kRecordBlockOverhead;
  assert(payload <= std::numeric_limits<uint32_t>::max());
  std::vector<unsigned char> block(static_cast<size_t>(size));
  encodeRecordHead(headOf(intent.sequence, static_cast<uint32_t>(payload), time, previous),
                   block.data());
  encodeFixedPart(intent, databaseID, block.data() + kHeadBytes);
  unsigned char* out = block.data() + kHeadBytes + intent::kEntries;
  for (const IntentEntry& entry : intent.entries) out = encodeEntry(entry, out);
  *out = kBlockEndMark;
  storeHash(block.data() + kHeadBytes + intent::kHash, hashOfIntent(block));
  return block;
}

std::optional<uint32_t> intentPayloadLength(const unsigned char* head) {
  if (!isRecordOf(head, kIntentTableID.data())) return std::nullopt;
  const recordPart1 fields = decodeRecordHead(head);
  if (fields.dataLength != fields.dataCapacity) return std::nullopt;
  if (fields.dataLength < static_cast<uint32_t>(intent::kEntries)) return std::nullopt;
  return fields.dataLength;
}

std::optional<Intent> decodeIntent(std::span<const unsigned char> block,
                                   const unsigned char* databaseID) {
  constexpr size_t kOverhead = static_cast<size_t>(kRecordBlockOverhead);
  if (block.size() < kOverhead + intent::kEntries || block.back() != kBlockEndMark) {
    return std::nullopt;
  }
  const std::optional<uint32_t> payload = intentPayloadLength(block.data());
  if (!payload || block.size() != kOverhead + *payload) return std::nullopt;
  const unsigned char* fields = block.data() + kHeadBytes;
  if (std::memcmp(fields + intent::kMagic, kIntentMagic, sizeof kIntentMagic) != 0 ||
      std::memcmp(fields + intent::kDatabaseID, databaseID, kIdentifierBytes) != 0 ||
      hashOfIntent(block) != loadHash(fields + intent::kHash)) {
    return std::nullopt;
  }
  Intent intent;
  intent.flags = fields[intent::kFlags];
  intent.state = fields[intent::kState];
  std::copy_n(fields + intent::kNonce, intent.nonce.size(), intent.nonce.begin());
  intent.sequence = loadBigEndian<uint64_t>(fields + intent::kSequence);
  intent.synced = loadBigEndian<uint64_t>(fields + intent::kSynced);
  intent.position = static_cast<int64_t>(loadBigEndian<uint64_t>(fields + intent::kOwnPosition));
  intent.lengthBefore =
      static_cast<int64_t>(loadBigEndian<uint64_t>(fields + intent::kLengthBefore));
  intent.blocksLength = loadBigEndian<uint64_t>(fields + intent::kBlocksLength);
  intent.blocksHash = loadHash(fields + intent::kBlocksHash);
  const auto values = block.subspan(kHeadBytes + intent::kEntries);
  auto entries = takeEntries(values.first(values.size() - 1),
                             loadBigEndian<uint32_t>(fields + intent::kEntryCount));
  if (!entries) return std::nullopt;
  intent.entries = std::move(*entries);
  return intent;
}

PreludeBlock encodePrelude(const Prelude& prelude, const unsigned char* databaseID) {
  PreludeBlock block{};
  const auto position = static_cast<uint64_t>(prelude.position);
  encodeRecordHead(headOf(position, prelude::kSize, prelude.time, 0), block.data());
  unsigned char* out = block.data() + kHeadBytes;
  std::copy(std::begin(kPreludeMagic), std::end(kPreludeMagic), out + prelude::kMagic);
  std::copy(databaseID, databaseID + kIdentifierSize, out + prelude::kDatabaseID);
  storeBigEndian(out + prelude::kOwnPosition, position);
  storeBigEndian(out + prelude::kLength, static_cast<uint64_t>(prelude.length));
  storeBigEndian(out + prelude::kHash, hashOfPrelude(block));
  block.back() = kBlockEndMark;
  return block;
}

std::optional<Prelude> decodePrelude(const PreludeBlock& block, const unsigned char* databaseID) {
  const unsigned char* fields = block.data() + kHeadBytes;
  if (!isRecordOf(block.data(), kIntentTableID.data()) || block.back() != kBlockEndMark ||
      std::memcmp(fields + prelude::kMagic, kPreludeMagic, sizeof kPreludeMagic) != 0 ||
      std::memcmp(fields + prelude::kDatabaseID, databaseID, kIdentifierBytes) != 0 ||
      loadBigEndian<uint64_t>(fields + prelude::kHash) != hashOfPrelude(block)) {
    return std::nullopt;
  }
  Prelude prelude;
  prelude.position = static_cast<int64_t>(loadBigEndian<uint64_t>(fields + prelude::kOwnPosition));
  prelude.length = static_cast<int64_t>(loadBigEndian<uint64_t>(fields + prelude::kLength));
  prelude.time = decodeRecordHead(block.data()).modifyTime;
  return prelude;
}

void BlocksHash::add(std::span<const unsigned char> piece) {
  while (!piece.empty() && tiles_) {
    if (rest_ == 0) {
      piece = piece.subspan(addToHead(piece));
      continue;
    }
    const size_t taken = static_cast<size_t>(std::min<uint64_t>(rest_, piece.size()));
    hash_.add(piece.data(), taken);
    rest_ -= taken;
    if (rest_ == 0 && piece[taken - 1] != kBlockEndMark) tiles_ = false;
    piece = piece.subspan(taken);
  }
}

// Which kind of block it is, and so how long its header, is in the first bytes of both.
size_t BlocksHash::addToHead(std::span<const unsigned char> piece) {
  constexpr size_t kDataHeadBytes = static_cast<size_t>(tabledata::kData);
  const bool isData = headSize_ > 0 ? head_[0] == kTableDataMark : piece[0] == kTableDataMark;
  const size_t wanted = isData ? kDataHeadBytes : kHeadBytes;
  const size_t taken = std::min(wanted - headSize_, piece.size());
  std::copy_n(piece.begin(), taken, head_.begin() + static_cast<std::ptrdiff_t>(headSize_));
  headSize_ += taken;
  if (headSize_ < wanted) return taken;
  if (!isBlockStart(head_.data())) {
    tiles_ = false;
  } else if (isData) {
    hashHead(wanted, uint64_t{decodeTableDataHead(head_.data()).dataCapacity} + 1);
  } else {
    const recordPart1 head = decodeRecordHead(head_.data());
    std::fill(head_.begin() + record::kPrevRecordPos, head_.begin() + record::kDataLength,
              static_cast<unsigned char>(0));
    hashHead(wanted, uint64_t{head.dataCapacity} + 1);
  }
  return taken;
}

void BlocksHash::hashHead(size_t headSize, uint64_t rest) {
  hash_.add(head_.data(), headSize);
  headSize_ = 0;
  rest_ = rest;
}

std::optional<support::Hash128> BlocksHash::finish() {
  if (!tiles_ || headSize_ != 0 || rest_ != 0) return std::nullopt;
  return hash_.result128();
}

}  // namespace qvdbase::format
