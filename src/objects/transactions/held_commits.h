// Commits of Durability::interval that are in the file and wait for the device.
//
// What such a commit changes in place is held back until it is on the device: else a power failure
// could keep the change and lose the intent that belongs to it. Until then operations of the
// database read what is held from memory, laid over the file. Views of the database, and readers in
// other processes, find it in the intents.
//
// The device is waited for by the first operation after the interval, in its turn. An operation
// that only reads writes nothing: what it has synced is put into its place by the next commit.
#pragma once

#include <cstdint>

#include "intents/commit.h"
#include "objects/open_database.h"

namespace qvdb::detail {

// What takes the reads of an operation on the database in this process; null for the file itself.
qvdbase::platform::Stage* heldViewOf(const OpenDatabase& database);

// Whether there are commits that may not be on the device.
bool waitsForDevice(const OpenDatabase& database) noexcept;

// Ends the log, with the handle whose file it writes to.
void forgetLog(OpenDatabase& database) noexcept;

// To be called after the log has committed, synced or written something, within a change of the
// file.
void noteHeld(OpenDatabase& database) noexcept;

// Before a commit, in its turn: puts into its place what is on the device. False where the host
// refuses.
bool placeSynced(OpenDatabase& database);

// After a commit, likewise: waits for the device where it is time. A commit whose sync fails is in
// the file, and undecided.
void syncAfterCommit(OpenDatabase& database, qvdbase::intents::Commit* commit);

// Before an operation that reads, where it is time. That a sync has failed is reported by the next
// operation that writes.
void syncBeforeReading(OpenDatabase& database);

// Syncs everything and puts it into its place. False where nothing is held; throws as ChangeTurn,
// and cannot_write. Not in a transaction.
bool putInPlace(const Operation& operation);

}  // namespace qvdb::detail
