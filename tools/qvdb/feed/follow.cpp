#include "feed/follow.h"

#include <chrono>
#include <nlohmann/json.hpp>
#include <utility>

#include "commands/locate.h"
#include "feed/file_watch.h"
#include "feed/record_feed.h"
#include "feed/record_rows.h"
#include "streams/failure.h"
#include "streams/interrupt.h"
#include "streams/output.h"

namespace qvdb::tool {
namespace {

// A reader beside a writer may see a part of what that is writing: it looks again, for some
// seconds.
constexpr int kMostLooks = 200;

// How long one reading operation waits for a writer in the middle of a change: a signal is answered
// after that.
constexpr std::chrono::seconds kLongestTurn(1);

bool mayPass(const Error& error) {
  switch (error.reason()) {
    case Reason::not_a_database:
    case Reason::version_out_of_range:
    case Reason::directory_damaged:
    case Reason::chain_damaged:
    case Reason::data_damaged:
    case Reason::payload_damaged:
    case Reason::record_missing:
    case Reason::changed_meanwhile:
      return true;
    default:
      return false;
  }
}

class Follower {
 public:
  explicit Follower(const FollowOptions& options) : options_(options), watch_(options.file) {}

  void run() {
    if (left_ == 0) return;
    while (!begins()) watch_.wait(true);
    if (!options_.json) printHead("CAPACITY", false);
    bool goesOn = listPresent();
    while (goesOn) {
      flushOutput();
      watch_.wait(failedLooks_ > 0);
      goesOn = look();
    }
  }

 private:
  // Whether to look again after a look that has failed. A writer that is stopped in the middle of a
  // change is waited for, however long it takes.
  bool isTriedAgain(const Error& error) {
    if (error.reason() == Reason::in_use) return true;
    return mayPass(error) && ++failedLooks_ != kMostLooks;
  }

  // False when it has to be tried again.
  bool begins() {
    try {
      watch_.begin();
      database_ = Database::open(options_.file, {.wait = kLongestTurn});
      table_ = findTable(database_, options_.table);
      hasTable_ = true;
      return true;
    } catch (const Error& error) {
      if (!isTriedAgain(error)) throw;
      return false;
    }
  }

  // Each of these returns false when the limit is reached.
  bool listPresent() {
    for (;;) {
      RecordFeed listed;
      bool goesOn = true;
      try {
        feed_ = RecordFeed();
        feed_.begin(table_);
        forEachOf(table_, options_.newest, [&](const Record& record) {
          listed.note(record);
          feed_.note(record);
          goesOn = show(record);
          return goesOn;
        });
        failedLooks_ = 0;
        return goesOn;
      } catch (const Error& error) {
        if (!isTriedAgain(error)) throw;
        // What has been listed is not listed again: the looks go on from there.
        if (listed.hasSeen()) {
          if (!options_.newest.isAll() && error.reason() == Reason::chain_damaged) throw;
          feed_ = std::move(listed);
          return true;
        }
      }
      watch_.wait(true);
    }
  }

  bool look() {
    try {
      if (!database_.is_open() || !database_.is_current()) openReplacement();
      if (database_.is_open() && !hasTable_) takeTable();
      const bool goesOn = !hasTable_ || feed_.takeNew(table_, [&](const Record& record) {
        throwIfInterrupted();
        return show(record);
      });
      if (hasTable_ || isMissing_) failedLooks_ = 0;
      return goesOn;
    } catch (const Error& error) {
      if (!isTriedAgain(error)) throw;
      return true;
    }
  }

  // The name can be without a file for as long as it takes to make a new one.
  void openReplacement() {
    hasTable_ = false;
    watch_.begin();
    try {
      database_.reopen();
    } catch (const Error& error) {
      if (error.reason() != Reason::no_such_file) throw;
      if (!isMissing_) complain(options_.file + ": was removed; waiting for a new one");
      isMissing_ = true;
      return;
    }
    isMissing_ = false;
  }

  // A file that is made again is without its table at first. Leaves `hasTable_` false then.
  void takeTable() {
    Table found;
    try {
      found = findTable(database_, options_.table);
    } catch (const Failure&) {
      if (++failedLooks_ == kMostLooks) throw;
      return;
    }
    if (found.id() == table_.id()) {
      feed_.fileWasReplaced();
    } else {
      feed_ = RecordFeed();
    }
    table_ = found;
    hasTable_ = true;
  }

  bool show(const Record& record) {
    const Row row = rowOf(record);
    if (options_.json) {
      printLine(jsonText(jsonOf(row), false));
    } else {
      printRow(row);
    }
    return --left_ != 0;
  }

  const FollowOptions& options_;
  FileWatch watch_;
  Database database_;
  Table table_;
  bool hasTable_ = false;  // whether table_ is of the file that is open
  RecordFeed feed_;
  uint64_t left_ = options_.limit.value_or(~uint64_t{0});
  int failedLooks_ = 0;
  bool isMissing_ = false;
};

}  // namespace

int followRecords(const FollowOptions& options) {
  try {
    Follower(options).run();
  } catch (const Interrupted&) {
  }
  return kDone;
}

}  // namespace qvdb::tool
