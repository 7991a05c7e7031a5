// The last 64 bytes of the range that a lock can cover. They are never bytes of a file: openers of
// the C++ layer lock them, each for a purpose of its own, to take turns with one another. The lock
// of a file as a whole ends before them, whoever takes it.
//
// No call here waits for another process. A lock belongs to the entry of the file: within this
// process the turn of the entry excludes threads from one another, and changes exclude looks
// through views (see file_views.h), not these bytes.
#pragma once

#include <fcntl.h>

#include <cstdint>
#include <string>

#include "platform/handles/file_entries.h"

namespace qvdbase::platform {

inline constexpr int64_t kFirstLockByte = kLockedBytes;

enum class LockByte : uint8_t {
  reader,   // shared, for as long as it has the file open: who reads beside writers
  change,   // exclusive: a writer changes bytes in place; shared: a reader looks at them
  gate,     // exclusive: a writer waits for `change`; readers take no new look meanwhile
  turn,     // exclusive: of writers that share the file, the one whose turn it is
  next,     // exclusive: of those that wait for `turn`, the one who gets it next
  waiting,  // shared: readers that wait for `change`; writers let them look first
};

enum class LockOutcome : uint8_t {
  taken,
  refused,     // another opener holds it
  impossible,  // the file system has no locks, or the number is not that of an open file
};

// Locks a byte for the opener of this number. `strength` is shared or exclusive; exclusive only
// where the file is open for writing.
LockOutcome takeLockByte(int16_t file, LockByte byte, Sharing strength);

// Gives a lock of this strength up. No effect where there is none.
void releaseLockByte(int16_t file, LockByte byte, Sharing strength);

// Whether an opener elsewhere holds the byte. What cannot be found out counts as held: it costs
// time and is safe.
bool isLockByteHeld(int16_t file, LockByte byte);

// Whether an opener elsewhere holds the byte `waiting`. What cannot be found out counts as not
// held: nothing depends on it but who is first.
bool isReaderWaiting(int16_t file);

// Locks `change` for a look of a reader, unless a writer waits at the gate. Looks of one process
// are counted, and the last one that ends gives the lock up. The caller has the turn of this
// number; through a view that is not the turn of the file, but it excludes changes (beginViewLook)
// from before the look until after it.
LockOutcome takeLook(int16_t file);
void releaseLook(int16_t file);

// Says to writers elsewhere that a reader here waits for a look, and that none does any more. To be
// called under the same conditions.
void askForLook(int16_t file);
void stopAskingForLook(int16_t file);

// Says to writers elsewhere that this opener reads beside them, until withdrawReader. Openers in
// this process announce themselves together. False where the lock cannot be taken: nothing is
// withdrawn then.
bool announceReader(int16_t file);
void withdrawReader(int16_t file);

// Where locks belong to the process, closing any descriptor of the file gives up all of them: takes
// the lock of the announcement again. To be called before each look; costs nothing where locks
// belong to descriptions.
void renewAnnouncement(int16_t file);

// The same for a description that is about to take the place of `entry.readWrite`.
void carryAnnouncement(const FileEntry& entry, int descriptor);

// In a child made by fork: from now on the readers of this file take locks of their own, on a
// description that this process opens by the path, and not together with the parent. They have to
// announce themselves again. False where the path does not lead to the file.
bool separateReaders(int16_t file, const std::string& path);

// Whether another process has the file open for writing.
bool isOpenForWritingElsewhere(int16_t file);

// Gives the turn of shared writers to `owner`, of whom there is one at a time in this process, too.
// An owner who is refused may be next then: no other gets the turn until this owner has got it
// or has called stopWaitingForTurn.
LockOutcome takeWritersTurn(int16_t file, const void* owner);
void stopWaitingForTurn(int16_t file, const void* owner);
// No effect unless the owner has it.
void releaseWritersTurn(int16_t file, const void* owner);

}  // namespace qvdbase::platform
