// Committing transactions to a file that is open exclusively: writes intents, patches and the
// pending word.
//
// An intent says what a transaction changes in place; it is appended together with the
// transaction's new blocks in one write, and waits for the device in one sync, which is the moment
// of the commit. The patches follow, and are on the device with the sync of a later commit. The
// pending word in the directory says where the first intent is whose patches may be missing:
// recovery (recovery.h) begins there. It is 0 while nothing is open.
//
// Order of writes: a sync of what others have written before, the word (both once in a run of up to
// 64 commits), intent and blocks, sync, patches.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <system_error>
#include <utility>
#include <vector>

#include "format/intent.h"
#include "intents/group_sync.h"
#include "intents/held_patches.h"
#include "intents/staged_changes.h"

namespace qvdbase::intents {

class Reader;

// When the commits of a log are on the device.
enum class Durability : uint8_t {
  process,   // whenever the host writes them: they survive the end of the process, not of the host
  interval,  // with the next sync() of the log; their patches are held until then
  power,     // when commit() returns
};

enum class Outcome : uint8_t {
  committed,
  nothingApplied,  // the file is as it was, and the log can be used on
  undecided,       // the next opener finds it whole or not; the log takes no more commits
};

// Why a transaction was not committed.
enum class Obstacle : uint8_t {
  none,
  changedMeanwhile,  // the file is not as long, or not as `before` says, as when it began
  notTakable,        // it changes bytes that a transaction cannot change
  tooLarge,          // its intent would be larger than a record can be, or the file than it can be
  cannotRead,
  cannotWrite,
  cannotSync,
  cannotPatch,  // committed; but a patch was refused, so that the log takes no more commits
  isBroken,     // an earlier failure: what the file holds is unknown until it is opened again
  otherLayout,  // its directory has other sizes than those of a new file
};

struct Commit {
  Outcome outcome = Outcome::nothingApplied;
  Obstacle obstacle = Obstacle::none;
  std::error_code host;  // what the host answered, where it refused something
  int64_t shift = 0;     // how far the blocks are from where the transaction saw them
  uint64_t ticket = 0;   // of the commit, for synced()
};

// One for each exclusive opener that commits. All calls under the turn of the file, and with no
// transaction's bytes laid over it: what the log reads and writes is the file itself.
class CommitLog {
 public:
  // Reads nothing. The file has no open intents: its opener has recovered it.
  CommitLog(int16_t file, Durability durability) : file_(file), durability_(durability) {}
  // Writes nothing: open intents stay open.
  ~CommitLog() = default;
  CommitLog(const CommitLog&) = delete;
  CommitLog& operator=(const CommitLog&) = delete;

  // Commits. With `power` it waits for the device within.
  Commit commit(const StagedChanges& changes);

  // The first half of a commit: everything up to the sync. Its patches are held. For a group: while
  // one thread waits for the device, without the turn, others may append.
  Commit append(const StagedChanges& changes);
  // The second half, after a sync that began when `ticket` was lastAppended(). Commits with this
  // ticket or an earlier one are on the device then. Writes the held patches when they are many,
  // and all that was appended is on the device. False when the log is broken: a failed sync leaves
  // unknown what the device has.
  bool synced(uint64_t ticket, bool succeeded);
  // Begins a sync of all that was appended, where none is begun: the caller is to run() it. What it
  // has done counts once it was noted. Null where memory is short.
  std::shared_ptr<GroupSync> beginGroupSync();
  // The one that was begun and not noted yet; null where there is none.
  const std::shared_ptr<GroupSync>& groupSync() const { return groupSync_; }
  // Waits until that one is over, and notes what it has done. False as synced().
  bool noteGroupSync();
  // Writes the patches of those commits that are on the device, and holds those of later ones.
  // False when the host refuses: the log is broken.
  bool placeSynced();
  // These count on from run to run.
  uint64_t lastAppended() const { return tickets_; }
  uint64_t lastSynced() const { return syncedTickets_; }

  // Puts everything that was committed into its place, and on the device but for
  // Durability::process: no intent is open then, and the file may be changed by plain
  // operations. Costs nothing where none was open. False when the host refuses: the log is broken.
  bool settle();
  // Syncs the commits of Durability::interval. False as settle().
  bool sync();
  // The same, and writes the held patches: they are in place then, but not on the device. False as
  // settle().
  bool putInPlace();

  // Whether the pending word is set, so that plain operations must settle first.
  bool hasOpenIntents() const { return start_ != 0; }
  bool isBroken() const { return broken_ != Obstacle::none; }
  Obstacle brokenBy() const { return broken_; }
  // Whether something of what was held is not in its place because others had changed the same
  // tables meanwhile. To be asked after each step; the next question is about later ones.
  bool hasLost() { return std::exchange(hasLost_, false); }
  // What the host has answered to a sync of a group that has failed.
  const std::error_code& groupFailure() const { return groupFailure_; }
  // To be laid over what is read from the file. They change only within the calls above.
  const HeldPatches& held() const { return held_; }
  // How many commits may hold their patches back; 0 writes them with each commit.
  void holdBack(uint32_t commits) { mostHeld_ = commits; }

 private:
  class OwnWrites;
  Commit write(const StagedChanges& changes, int64_t position, const internal_Head1& header,
               std::vector<format::IntentEntry> entries);
  Commit takeBack(int64_t position);
  bool beginRun(const internal_Head1& header, int64_t position, bool hasSpilled);
  bool isWordOwn(const internal_Head1& header) const;
  bool isAlone() const;
  bool isOnDevice() const;
  Commit append(const StagedChanges& changes, const Reader& file);
  bool writeHeld();
  bool writeHeld(const Reader& file);
  bool tryToWriteHeld(const Reader& file);
  bool write(const HeldPatches& patches, const Reader& file);
  void forgetHeld();
  bool noteSynced(uint64_t ticket, bool succeeded);
  bool syncFile();
  bool completeBesideOthers();
  bool syncUnlessProcess();

  int16_t file_;
  Durability durability_;
  Obstacle broken_ = Obstacle::none;
  bool hasLost_ = false;
  uint64_t tickets_ = 0;
  uint64_t syncedTickets_ = 0;
  int64_t start_ = 0;                     // of the first intent of the run; 0 while the word is 0
  int64_t end_ = 0;                       // of the last intent's blocks
  int64_t last_ = 0;                      // the last intent's position
  uint64_t sequence_ = 0;                 // of the last intent
  uint64_t syncedSequence_ = 0;           // of the last one that is known to be on the device
  size_t ownWrites_ = 0;                  // to the file, while it is open
  size_t otherWrites_ = 0;                // by others of this process, when the run began
  std::optional<size_t> writesOnDevice_;  // how many had been made when all were on the device
  format::Nonce nonce_{};
  uint32_t mostHeld_ = 8;
  uint32_t heldCommits_ = 0;
  HeldPatches held_;
  // Those of each commit that was appended for a group, while it is not known to be in place.
  struct Appended {
    uint64_t ticket;
    std::vector<HeldPatch> patches;
  };
  std::vector<Appended> appended_;
  bool isInGroup_ = false;  // the commit that is being appended
  std::shared_ptr<GroupSync> groupSync_;
  std::error_code groupFailure_;
};

}  // namespace qvdbase::intents
