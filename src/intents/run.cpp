// Reading the run of intents.
#include "intents/run.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <iterator>
#include <span>
#include <utility>

#include "format/Aliment8.h"
#include "format/big_endian.h"
#include "format/block_heads.h"
#include "support/xxh3.h"

namespace qvdbase::intents {
namespace {

using Identifier = std::array<unsigned char, format::kIdentifierSize>;
constexpr int kMostTables = format::kNewSlotCount - 1;

// Everything that is read before the rest of an intent is worth reading.
constexpr size_t kFixedSize = static_cast<size_t>(format::record::kData) + format::intent::kEntries;

Identifier identifierAt(const unsigned char* bytes) {
  Identifier identifier;
  std::copy_n(bytes, identifier.size(), identifier.begin());
  return identifier;
}

// What the table in a slot is called, in the file and in an intent: one that adds it is the first
// to know.
std::vector<Identifier> tablesOf(const FileBytes& file, const format::Intent& intent, int slot) {
  std::vector<Identifier> tables;
  const int64_t place = format::slotPosition(slot) + format::slot::kTableID;
  Identifier inFile;
  if (file.read(place, inFile.data(), inFile.size())) tables.push_back(inFile);
  for (const format::IntentEntry& entry : intent.entries) {
    if (entry.slot != slot || entry.position != format::slotPosition(slot)) continue;
    tables.push_back(identifierAt(entry.before.data() + format::slot::kTableID));
    if (format::isPatch(entry.kind)) {
      tables.push_back(identifierAt(entry.after.data() + format::slot::kTableID));
    }
  }
  return tables;
}

// Whether an intent changes and guards nothing but what a transaction can: whatever made it, it
// cannot harm more than the tables of this file.
class PlaceCheck {
 public:
  PlaceCheck(const FileBytes& file, const format::Intent& intent) : file_(file), intent_(intent) {}

  bool allAreAllowed() {
    return std::all_of(intent_.entries.begin(), intent_.entries.end(),
                       [this](const format::IntentEntry& entry) { return isAllowed(entry); });
  }

 private:
  bool isAllowed(const format::IntentEntry& entry) {
    if (entry.slot >= kMostTables) return false;
    if (entry.kind == format::EntryKind::guardByHash) {
      // One for each table: more would only keep an opener busy.
      const auto guarded = format::loadBigEndian<uint32_t>(entry.before.data());
      return hashed_.insert(entry.slot).second && entry.position >= format::kNewFileSize &&
             entry.position <= intent_.position &&
             int64_t{guarded} <= intent_.position - entry.position;
    }
    if (entry.position == format::kTableCountPos) return true;
    if (entry.position < format::kNewFileSize) {
      return entry.position == format::slotPosition(entry.slot);
    }
    const auto length = static_cast<int64_t>(entry.before.size());
    if (entry.position > intent_.position - length) return false;
    return !format::isPatch(entry.kind) || isLink(entry);
  }

  bool isLink(const format::IntentEntry& entry) {
    const bool leadsBack = entry.kind == format::EntryKind::backLink;
    const int64_t block = entry.position - (leadsBack ? format::record::kPrevRecordPos
                                                      : format::record::kNextRecordPos);
    unsigned char head[format::record::kData];
    if (block < format::kNewFileSize || !file_.read(block, head, sizeof head)) return false;
    if (tables_.empty() || slot_ != entry.slot) {
      slot_ = entry.slot;
      tables_ = tablesOf(file_, intent_, slot_);
    }
    return std::any_of(tables_.begin(), tables_.end(), [&head](const Identifier& table) {
      return format::isRecordOf(head, table.data());
    });
  }

  const FileBytes& file_;
  const format::Intent& intent_;
  int slot_ = -1;
  std::vector<Identifier> tables_;  // of that slot
  std::set<uint8_t> hashed_;        // slots of which table data is guarded
};

// Whether the beginning of an intent says that it is the one that is looked for.
bool isOfRun(const unsigned char* bytes, const internal_Head1& header,
             const format::PendingWord& word, int64_t position, uint64_t sequence) {
  const unsigned char* fields = bytes + format::record::kData;
  const auto number = [&](int field) { return format::loadBigEndian<uint64_t>(fields + field); };
  return std::memcmp(fields + format::intent::kMagic, format::kIntentMagic,
                     sizeof format::kIntentMagic) == 0 &&
         std::memcmp(fields + format::intent::kDatabaseID, header.databaseID,
                     sizeof header.databaseID) == 0 &&
         std::memcmp(fields + format::intent::kNonce, word.nonce.data(), word.nonce.size()) == 0 &&
         number(format::intent::kSequence) == sequence &&
         number(format::intent::kOwnPosition) == static_cast<uint64_t>(position);
}

// Adds a part of the file to a hash. False when it cannot be read.
template <typename Hash>
bool addPart(const FileBytes& file, int64_t begin, int64_t end, Hash* hash) {
  constexpr int64_t kPiece = 1 << 18;
  if (begin < 0 || end < begin || end > file.size()) return false;
  std::vector<unsigned char> piece(static_cast<size_t>(std::min(kPiece, end - begin)));
  for (int64_t at = begin; at < end;) {
    const auto count = static_cast<size_t>(std::min(kPiece, end - at));
    if (!file.read(at, piece.data(), count)) return false;
    hash->add({piece.data(), count});
    at += static_cast<int64_t>(count);
  }
  return true;
}

struct PlainHash {
  support::Xxh3 sum;
  void add(std::span<const unsigned char> piece) { sum.add(piece.data(), piece.size()); }
};

void readBlocks(const FileBytes& file, RunIntent* found) {
  format::BlocksHash hash;
  found->isTorn = true;
  if (!addPart(file, found->blocks, found->end, &hash)) return;
  const auto sum = hash.finish();
  found->tiles = sum.has_value();
  found->isTorn = sum != found->intent.blocksHash;
}

std::optional<RunIntent> readIntent(const FileBytes& file, const internal_Head1& header,
                                    const format::PendingWord& word, int64_t position,
                                    uint64_t sequence) {
  unsigned char beginning[kFixedSize];
  if (!file.read(position, beginning, sizeof beginning)) return std::nullopt;
  const auto payload = format::intentPayloadLength(beginning);
  if (!payload || !isOfRun(beginning, header, word, position, sequence)) return std::nullopt;
  const int64_t size = format::kRecordBlockOverhead + int64_t{*payload};
  if (size > file.size() - position) return std::nullopt;
  std::vector<unsigned char> block(static_cast<size_t>(size));
  if (!file.read(position, block.data(), block.size())) return std::nullopt;
  auto intent = format::decodeIntent(block, header.databaseID);
  if (!intent || !PlaceCheck(file, *intent).allAreAllowed()) return std::nullopt;
  RunIntent found;
  found.blocks = position + size;
  // Blocks that reach beyond what a position can be cannot have been written.
  if (intent->blocksLength > static_cast<uint64_t>(INT64_MAX - found.blocks)) return std::nullopt;
  found.end = found.blocks + static_cast<int64_t>(intent->blocksLength);
  for (const format::IntentEntry& entry : intent->entries) found.slots.insert(entry.slot);
  found.intent = std::move(*intent);
  found.beginning.assign(std::begin(beginning), std::end(beginning));
  readBlocks(file, &found);
  return found;
}

// Whether an intent that was whole is where it was. Its own hash is a part of what is compared; the
// state, which is none, may have changed.
bool isStillThere(const FileBytes& file, RunIntent* known) {
  constexpr auto kState = static_cast<size_t>(format::record::kData) + format::intent::kState;
  std::vector<unsigned char> now(kFixedSize);
  if (known->isTorn || known->end > file.size()) return false;
  if (!file.read(known->intent.position, now.data(), now.size())) return false;
  known->intent.state = known->beginning[kState] = now[kState];
  return now == known->beginning;
}

}  // namespace

bool FileBytes::read(int64_t position, void* buffer, size_t count) const {
  if (position < 0 || position > size_ || count > static_cast<uint64_t>(size_ - position)) {
    return false;
  }
  if (file_.read(position, buffer, count)) return true;
  hasFailed_ = true;
  return false;
}

std::optional<uint64_t> hashOf(const FileBytes& file, int64_t position, uint64_t length) {
  PlainHash hash;
  if (position < 0 || length > static_cast<uint64_t>(INT64_MAX - position)) return std::nullopt;
  const int64_t end = position + static_cast<int64_t>(length);
  if (!addPart(file, position, end, &hash)) return std::nullopt;
  return hash.sum.result64();
}

std::optional<internal_Head1> readIntentHeader(const FileBytes& file) {
  unsigned char bytes[format::kDirectoryPos];
  if (!file.read(0, bytes, sizeof bytes)) return std::nullopt;
  const auto slots = format::loadBigEndian<uint16_t>(bytes + format::kSlotCountPos);
  const auto slotSize = format::loadBigEndian<uint16_t>(bytes + format::kSlotSizePos);
  if (slots != format::kNewSlotCount || slotSize != format::kSlotImageSize) return std::nullopt;
  internal_Head1 header{};
  std::copy_n(bytes + format::kDatabaseIDPos, sizeof header.databaseID, header.databaseID);
  return header;
}

std::vector<RunIntent> readRun(const FileBytes& file, const internal_Head1& header,
                               const format::PendingWord& word, std::vector<RunIntent> known) {
  std::vector<RunIntent> run;
  int64_t position = word.start;
  while (run.size() < kMostOpenIntents) {
    if (run.size() < known.size() && isStillThere(file, &known[run.size()])) {
      run.push_back(std::move(known[run.size()]));
      position = run.back().end;
      continue;
    }
    known.clear();
    auto found = readIntent(file, header, word, position, run.size() + 1);
    if (!found) break;
    position = found->end;
    run.push_back(std::move(*found));
  }
  return run;
}

}  // namespace qvdbase::intents
