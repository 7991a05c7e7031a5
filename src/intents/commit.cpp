// Committing: the order in which intents, patches and the pending word are written.
#include "intents/commit.h"

#include <algorithm>
#include <limits>
#include <new>
#include <random>
#include <utility>

#include "format/intent.h"
#include "intents/file_io.h"
#include "intents/gathering.h"
#include "intents/paged_reader.h"
#include "intents/patch_runs.h"
#include "intents/recovery.h"
#include "intents/run.h"
#include "platform/handles/cutting.h"
#include "platform/handles/file_changes.h"
#include "platform/handles/open_files.h"
#include "platform/handles/sync.h"
#include "platform/host/clock.h"
#include "platform/host/host_failure.h"

namespace qvdbase::intents {
namespace {

// Larger blocks are written by themselves, without a copy of them beside the intent.
constexpr size_t kWrittenTogether = 1 << 20;

bool appendBytes(int16_t file, int64_t position, std::vector<unsigned char> intent,
                 const std::vector<unsigned char>& blocks) {
  if (blocks.size() <= kWrittenTogether) {
    intent.insert(intent.end(), blocks.begin(), blocks.end());
    return writeAt(file, position, intent.data(), intent.size());
  }
  return writeAt(file, position, intent.data(), intent.size()) &&
         writeAt(file, position + static_cast<int64_t>(intent.size()), blocks.data(),
                 blocks.size());
}

format::Nonce newNonce() {
  std::random_device random;
  format::Nonce nonce;
  for (unsigned char& byte : nonce) byte = static_cast<unsigned char>(random() & 0xFF);
  return nonce;
}

Commit refused(Obstacle obstacle) {
  Commit commit;
  commit.obstacle = obstacle;
  commit.host = platform::lastHostFailure();
  return commit;
}

}  // namespace

// Counts the writes that are made to the file while it lasts.
class CommitLog::OwnWrites {
 public:
  explicit OwnWrites(CommitLog& log) : log_(log), before_(platform::writesHere(log.file_)) {}
  ~OwnWrites() { log_.ownWrites_ += platform::writesHere(log_.file_) - before_; }
  OwnWrites(const OwnWrites&) = delete;
  OwnWrites& operator=(const OwnWrites&) = delete;

 private:
  CommitLog& log_;
  size_t before_;
};

Commit CommitLog::commit(const StagedChanges& changes) {
  const platform::Turn turn(file_);
  const OpenReader reader(file_);
  const PagedReader pages(reader);
  isInGroup_ = false;
  Commit commit = append(changes, pages);
  if (commit.outcome != Outcome::committed || durability_ == Durability::interval) return commit;
  if (durability_ == Durability::power && !synced(commit.ticket, syncFile())) {
    const bool isOnDevice = syncedTickets_ >= commit.ticket;
    commit.outcome = isOnDevice ? Outcome::committed : Outcome::undecided;
    commit.obstacle = isOnDevice ? Obstacle::cannotPatch : Obstacle::cannotSync;
    commit.host = groupFailure_ ? groupFailure_ : platform::lastHostFailure();
  } else if (durability_ == Durability::process && !tryToWriteHeld(pages)) {
    commit.obstacle = Obstacle::cannotPatch;
    commit.host = platform::lastHostFailure();
  }
  return commit;
}

Commit CommitLog::append(const StagedChanges& changes) {
  const platform::Turn turn(file_);
  const OpenReader reader(file_);
  isInGroup_ = true;
  return append(changes, PagedReader(reader));
}

Commit CommitLog::append(const StagedChanges& changes, const Reader& file) {
  if (isBroken()) return refused(Obstacle::isBroken);
  if (changes.patches.empty() && changes.blocks.empty() && changes.spilled == 0) {
    Commit nothing;
    nothing.outcome = Outcome::committed;
    nothing.ticket = tickets_;
    return nothing;
  }
  const int64_t position = changes.base + changes.spilled;
  const FileBytes bytes(file);
  if (bytes.hasFailed()) return refused(Obstacle::cannotRead);
  if (bytes.size() != position) return refused(Obstacle::changedMeanwhile);
  const auto header = readIntentHeader(bytes);
  if (!header) return refused(Obstacle::otherLayout);
  Gathered gathered = gather(bytes, held_, changes);
  if (gathered.obstacle != Obstacle::none) return refused(gathered.obstacle);
  return write(changes, position, *header, std::move(gathered.entries));
}

Commit CommitLog::write(const StagedChanges& changes, int64_t position,
                        const internal_Head1& header, std::vector<format::IntentEntry> entries) {
  const int64_t size = format::intentBlockSize(entries);
  if (size > std::numeric_limits<uint32_t>::max() ||
      static_cast<int64_t>(changes.blocks.size()) >
          std::numeric_limits<int64_t>::max() - position - size) {
    return refused(Obstacle::tooLarge);
  }
  const int64_t shift = size - changes.gap;
  std::vector<unsigned char> blocks = changes.blocks;
  if (!movePositions(position, shift, &entries, &blocks)) return refused(Obstacle::notTakable);
  if (!beginRun(header, position, changes.spilled > 0)) return refused(broken_);
  format::BlocksHash hash;
  hash.add(blocks);
  format::Intent intent;
  intent.flags = durability_ == Durability::power ? format::kIntentIsSynced : uint8_t{0};
  intent.nonce = nonce_;
  intent.sequence = sequence_ + 1;
  intent.synced = durability_ == Durability::process ? sequence_ : syncedSequence_;
  intent.position = position;
  intent.lengthBefore = changes.base;
  intent.blocksLength = blocks.size();
  intent.blocksHash = hash.finish().value_or(support::Hash128{});
  intent.entries = std::move(entries);
  const uint32_t time = platform::secondsSinceEpoch();
  // From the write on, nothing needs memory: what is in the file then is held.
  Appended appended{tickets_ + 1, {}};
  size_t patches = 0;
  for (const format::IntentEntry& entry : intent.entries) {
    if (!format::isPatch(entry.kind)) continue;
    ++patches;
    if (isInGroup_) appended.patches.push_back({entry.position, entry.after, 0});
  }
  held_.makeRoom(patches);
  if (isInGroup_) appended_.reserve(appended_.size() + 1);
  const OwnWrites own(*this);
  if (!appendBytes(file_, position, format::encodeIntent(intent, header.databaseID, time, last_),
                   blocks)) {
    return takeBack(position);
  }
  last_ = position;
  end_ = position + size + static_cast<int64_t>(blocks.size());
  ++sequence_;
  ++heldCommits_;
  Commit commit;
  commit.outcome = Outcome::committed;
  commit.shift = shift;
  commit.ticket = ++tickets_;
  if (isInGroup_) appended_.push_back(std::move(appended));
  for (format::IntentEntry& entry : intent.entries) {
    if (format::isPatch(entry.kind)) held_.hold(entry.position, std::move(entry.after));
  }
  return commit;
}

// What was written of an intent that is not whole counts for nothing. Where it cannot be cut off,
// the next commit begins a new run after it.
Commit CommitLog::takeBack(int64_t position) {
  Commit commit = refused(Obstacle::cannotWrite);
  const auto* file = platform::findOpenFile(file_);
  if (file != nullptr) static_cast<void>(platform::cutFile(*file, position));
  return commit;
}

// A run ends where something other than its next intent follows, where others have written to the
// file (what is there is then not what the intents say), and after so many commits. What was
// written before it has to be on the device: blocks that were written early, because an intent
// names them, and everything else, because a place that a power failure takes back to what it was
// before that could look like one that the transaction has changed.
bool CommitLog::beginRun(const internal_Head1& header, int64_t position, bool hasSpilled) {
  if (position == end_ && isAlone() && sequence_ < kMostOpenIntents && isWordOwn(header))
    return true;
  if (!putInPlace()) return false;
  if ((start_ != 0 || hasSpilled || !isOnDevice()) && !syncUnlessProcess()) return false;
  format::PendingWord word;
  word.start = position;
  word.nonce = newNonce();
  const format::WordBytes bytes = format::encodePendingWord(word, header.databaseID);
  const OwnWrites own(*this);
  otherWrites_ = platform::writesHere(file_) - ownWrites_;
  if (!writeAt(file_, format::pending::kPosition, bytes.data(), bytes.size())) {
    broken_ = Obstacle::cannotWrite;
    return false;
  }
  nonce_ = word.nonce;
  start_ = end_ = position;
  last_ = 0;
  sequence_ = syncedSequence_ = 0;
  return true;
}

// Another opener in this process may have completed what was open, and written another word.
bool CommitLog::isWordOwn(const internal_Head1& header) const {
  if (start_ == 0) return false;
  format::WordBytes word;
  const format::PendingWord own{start_, nonce_};
  return OpenReader(file_).read(format::pending::kPosition, word.data(), word.size()) &&
         word == format::encodePendingWord(own, header.databaseID);
}

bool CommitLog::synced(uint64_t ticket, bool succeeded) {
  const platform::Turn turn(file_);
  if (!noteSynced(ticket, succeeded)) return false;
  const bool isMore = syncedTickets_ != tickets_;
  return isMore || heldCommits_ < std::max(mostHeld_, 1u) || tryToWriteHeld(OpenReader(file_));
}

bool CommitLog::noteSynced(uint64_t ticket, bool succeeded) {
  if (!succeeded) broken_ = Obstacle::cannotSync;
  if (isBroken()) return false;
  if (ticket > syncedTickets_) syncedTickets_ = ticket;
  const uint64_t later = tickets_ - syncedTickets_;
  syncedSequence_ = std::max(syncedSequence_, sequence_ > later ? sequence_ - later : 0);
  return true;
}

std::shared_ptr<GroupSync> CommitLog::beginGroupSync() {
  const platform::Turn turn(file_);
  try {
    if (groupSync_ == nullptr) groupSync_ = std::make_shared<GroupSync>(file_, tickets_);
  } catch (const std::bad_alloc&) {
  }
  return groupSync_;
}

bool CommitLog::noteGroupSync() {
  const platform::Turn turn(file_);
  if (groupSync_ == nullptr) return !isBroken();
  const std::shared_ptr<GroupSync> sync = std::exchange(groupSync_, nullptr);
  sync->wait();
  sync->leave();
  if (!sync->hasSucceeded()) groupFailure_ = sync->host();
  return noteSynced(sync->ticket(), sync->hasSucceeded());
}

// Not beside the sync of a group: the host reports a failure to one of the two only.
bool CommitLog::syncFile() {
  return noteGroupSync() && platform::syncFileData(file_);
}

// Whether nothing else in this process has written to the file since the run began.
bool CommitLog::isAlone() const {
  return platform::writesHere(file_) == ownWrites_ + otherWrites_;
}

// What others have changed in the places of held patches is not overwritten: the recovery decides,
// as it does after a crash.
bool CommitLog::completeBesideOthers() {
  const OwnWrites own(*this);
  const Recovered recovered = recover(file_);
  if (!recovered.succeeded) {
    broken_ = Obstacle::cannotPatch;
    return false;
  }
  hasLost_ = hasLost_ || !recovered.plan.contradicted.empty();
  forgetHeld();
  start_ = 0;
  writesOnDevice_ = platform::writesHere(file_);
  return true;
}

// Whether all is on the device that is in the file, as far as this log knows.
bool CommitLog::isOnDevice() const {
  return writesOnDevice_ == platform::writesHere(file_);
}

bool CommitLog::writeHeld() {
  return writeHeld(OpenReader(file_));
}

bool CommitLog::writeHeld(const Reader& file) {
  if (!isAlone()) return completeBesideOthers();
  if (!write(held_, file)) return false;
  forgetHeld();
  return true;
}

// Of a commit that is made: where memory is short its patches stay held, until the next call that
// writes them.
bool CommitLog::tryToWriteHeld(const Reader& file) {
  try {
    return writeHeld(file);
  } catch (const std::bad_alloc&) {
    return true;
  }
}

bool CommitLog::write(const HeldPatches& patches, const Reader& file) {
  const OwnWrites own(*this);
  PatchRuns runs(patches, file);
  while (runs.next()) {
    if (writeAt(file_, runs.position(), runs.bytes().data(), runs.bytes().size())) continue;
    broken_ = Obstacle::cannotPatch;
    return false;
  }
  return true;
}

void CommitLog::forgetHeld() {
  held_.clear();
  heldCommits_ = 0;
  appended_.clear();
}

// Where others have written to the file, what is held waits until all of it is on the device: the
// recovery decides then.
bool CommitLog::placeSynced() {
  const platform::Turn turn(file_);
  if (isBroken()) return false;
  if (syncedTickets_ == tickets_) return held_.isEmpty() || writeHeld();
  const auto later = std::find_if(appended_.begin(), appended_.end(), [this](const auto& each) {
    return each.ticket > syncedTickets_;
  });
  if (later == appended_.begin() || !isAlone()) return true;
  HeldPatches onDevice;
  HeldPatches stillHeld;
  for (auto each = appended_.begin(); each != appended_.end(); ++each) {
    HeldPatches& to = each < later ? onDevice : stillHeld;
    for (const HeldPatch& patch : each->patches) to.hold(patch.position, patch.bytes);
  }
  if (!write(onDevice, OpenReader(file_))) return false;
  appended_.erase(appended_.begin(), later);
  heldCommits_ = static_cast<uint32_t>(appended_.size());
  held_ = std::move(stillHeld);
  return true;
}

bool CommitLog::syncUnlessProcess() {
  if (durability_ == Durability::process) return true;
  if (!syncFile()) broken_ = Obstacle::cannotSync;
  return !isBroken();
}

// No patch is written before the intent is on the device that it belongs to.
bool CommitLog::putInPlace() {
  const platform::Turn turn(file_);
  if (isBroken()) return false;
  if (durability_ != Durability::process && syncedTickets_ < tickets_ && !sync()) return false;
  return held_.isEmpty() || writeHeld();
}

bool CommitLog::sync() {
  const platform::Turn turn(file_);
  if (isBroken()) return false;
  if (durability_ == Durability::process || syncedTickets_ == tickets_) return true;
  return synced(tickets_, syncFile());
}

bool CommitLog::settle() {
  const platform::Turn turn(file_);
  if (start_ == 0) return true;
  if (isBroken() || !putInPlace() || !syncUnlessProcess()) return false;
  constexpr format::WordBytes kNoWord{};
  if (!writeAt(file_, format::pending::kPosition, kNoWord.data(), kNoWord.size())) {
    broken_ = Obstacle::cannotWrite;
    return false;
  }
  start_ = 0;
  if (!syncUnlessProcess()) return false;
  writesOnDevice_ = platform::writesHere(file_);
  return true;
}

}  // namespace qvdbase::intents
