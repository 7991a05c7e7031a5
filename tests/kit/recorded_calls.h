// A host under the test's control: the library's calls to the system are written down, chosen ones
// fail or move less than they were asked to, and the clocks stand where the test puts them. Between
// its making and its end the library reaches the real host through this object.
//
//   RecordedCalls host;
//   host.setTime(5000);                      what records take as their times
//   host.failFrom(Call::write, 3, ENOSPC);   the fourth write from now on fails, and all after it
//   EXPECT_EQ(AddTable(db, "t"), 0u);
//   host.heal();
//
// What it can do to the calls of each kind:
//
//   failOnce, failFrom    the next call, or all calls from it on, fail without effect
//   cutOnce               a read or write moves only a part of its bytes and says so, which it
//                         may: the library has to ask for the rest
//   cutFrom               the same, and from then on every such call fails: a disk that is full
//   fullAfter             the host takes so many more bytes, from whatever writes, and no more
//   observe               the test's own function runs before each call
//
// How many system calls an operation makes is the library's own affair: it may gather small writes
// and read ahead. What it must keep is the order in which bytes reach the file. So tests compare
// ranges(), where writes that continue each other are one, and cut an operation short by bytes:
//
//   const Bytes before = readFile(path);
//   operation(); const auto log = host.writes();          all of it, once
//   for (size_t n = 0; n < byteCount(log); ++n) {
//     ... the file as before ...
//     host.fullAfter(n);
//     EXPECT_EQ(operation(), 0);
//     EXPECT_TRUE(sameBytes(readFile(path), applied(before, log, n)));
//     host.heal();
//   }
//
// To fail each single call of a kind in turn, whatever their number:
//
//   for (int step = 0;; ++step) {
//     ... fresh file ...
//     host.failOnce(Call::read, step);
//     const int result = operation();
//     host.heal();
//     if (!host.failed()) break;                            nothing failed any more: all were tried
//     EXPECT_EQ(result, 0);
//   }
//
// One object at a time.
#pragma once

#include <cerrno>
#include <cstdint>
#include <ctime>
#include <functional>
#include <iterator>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "kit/bytes.h"
#include "platform/host/system_calls.h"

namespace qvdbase::test {

// The kinds of calls, one for each in the library's table and in its order. There is none for
// seeking: positions are the library's own.
enum class Call {
  open,
  close,
  status,    // of a descriptor
  statusAt,  // of a name
  makeDirectory,
  rename,
  link,
  remove,
  changeMode,
  changeOwner,
  renameNew,
  listAttributes,
  readAttribute,
  writeAttribute,
  removeAttribute,
  replaceDescriptor,
  read,
  write,
  truncate,
  sync,
  syncData,
  nextHole,
  nextStored,
  cloneFile,
  copyRange,
  punchHole,
  length,  // of a file
  sizeLimit,
  lock,
  findLock,
  lockHolder,
  fileSystem,
  time,
  processClock,
  microseconds,
  pause,
  allocate,
  release,
  reserve,
  discard,
  unreserve,
  processId,
  forkCount,
  processName,
};
inline constexpr size_t kCallCount = static_cast<size_t>(Call::processName) + 1;

// A call that the recorder does not know reaches the host unseen, and no test makes it fail.
static_assert(sizeof(platform::SystemCalls) == kCallCount * sizeof(void (*)()),
              "the library's table has a call without a kind: give it one here, a function in "
              "recorded_calls.cpp, and a place in kFailingCalls or among those that cannot fail");

// All kinds that can fail, for tests that go through them.
inline constexpr Call kFailingCalls[] = {
    Call::open,
    Call::close,
    Call::status,
    Call::statusAt,
    Call::makeDirectory,
    Call::rename,
    Call::link,
    Call::remove,
    Call::changeMode,
    Call::changeOwner,
    Call::renameNew,
    Call::listAttributes,
    Call::readAttribute,
    Call::writeAttribute,
    Call::removeAttribute,
    Call::replaceDescriptor,
    Call::read,
    Call::write,
    Call::truncate,
    Call::sync,
    Call::syncData,
    Call::nextHole,
    Call::nextStored,
    Call::cloneFile,
    Call::copyRange,
    Call::punchHole,
    Call::length,
    Call::lock,
    Call::findLock,
    Call::time,
    Call::processClock,
    Call::microseconds,
    Call::allocate,
    Call::reserve,
};
inline constexpr Call kNeverFailing[] = {
    Call::pause,     Call::sizeLimit,  Call::release,   Call::discard,    Call::unreserve,
    Call::processId, Call::lockHolder, Call::forkCount, Call::fileSystem, Call::processName};
static_assert(std::size(kFailingCalls) + std::size(kNeverFailing) == kCallCount);

// A clock that fails shows some time: nothing fails because of it.
constexpr bool isClock(Call call) {
  return call == Call::time || call == Call::processClock || call == Call::microseconds;
}

const char* nameOf(Call call);

// How many bytes a cut transfer still moves, of the number that it was asked to.
using Part = std::function<size_t(size_t)>;
Part noneOf();
Part halfOf();
Part exactly(size_t count);  // at most as many as were asked for
Part allBut(size_t count);

// Bytes that reached a file.
struct Write {
  int64_t position = 0;
  Bytes bytes;
  std::string file;  // the last part of the name under which it was opened

  bool operator==(const Write& other) const = default;
};
void PrintTo(const Write& write, std::ostream* out);

// Consecutive writes of which each goes on where the one before it ended, made one.
std::vector<Write> ranges(const std::vector<Write>& writes);

// How many bytes they are.
size_t byteCount(const std::vector<Write>& writes);

// The file after the first `count` bytes of these writes, in their order; bytes that nothing wrote
// in a file that became longer are zeros.
Bytes applied(Bytes file, const std::vector<Write>& writes, size_t count = SIZE_MAX);

// One call, as it was made and as it ended.
struct Event {
  Call call;
  int descriptor = -1;   // of the file, or of the directory in which a name is looked up
  std::string file;      // as in Write; the name itself for calls on names, the old one for
                         // rename and link
  int64_t position = 0;  // read, write, nextHole, nextStored; the new length for truncate;
                         // the lock's type for lock and findLock; the mode for changeMode
  size_t count = 0;      // bytes asked for: read, write, allocate
  int64_t result = 0;    // what the library was told; 0 for a null pointer, 1 for any other
  bool chosen = false;   // whether it failed or was cut because the test wanted it to
};

class RecordedCalls {
 public:
  using Call = test::Call;

  RecordedCalls();
  ~RecordedCalls();
  RecordedCalls(const RecordedCalls&) = delete;
  RecordedCalls& operator=(const RecordedCalls&) = delete;

  // ---- clocks: until they are set, the host's own ----

  // The clock that records take their times from.
  void setTime(std::time_t now) { time_ = now; }
  void advanceTime(std::time_t seconds) { time_ = *time_ + seconds; }
  // The microsecond counter that identifiers draw on.
  void setMicroseconds(uint64_t now) { microseconds_ = now; }
  void setProcessClock(std::clock_t now) { processClock_ = now; }
  // The length that no file may pass.
  void setFileSizeLimit(uint64_t bytes) { sizeLimit_ = bytes; }

  // ---- failures. A later one for the same kind replaces the earlier one ----

  // From now on `skip` calls of this kind go through; the next one fails, or that and all later
  // ones do, with this errno and without effect. A clock fails with its all-ones value (the
  // microsecond counter with 0), an allocation with a null pointer. A descriptor is closed even by
  // a close that fails, as hosts do it.
  void failOnce(Call call, int skip = 0, int error = EIO);
  void failFrom(Call call, int skip = 0, int error = EIO);
  // For reads and writes: the call after `skip` others moves only a part of its bytes.
  void cutOnce(Call call, Part part, int skip = 0);
  void cutFrom(Call call, Part part, int skip = 0, int error = ENOSPC);
  // The second write fails for good after the first half of the first one's bytes.
  void cutWrites(int skip = 0) { cutFrom(Call::write, halfOf(), skip, EIO); }
  // `bytes` more bytes can be written, in all files together; the write that would pass that is cut
  // short, and what follows fails.
  void fullAfter(size_t bytes, int error = ENOSPC);
  // Ends all failing.
  void heal();
  // Whether a call was made to fail or cut since the latest of the above.
  bool failed() const { return failed_; }

  // Runs before each call; null ends it. A test can look at the file, change it as another program
  // would, or end the process.
  void observe(std::function<void(Call)> before) { observer_ = std::move(before); }

  // ---- the record, since the making or forget() ----

  // How many calls of this kind were made, failed ones included.
  int count(Call call) const;
  // Every call in order.
  const std::vector<Event>& events() const { return events_; }
  // The writes that moved bytes, in order; and those of one file.
  const std::vector<Write>& writes() const { return writes_; }
  std::vector<Write> writes(const std::string& file) const;
  void forget();

  // ---- what the library took since the making and still holds ----

  size_t heldBlocks() const { return blocks_.size(); }
  size_t openDescriptors() const { return opened_.size(); }
  // Gives the blocks back in the library's place, where it is known to leave one behind.
  void releaseBlocks();
  // The same for a test that does not know which of the blocks are still in use: they stay, but no
  // leak checker complains of them.
  void excuseBlocks() const;

 private:
  struct Plan {
    int skip = 0;
    bool once = false;
    int error = EIO;
    Part part;  // null: a failure
  };
  struct Verdict {
    bool fails = false;
    int error = 0;
    size_t moves = SIZE_MAX;  // of a transfer, at most
  };
  struct Calls;  // the functions of the table

  // Counts the call, calls the observer and looks up what is to become of it.
  Verdict begin(Call call, size_t asked = 0);
  Verdict limitedBySpace(size_t asked);
  Verdict chosen(int error);
  void note(Event event, const Verdict& verdict);
  std::string fileOf(int descriptor) const;
  void restart(Call call, Plan plan);

  platform::SystemCalls table_;
  std::optional<std::time_t> time_;
  std::optional<uint64_t> microseconds_;
  std::optional<std::clock_t> processClock_;
  std::optional<uint64_t> sizeLimit_;
  std::map<Call, Plan> plans_;
  std::optional<size_t> space_;
  int spaceError_ = ENOSPC;
  bool failed_ = false;
  std::function<void(Call)> observer_;

  std::map<Call, int> counts_;
  std::vector<Event> events_;
  std::vector<Write> writes_;
  std::map<int, std::string> names_;  // of descriptors; kept after their closing until reused
  std::set<int> opened_;
  std::set<void*> blocks_;
};

}  // namespace qvdbase::test
