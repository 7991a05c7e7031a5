// Database::backup: copy, bring up to date, check, place.
//
// The long part, copying, is done while others work with the database. What they have changed
// meanwhile is copied again in their absence, which is short: the turn of an exclusive database, a
// look beside other writers. Programs that write by the C functions are not kept out; that the file
// did not change, and is sound, shows that none of them was in the middle of something.
#include <qvdbase/qvdb/database.hpp>
#include <qvdbase/qvdb/error.hpp>

#include <algorithm>
#include <string>

#include "failure/failure.h"
#include "objects/open_database.h"
#include "objects/sharing/looks.h"
#include "platform/host/cancellation.h"
#include "products/target_file.h"
#include "recovery/check/parts.h"
#include "recovery/survey/completed_source.h"
#include "recovery/survey/open_file.h"
#include "recovery/survey/watched_source.h"
#include "recovery/survey/words.h"
#include "upkeep/file_copy.h"
#include "upkeep/progress.h"

using namespace qvdbase;

namespace qvdb {
namespace {

using detail::OpenDatabase;
using detail::Operation;
using products::TargetFile;

constexpr const char* kOperation = "back up the database";

// How often all of it is done where the source changes under the copy, or shows half of a change.
constexpr int kAttempts = 5;

// The percent at which the copy is there, and that at which it is checked.
constexpr int kCopied = 80;
constexpr int kChecked = 95;

using Shared = std::shared_ptr<OpenDatabase>;

survey::OpenedFile opened(const Shared& database) {
  const Operation operation(database, kOperation);
  operation.requireNoBulk();
  operation.requireNoTransaction();
  return survey::OpenedFile(operation.db(), operation.database().path, kOperation);
}

TargetFile targetFor(const Shared& database, const std::filesystem::path& target,
                     const BackupOptions& options) {
  std::error_code error;
  if (std::filesystem::equivalent(target, database->place, error)) {
    failure::throwError(target, kOperation, Reason::bad_argument,
                        "it is the database itself; choose another name");
  }
  const auto existing =
      options.overwrite ? products::Existing::isReplaced : products::Existing::isReplacedIfEmpty;
  const auto waits = options.sync ? platform::Waits::forName : platform::Waits::no;
  return TargetFile(
      target, kOperation,
      {.existing = existing, .createFolders = options.create_folders, .waits = waits});
}

class Backup {
 public:
  Backup(const Shared& database, const std::filesystem::path& target, const BackupOptions& options,
         const ProgressFunction& progress)
      : database_(database),
        force_(options.force),
        reporter_(progress),
        source_(opened(database)),
        target_(targetFor(database, target, options)),
        copy_(source_, target_) {}

  BackupReport run() {
    const platform::FileAccess access = source_.access(database_->path, kOperation);
    target_.create(&access);
    for (int attempt = 1; !isTaken(attempt == kAttempts); ++attempt) {
    }
    report(kChecked);
    target_.place();
    // Too late to stop anything.
    static_cast<void>(reporter_.report(100));
    return report_;
  }

 private:
  // False when it is to be done again.
  bool isTaken(bool isLast) {
    source_.watchAnew(database_->path, kOperation);
    if (!share()) {
      copy();
      if (!settle(isLast)) return false;
    }
    report(kCopied);
    return isSound(isLast);
  }

  // The state of one moment, in one step.
  bool share() {
    bool isShared = false;
    withoutWriters([&] { isShared = copy_.share(); });
    return report_.shares_storage = isShared;
  }

  static int percentAt(int64_t done, int64_t size, int from, int to) {
    return from + static_cast<int>((to - from) * std::min(done, size) / std::max<int64_t>(size, 1));
  }

  void copy() {
    const int64_t size = source_.source().size();
    int64_t done = 0;
    const auto step = [&] {
      done += static_cast<int64_t>(upkeep::FileCopy::kPiece);
      report(percentAt(done, size, 0, kCopied));
    };
    if (!copy_.copy(step)) failReading();
  }

  // Copies again what has changed since.
  bool settle(bool isLast) {
    bool isSettled = true;
    withoutWriters([&] {
      if (!source_.hasChanged()) return;
      source_.watchAnew(database_->path, kOperation);
      if (!copy_.bringUpToDate()) failReading();
      isSettled = !source_.hasChanged();
    });
    if (isSettled || !isLast) return isSettled;
    failInUse();
  }

  bool isSound(bool isLast) {
    platform::ReadOnlyFile read;
    read.share(target_.file().entry());
    const survey::FileSource file(read, static_cast<int64_t>(target_.file().size()));
    const survey::WatchedSource copied(file, [&](int64_t position) {
      report(percentAt(position, file.size(), kCopied, kChecked));
    });
    std::string first;
    const auto note = [&](const Finding& finding) {
      if (finding.severity != Severity::error || !first.empty()) return;
      first = check::inSentence(finding);
    };
    // What a crash has left in the file is completed by the next opener that writes.
    const survey::CompletedSource completed(copied);
    const CheckReport found = check::checkSurvey(completed, survey::makeSurvey(completed), note);
    report_.size = found.file_size;
    report_.blocks = found.blocks;
    report_.errors = found.errors;
    if (found.errors == 0) return true;
    // Half of a change by a program that takes no part in turns looks the same.
    if (!isLast && source_.isLockedByOthers()) return false;
    if (force_) return true;
    failure::throwError(
        database_->path, kOperation, Reason::damaged,
        survey::joined("it has ", survey::counted(found.errors, "error"), " (", first, ")"));
  }

  template <typename Body>
  void withoutWriters(const Body& body) {
    const Operation operation(database_, kOperation);
    operation.requireNoBulk();
    operation.requireNoTransaction();
    if (!operation.database().readsBesideWriters()) return body();
    const detail::Look look(operation);
    body();
  }

  void report(int percent) {
    if (reporter_.report(percent) || !reporter_.wantsToStop()) return;
    failure::throwError(database_->path, kOperation, Reason::cancelled, "it was cancelled");
  }

  [[noreturn]] void failReading() const {
    failure::throwError(database_->path, kOperation, Reason::cannot_read,
                        "the system cannot read it");
  }

  [[noreturn]] void failInUse() const {
    failure::throwError(database_->path, kOperation, Reason::in_use,
                        "another program changes it again and again; try again later");
  }

  const Shared& database_;
  const bool force_;
  upkeep::Reporter reporter_;
  survey::OpenedFile source_;
  TargetFile target_;
  upkeep::FileCopy copy_;
  BackupReport report_;
};

}  // namespace

BackupReport Database::backup(const std::filesystem::path& target, const BackupOptions& options,
                              const ProgressFunction& progress) const {
  const platform::Uncancelled uncancelled;
  return Backup(state_, target, options, progress).run();
}

}  // namespace qvdb
