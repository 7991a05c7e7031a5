// Beginning and ending transactions.
#pragma once

#include <memory>

#include "objects/open_database.h"

namespace qvdb::detail {

// Transfers of a database use the stage of its open transaction, if there is one, until this ends;
// for what works outside of operations. In the turn of the database.
class StageInUse {
 public:
  explicit StageInUse(const OpenDatabase& database);
  ~StageInUse();
  StageInUse(const StageInUse&) = delete;
  StageInUse& operator=(const StageInUse&) = delete;

 private:
  int16_t used_ = 0;
};

// Begins a transaction of this thread and returns its number; `from` as for OwnCommit. Throws as
// Database::begin().
uint32_t beginTransaction(const std::shared_ptr<OpenDatabase>& database, const char* name,
                          int64_t from = 0);

// Commits the one of this number. Throws as Transaction::commit().
void commitTransaction(const std::shared_ptr<OpenDatabase>& database, uint32_t number,
                       const char* name);

// Takes the one of this number back, or, without a number, the one that is open. No effect where it
// has ended, and in a process made by fork.
void rollBack(OpenDatabase& database, std::optional<uint32_t> number = std::nullopt) noexcept;

// Completes what was committed before the file was opened. Throws cannot_write.
void recover(const Operation& operation);

// Puts what was committed into its place, before bytes of the file are changed by other means.
// Throws cannot_write.
void settle(const Operation& operation);

// Throws cannot_write: a write or a sync of the log has failed earlier.
[[noreturn]] void failBroken(const Operation& operation);

// The same as settle() before the file is closed. False where the host refuses. Where a reader in
// another process does not finish, it waits for the device only: the next opener does the rest.
bool settleAtEnd(OpenDatabase& database) noexcept;

}  // namespace qvdb::detail
