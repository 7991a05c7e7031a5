// Database::compact: a compaction of the open file, with which the database continues.
#include <qvdbase/qvdb/database.hpp>
#include <qvdbase/qvdb/error.hpp>

#include <utility>

#include "failure/failure.h"
#include "objects/cache.h"
#include "objects/indexes/moved_indexes.h"
#include "objects/open_database.h"
#include "platform/handles/current_name.h"
#include "platform/handles/open_files.h"
#include "platform/handles/turns.h"
#include "platform/host/cancellation.h"
#include "upkeep/compact_open.h"

using namespace qvdbase;

namespace qvdb {
namespace {

using detail::OpenDatabase;
using detail::Operation;

constexpr const char* kOperation = "compact the database";

// A function of the caller's, which runs without the turn of the database.
template <typename Function>
Function withoutTurn(const Function& function) {
  if (!function) return {};
  return [&function](const auto& argument) {
    const platform::TurnPause pause;
    return function(argument);
  };
}

void requireCompactable(const Operation& operation) {
  const OpenDatabase& database = operation.database();
  operation.requireWritable();
  operation.requireNoBulk();
  operation.requireNoTransaction();
  const auto* file = platform::findOpenFile(operation.db());
  if (file->sharing != platform::Sharing::exclusive) {
    operation.fail(Reason::bad_argument, "others may write to it; open it exclusively");
  }
  if (platform::writersOf(operation.db()) > 1) {
    operation.fail(Reason::in_use, "this program has it open for writing elsewhere, too");
  }
  if (platform::lookAtPath(operation.db(), database.place.native()) != platform::NameOf::thisFile) {
    operation.fail(Reason::changed_meanwhile, "its path leads to another file by now; reopen it");
  }
}

class Compaction {
 public:
  explicit Compaction(const std::shared_ptr<OpenDatabase>& database)
      : operation_(database, kOperation), state_(database), database_(operation_.database()) {}
  // A file without a name is closed after the object that removes it.
  ~Compaction() {
    if (made_ != 0) static_cast<void>(platform::closeFile(made_));
  }
  Compaction(const Compaction&) = delete;
  Compaction& operator=(const Compaction&) = delete;

  CompactReport run(const ProgressFunction& progress, CompactOptions options) {
    requireCompactable(operation_);
    const ProgressFunction shown = withoutTurn(progress);
    const auto keep = std::exchange(options.keep, {});
    options.keep = withoutTurn(keep);
    return upkeep::compactOpen(
        {operation_.db(), database_.path, database_.place}, shown, options,
        [this](products::TargetFile& made, const upkeep::MovesFunction& moves) {
          place(made, moves());
        });
  }

 private:
  // From here on no function of the caller's runs. A name that the device may not have is the
  // file's name anyway.
  void place(products::TargetFile& made, std::vector<upkeep::Move> moves) {
    if (database_.handle != operation_.db()) operation_.fail(Reason::not_open, "it was closed");
    requireCompactable(operation_);
    const detail::MovedIndexes indexes(operation_);
    if (!made.file().handOver(&made_)) {
      operation_.fail(Reason::cannot_open, "too many files are open");
    }
    try {
      made.place();
    } catch (const Error&) {
      if (made.file().isPlaced()) continueWithIt(std::move(moves), indexes);
      throw;
    }
    continueWithIt(std::move(moves), indexes);
  }

  // In the turn of the new file, so that no other thread begins before all is in order.
  void continueWithIt(std::vector<upkeep::Move> moves, const detail::MovedIndexes& indexes) {
    const int16_t number = std::exchange(made_, int16_t{0});
    const platform::Turn turn(number);
    static_cast<void>(database_.continueWith(number, std::move(moves)));
    database_.deadBytes = 0;
    indexes.apply(state_);
    detail::attachCache(database_);
  }

  const Operation operation_;
  const std::shared_ptr<OpenDatabase> state_;
  OpenDatabase& database_;
  int16_t made_ = 0;
};

}  // namespace

CompactReport Database::compact(const ProgressFunction& progress, const CompactOptions& options) {
  const platform::Uncancelled uncancelled;
  return Compaction(state_).run(progress, options);
}

}  // namespace qvdb
