// File positions: setting them, asking for them, and the object by which every exported operation
// restores the position that it found.
#pragma once

#include <qvdbase/qvdbase.h>

#include <cstdint>

#include "platform/handles/open_files.h"
#include "platform/transfer/transfer.h"
#include "support/file_transfers.h"

using qvdbase::platform::kFromCurrent;
using qvdbase::platform::kFromEnd;
using qvdbase::platform::kFromStart;

namespace qvdbase::engine::detail {
int seekInOtherMode(int16_t db, int64_t offset, uint32_t mode);
}

// Returns 0, or -1 when the file cannot be positioned there. Inline for the walks, which seek at
// every record.
inline int myFileSeek(int16_t db, int64_t offset, uint32_t mode) {
  if (mode == kFromStart) return qvdbase::support::seekTo(db, offset) ? 0 : -1;
  return qvdbase::engine::detail::seekInOtherMode(db, offset, mode);
}

// Returns the position, or -1 for a handle that is not open.
inline int64_t myGetFilePos(int16_t db) {
  return qvdbase::support::positionOf(db);
}

// Calls callback(a, b, context) and puts the file position back afterwards; with handle 0 it only
// calls. Returns the callback's result, 0 when it throws.
uint16_t SavedCallBack(int16_t db, QVProgressFunction callback, int a, int b, void* context);

namespace qvdbase::engine {

// The length of one exported call on a database: it has the file's turn, and inside, the platform
// layer may gather the call's small transfers; at the end everything written must be with the
// operating system.
class CallScope {
 public:
  explicit CallScope(int16_t db) : turn_(db) {}

  // As those of platform::TransferScope.
  [[nodiscard]] bool end() { return scope_.end(); }
  [[nodiscard]] static bool completeWrites() { return platform::TransferScope::completeWrites(); }

 private:
  platform::Turn turn_;
  platform::TransferScope scope_;
};

// Calls a function of the caller's from inside an operation. What the operation wrote is with the
// operating system before, and what the function changes is seen after. Other threads get the
// turns of the operation's files meanwhile. Returns 0 when it throws;
// only the cancellation of its thread passes.
uint16_t callOutside(QVProgressFunction callback, int a, int b, void* context);

// Keeps the position that a call found, and the file's turn. Every way out of an exported operation
// goes through restore, or, where the operation is known to leave the position where it is, through
// leave. Both end the call's scope and turn a success into a failure when its writes could not be
// completed; such a failure restores the position in either case. An operation that is left without
// either, because it throws or only reads, restores the position too.
class SavedPosition {
 public:
  explicit SavedPosition(int16_t db) : scope_(db), db_(db), position_(myGetFilePos(db)) {}
  ~SavedPosition() {
    if (!isDone_) static_cast<void>(restore(0));
  }
  SavedPosition(const SavedPosition&) = delete;
  SavedPosition& operator=(const SavedPosition&) = delete;

  // Whether the handle has a position at all.
  bool known() const { return position_ != -1; }

  template <typename Result>
  [[nodiscard]] Result restore(Result result) {
    isDone_ = true;
    const bool complete = scope_.end();
    goBack();
    return complete ? result : Result{0};
  }

  template <typename Result>
  [[nodiscard]] Result leave(Result result) {
    isDone_ = true;
    if (scope_.end()) return result;
    goBack();
    return Result{0};
  }

 private:
  // A position of -1 is refused by the seek and so stays unrestored.
  void goBack() { myFileSeek(db_, position_, kFromStart); }

  CallScope scope_;
  int16_t db_;
  int64_t position_;
  bool isDone_ = false;
};

}  // namespace qvdbase::engine
