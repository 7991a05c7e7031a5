// A host under the test's control: the clock stands where the test puts it, chosen calls fail, and
// every transfer is written down. Between its making and its end the library reaches the real host
// through this object.
//
//   FakeHost host;
//   host.setTime(5000);                        what records take as their times
//   host.failFrom(FakeHost::Call::write, 3);   the fourth write from now on fails, and all after it
//   EXPECT_EQ(AddTable(db, "t"), 0u);
//   host.heal();
//
// To fail each single step of an operation in turn:
//
//   for (int step = 0;; ++step) {
//     ... fresh file ...
//     host.failFrom(FakeHost::Call::write, step);
//     const bool done = operation();
//     host.heal();
//     ... what must hold after a failure ...
//     if (!host.failed()) break;               nothing failed any more: all steps were tried
//   }
//
// How many calls an operation makes is the library's own affair (it may gather small transfers), so
// tests assert nothing about the count. One FakeHost at a time.
#ifndef QVDBASE_TESTS_SUPPORT_FAKE_HOST_H
#define QVDBASE_TESTS_SUPPORT_FAKE_HOST_H

#include <cstdint>
#include <ctime>
#include <limits>
#include <map>
#include <optional>
#include <set>
#include <vector>

#include "platform/system_calls.h"
#include "support/bytes.h"

namespace qvdbase::test {

class FakeHost {
 public:
  enum class Call { open, close, status, makeDirectory, read, write, truncate, lock, allocate };

  struct Transfer {
    std::int64_t position;
    Bytes bytes;
  };

  FakeHost();
  ~FakeHost();
  FakeHost(const FakeHost&) = delete;
  FakeHost& operator=(const FakeHost&) = delete;

  // The clock that records take their times from; until it is set, the real one.
  void setTime(std::time_t now) { time_ = now; }
  void advanceTime(std::time_t seconds) { time_ = *time_ + seconds; }
  // The microsecond counter that identifiers draw on; until it is set, the real one.
  void setMicroseconds(std::uint64_t now) { microseconds_ = now; }

  // From now on: `calls` calls of this kind go through, all later ones fail (with EIO, without
  // effect; a null pointer from allocate).
  void failFrom(Call call, int calls = 0);
  // From now on: `calls` calls go through, the next one fails, the later ones go through again.
  void failOnce(Call call, int calls = 0);
  // A write stores only the first half of its bytes and then fails, as on a disk that is full.
  void cutWrites(int calls = 0);
  // Ends all failing.
  void heal();
  // Whether a call was made to fail since the latest failFrom, failOnce or cutWrites.
  bool failed() const { return failed_; }

  // How many calls of this kind were made since the making or forget().
  int count(Call call) const;
  // The writes that went through, in order.
  const std::vector<Transfer>& writes() const { return writes_; }
  void forget();

  // Blocks of memory that the library took since the making and still holds, and giving them back
  // in its place where it is known to leave one behind.
  std::size_t heldBlocks() const { return blocks_.size(); }
  void releaseBlocks();

 private:
  struct Plan {
    int goThrough = std::numeric_limits<int>::max();
    bool once = false;
  };

  // Counts the call and tells whether it is to fail; errno is set then.
  bool failsNow(Call call);

  static FakeHost& current();
  static platform::SystemCalls table();

  platform::SystemCalls calls_;
  std::optional<std::time_t> time_;
  std::optional<std::uint64_t> microseconds_;
  std::map<Call, Plan> plans_;
  std::map<Call, int> counts_;
  std::vector<Transfer> writes_;
  std::set<void*> blocks_;
  bool cut_ = false;
  bool failed_ = false;
};

}  // namespace qvdbase::test

#endif
