// Whether a database stays as it is while all of it is read. Each record is read whole beside a
// writer, and each table in order, but records that are read one after the other can be of
// different moments.
#pragma once

#include <sys/types.h>
#include <qvdbase/qvdb.hpp>

#include <ctime>
#include <string>

#include "streams/failure.h"
#include "streams/waiting.h"

namespace qvdb::tool {

// Another program wrote to the database while all of it was read.
class ChangedMeanwhile : public Failure {
 public:
  explicit ChangedMeanwhile(const std::string& path)
      : Failure(path +
                    ": was written to while it was read, and what was read may be no state that it "
                    "ever had; try again, or read a copy that 'qvdb backup' makes",
                kInUse) {}
};

// Relies on the size and the time of last modification, as the file system keeps them.
class SteadyFile {
 public:
  // From now on the file should stay as it is. Waits for some milliseconds where it was written to
  // just now: until then another change would have the same time. Throws ChangedMeanwhile when that
  // never ends.
  explicit SteadyFile(const Database& database);

  // Throws ChangedMeanwhile when it did not, and when the name is another file's.
  void require() const;

 private:
  struct State {
    dev_t device = 0;
    ino_t file = 0;
    off_t size = 0;
    timespec modified = {};
  };
  State look() const;

  std::string path_;
  State state_;
};

// Calls `attempt` again as long as it throws ChangedMeanwhile and --wait allows. It must not have
// printed anything before it throws.
template <typename Attempt>
auto whileChanging(Attempt attempt) {
  const Patience patience;
  for (;;) {
    try {
      return attempt();
    } catch (const ChangedMeanwhile&) {
      if (!patience.waitForNextAttempt()) throw;
    }
  }
}

}  // namespace qvdb::tool
