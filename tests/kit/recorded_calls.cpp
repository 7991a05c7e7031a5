// A host under the test's control.
#include "kit/recorded_calls.h"

#include "kit/other_thread.h"

#include <algorithm>
#include <ostream>
#include <stdexcept>
#include <utility>

namespace qvdbase::test {
namespace {

const platform::SystemCalls& real() {
  return platform::hostSystemCalls();
}

RecordedCalls* g_current = nullptr;

std::string lastPart(const char* name) {
  const std::string text = name;
  return text.substr(text.find_last_of('/') + 1);
}

}  // namespace

// ---- writes -------------------------------------------------------------------------------------

const char* nameOf(Call call) {
  static constexpr const char* kNames[] = {"open",
                                           "close",
                                           "status",
                                           "statusAt",
                                           "makeDirectory",
                                           "rename",
                                           "link",
                                           "remove",
                                           "changeMode",
                                           "changeOwner",
                                           "renameNew",
                                           "listAttributes",
                                           "readAttribute",
                                           "writeAttribute",
                                           "removeAttribute",
                                           "replaceDescriptor",
                                           "read",
                                           "write",
                                           "truncate",
                                           "sync",
                                           "syncData",
                                           "nextHole",
                                           "nextStored",
                                           "cloneFile",
                                           "copyRange",
                                           "punchHole",
                                           "length",
                                           "sizeLimit",
                                           "lock",
                                           "findLock",
                                           "lockHolder",
                                           "fileSystem",
                                           "time",
                                           "processClock",
                                           "microseconds",
                                           "pause",
                                           "allocate",
                                           "release",
                                           "reserve",
                                           "discard",
                                           "unreserve",
                                           "processId",
                                           "forkCount",
                                           "processName"};
  static_assert(std::size(kNames) == kCallCount);
  return kNames[static_cast<size_t>(call)];
}

Part noneOf() {
  return exactly(0);
}
Part halfOf() {
  return [](size_t asked) { return asked / 2; };
}
Part exactly(size_t count) {
  return [count](size_t asked) { return std::min(asked, count); };
}
Part allBut(size_t count) {
  return [count](size_t asked) { return asked - std::min(asked, count); };
}

void PrintTo(const Write& write, std::ostream* out) {
  *out << write.bytes.size() << " bytes at " << write.position << " of " << write.file << '\n'
       << dump(write.bytes, static_cast<size_t>(write.position));
}

std::vector<Write> ranges(const std::vector<Write>& writes) {
  std::vector<Write> result;
  for (const Write& each : writes) {
    if (!result.empty()) {
      Write& last = result.back();
      const auto end = last.position + static_cast<int64_t>(last.bytes.size());
      if (each.file == last.file && each.position == end) {
        last.bytes.add(each.bytes);
        continue;
      }
    }
    result.push_back(each);
  }
  return result;
}

size_t byteCount(const std::vector<Write>& writes) {
  size_t count = 0;
  for (const Write& each : writes) count += each.bytes.size();
  return count;
}

Bytes applied(Bytes file, const std::vector<Write>& writes, size_t count) {
  for (const Write& each : writes) {
    const size_t taken = std::min(count, each.bytes.size());
    count -= taken;
    const auto start = static_cast<size_t>(each.position);
    if (taken != 0 && file.size() < start + taken) file.resize(start + taken);
    std::copy_n(each.bytes.begin(), taken,
                file.begin() + static_cast<std::ptrdiff_t>(std::min(start, file.size())));
  }
  return file;
}

// ---- choosing what fails ------------------------------------------------------------------------

void RecordedCalls::restart(Call call, Plan plan) {
  plans_[call] = std::move(plan);
  failed_ = false;
}

void RecordedCalls::failOnce(Call call, int skip, int error) {
  restart(call, {skip, true, error, nullptr});
}
void RecordedCalls::failFrom(Call call, int skip, int error) {
  restart(call, {skip, false, error, nullptr});
}
void RecordedCalls::cutOnce(Call call, Part part, int skip) {
  restart(call, {skip, true, 0, std::move(part)});
}
void RecordedCalls::cutFrom(Call call, Part part, int skip, int error) {
  restart(call, {skip, false, error, std::move(part)});
}

void RecordedCalls::fullAfter(size_t bytes, int error) {
  space_ = bytes;
  spaceError_ = error;
  failed_ = false;
}

void RecordedCalls::heal() {
  plans_.clear();
  space_.reset();
}

RecordedCalls::Verdict RecordedCalls::chosen(int error) {
  failed_ = true;
  errno = error;
  return {true, error, 0};
}

RecordedCalls::Verdict RecordedCalls::limitedBySpace(size_t asked) {
  if (asked <= *space_) {
    *space_ -= asked;
    return {};
  }
  const size_t rest = std::exchange(*space_, 0);
  if (rest == 0) return chosen(spaceError_);
  failed_ = true;
  return {false, 0, rest};
}

RecordedCalls::Verdict RecordedCalls::begin(Call call, size_t asked) {
  if (observer_) observer_(call);
  ++counts_[call];
  const auto found = plans_.find(call);
  if (found == plans_.end()) {
    const bool takesSpace = call == Call::write || call == Call::copyRange;
    return takesSpace && space_ ? limitedBySpace(asked) : Verdict{};
  }
  Plan& plan = found->second;
  if (plan.skip > 0) {
    --plan.skip;
    return {};
  }
  if (!plan.part) {
    const Verdict verdict = chosen(plan.error);
    if (plan.once) plans_.erase(found);
    return verdict;
  }
  failed_ = true;
  const Verdict verdict{false, 0, plan.part(asked)};
  if (plan.once) {
    plans_.erase(found);
  } else {
    plan.part = nullptr;
  }
  return verdict;
}

// ---- the record ---------------------------------------------------------------------------------

void RecordedCalls::note(Event event, const Verdict& verdict) {
  const int error = errno;  // the library still has to see it
  event.chosen = verdict.fails || verdict.moves != SIZE_MAX;
  if (event.file.empty()) event.file = fileOf(event.descriptor);
  events_.push_back(std::move(event));
  errno = error;
}

std::string RecordedCalls::fileOf(int descriptor) const {
  const auto found = names_.find(descriptor);
  return found == names_.end() ? std::string() : found->second;
}

int RecordedCalls::count(Call call) const {
  const auto found = counts_.find(call);
  return found == counts_.end() ? 0 : found->second;
}

std::vector<Write> RecordedCalls::writes(const std::string& file) const {
  std::vector<Write> result;
  std::copy_if(writes_.begin(), writes_.end(), std::back_inserter(result),
               [&](const Write& each) { return each.file == file; });
  return result;
}

void RecordedCalls::forget() {
  counts_.clear();
  events_.clear();
  writes_.clear();
}

void RecordedCalls::releaseBlocks() {
  for (void* block : blocks_) real().release(block);
  blocks_.clear();
}

void RecordedCalls::excuseBlocks() const {
  static auto* const excused = new std::set<void*>;  // never destroyed: what it holds is reachable
  excused->insert(blocks_.begin(), blocks_.end());
}

// ---- the table ----------------------------------------------------------------------------------

struct RecordedCalls::Calls {
  static RecordedCalls& host() { return *g_current; }

  static int openAt(int directory, const char* name, int flags, mode_t mode) {
    const Verdict verdict = host().begin(Call::open);
    const int result = verdict.fails ? -1 : real().openAt(directory, name, flags, mode);
    if (result >= 0) {
      host().names_[result] = lastPart(name);
      host().opened_.insert(result);
    }
    host().note({Call::open, directory, lastPart(name), 0, 0, result}, verdict);
    return result;
  }

  static int close(int descriptor) {
    const Verdict verdict = host().begin(Call::close);
    const int closed = real().close(descriptor);
    host().opened_.erase(descriptor);
    if (verdict.fails) errno = verdict.error;
    const int result = verdict.fails ? -1 : closed;
    host().note({Call::close, descriptor, {}, 0, 0, result}, verdict);
    return result;
  }

  static int status(int descriptor, struct stat* into) {
    const Verdict verdict = host().begin(Call::status);
    const int result = verdict.fails ? -1 : real().status(descriptor, into);
    host().note({Call::status, descriptor, {}, 0, 0, result}, verdict);
    return result;
  }

  static int statusAt(int directory, const char* name, struct stat* into, int flags) {
    const Verdict verdict = host().begin(Call::statusAt);
    const int result = verdict.fails ? -1 : real().statusAt(directory, name, into, flags);
    host().note({Call::statusAt, directory, lastPart(name), 0, 0, result}, verdict);
    return result;
  }

  static int makeDirectoryAt(int directory, const char* name, mode_t mode) {
    const Verdict verdict = host().begin(Call::makeDirectory);
    const int result = verdict.fails ? -1 : real().makeDirectoryAt(directory, name, mode);
    host().note({Call::makeDirectory, directory, lastPart(name), 0, 0, result}, verdict);
    return result;
  }

  static int renameAt(int fromDirectory, const char* from, int toDirectory, const char* to) {
    const Verdict verdict = host().begin(Call::rename);
    const int result = verdict.fails ? -1 : real().renameAt(fromDirectory, from, toDirectory, to);
    host().note({Call::rename, fromDirectory, lastPart(from), 0, 0, result}, verdict);
    return result;
  }

  static int linkAt(int fromDirectory, const char* from, int toDirectory, const char* to,
                    int flags) {
    const Verdict verdict = host().begin(Call::link);
    const int result =
        verdict.fails ? -1 : real().linkAt(fromDirectory, from, toDirectory, to, flags);
    host().note({Call::link, fromDirectory, lastPart(from), 0, 0, result}, verdict);
    return result;
  }

  static int removeAt(int directory, const char* name, int flags) {
    const Verdict verdict = host().begin(Call::remove);
    const int result = verdict.fails ? -1 : real().removeAt(directory, name, flags);
    host().note({Call::remove, directory, lastPart(name), 0, 0, result}, verdict);
    return result;
  }

  static int changeMode(int descriptor, mode_t mode) {
    const Verdict verdict = host().begin(Call::changeMode);
    const int result = verdict.fails ? -1 : real().changeMode(descriptor, mode);
    host().note({Call::changeMode, descriptor, {}, mode, 0, result}, verdict);
    return result;
  }

  static int changeOwner(int descriptor, uid_t owner, gid_t group) {
    const Verdict verdict = host().begin(Call::changeOwner);
    const int result = verdict.fails ? -1 : real().changeOwner(descriptor, owner, group);
    host().note({Call::changeOwner, descriptor, {}, 0, 0, result}, verdict);
    return result;
  }

  static int renameNewAt(int fromDirectory, const char* from, int toDirectory, const char* to) {
    const Verdict verdict = host().begin(Call::renameNew);
    const int result =
        verdict.fails ? -1 : real().renameNewAt(fromDirectory, from, toDirectory, to);
    host().note({Call::renameNew, fromDirectory, lastPart(from), 0, 0, result}, verdict);
    return result;
  }

  static ssize_t listAttributes(int descriptor, char* names, size_t size) {
    const Verdict verdict = host().begin(Call::listAttributes);
    const ssize_t result = verdict.fails ? -1 : real().listAttributes(descriptor, names, size);
    host().note({Call::listAttributes, descriptor, {}, 0, size, result}, verdict);
    return result;
  }

  static ssize_t readAttribute(int descriptor, const char* name, void* value, size_t size) {
    const Verdict verdict = host().begin(Call::readAttribute);
    const ssize_t result = verdict.fails ? -1 : real().readAttribute(descriptor, name, value, size);
    host().note({Call::readAttribute, descriptor, {}, 0, size, result}, verdict);
    return result;
  }

  static int writeAttribute(int descriptor, const char* name, const void* value, size_t size) {
    const Verdict verdict = host().begin(Call::writeAttribute);
    const int result = verdict.fails ? -1 : real().writeAttribute(descriptor, name, value, size);
    host().note({Call::writeAttribute, descriptor, {}, 0, size, result}, verdict);
    return result;
  }

  static int removeAttribute(int descriptor, const char* name) {
    const Verdict verdict = host().begin(Call::removeAttribute);
    const int result = verdict.fails ? -1 : real().removeAttribute(descriptor, name);
    host().note({Call::removeAttribute, descriptor, {}, 0, 0, result}, verdict);
    return result;
  }

  static int replaceDescriptor(int from, int descriptor) {
    const Verdict verdict = host().begin(Call::replaceDescriptor);
    const int result = verdict.fails ? -1 : real().replaceDescriptor(from, descriptor);
    host().note({Call::replaceDescriptor, descriptor, {}, 0, 0, result}, verdict);
    return result;
  }

  static ssize_t readAt(int descriptor, void* buffer, size_t count, off_t position) {
    const Verdict verdict = host().begin(Call::read, count);
    ssize_t result = -1;
    if (!verdict.fails) {
      result = real().readAt(descriptor, buffer, std::min(count, verdict.moves), position);
    }
    host().note({Call::read, descriptor, {}, position, count, result}, verdict);
    return result;
  }

  static ssize_t writeAt(int descriptor, const void* buffer, size_t count, off_t position) {
    const Verdict verdict = host().begin(Call::write, count);
    ssize_t result = -1;
    if (!verdict.fails) {
      result = real().writeAt(descriptor, buffer, std::min(count, verdict.moves), position);
    }
    const auto* bytes = static_cast<const uint8_t*>(buffer);
    if (result > 0) {
      host().writes_.push_back({position, Bytes(bytes, bytes + result), host().fileOf(descriptor)});
    }
    host().note({Call::write, descriptor, {}, position, count, result}, verdict);
    return result;
  }

  static int truncate(int descriptor, off_t length) {
    const Verdict verdict = host().begin(Call::truncate);
    const int result = verdict.fails ? -1 : real().truncate(descriptor, length);
    host().note({Call::truncate, descriptor, {}, length, 0, result}, verdict);
    return result;
  }

  static int sync(int descriptor) {
    const Verdict verdict = host().begin(Call::sync);
    const int result = verdict.fails ? -1 : real().sync(descriptor);
    host().note({Call::sync, descriptor, {}, 0, 0, result}, verdict);
    return result;
  }

  static int syncData(int descriptor) {
    const Verdict verdict = host().begin(Call::syncData);
    const int result = verdict.fails ? -1 : real().syncData(descriptor);
    host().note({Call::syncData, descriptor, {}, 0, 0, result}, verdict);
    return result;
  }

  static off_t nextHole(int descriptor, off_t position) {
    const Verdict verdict = host().begin(Call::nextHole);
    const off_t result = verdict.fails ? -1 : real().nextHole(descriptor, position);
    host().note({Call::nextHole, descriptor, {}, position, 0, result}, verdict);
    return result;
  }

  static off_t nextStored(int descriptor, off_t position) {
    const Verdict verdict = host().begin(Call::nextStored);
    const off_t result = verdict.fails ? -1 : real().nextStored(descriptor, position);
    host().note({Call::nextStored, descriptor, {}, position, 0, result}, verdict);
    return result;
  }

  static int cloneFile(int to, int from) {
    const Verdict verdict = host().begin(Call::cloneFile);
    const int result = verdict.fails ? -1 : real().cloneFile(to, from);
    host().note({Call::cloneFile, to, {}, 0, 0, result}, verdict);
    return result;
  }

  static ssize_t copyRange(int to, int from, off_t position, size_t count) {
    const Verdict verdict = host().begin(Call::copyRange, count);
    ssize_t result = -1;
    if (!verdict.fails) {
      result = real().copyRange(to, from, position, std::min(count, verdict.moves));
    }
    if (result > 0) noteCopied(from, to, position, static_cast<size_t>(result));
    host().note({Call::copyRange, to, {}, position, count, result}, verdict);
    return result;
  }

  static void noteCopied(int from, int to, off_t position, size_t count) {
    Bytes bytes;
    bytes.resize(count);
    if (real().readAt(from, bytes.data(), count, position) != static_cast<ssize_t>(count)) return;
    host().writes_.push_back({position, std::move(bytes), host().fileOf(to)});
  }

  static int punchHole(int descriptor, off_t position, off_t length) {
    const Verdict verdict = host().begin(Call::punchHole);
    const int result = verdict.fails ? -1 : real().punchHole(descriptor, position, length);
    host().note({Call::punchHole, descriptor, {}, position, static_cast<size_t>(length), result},
                verdict);
    return result;
  }

  static int64_t lengthOf(int descriptor) {
    const Verdict verdict = host().begin(Call::length);
    const int64_t result = verdict.fails ? -1 : real().lengthOf(descriptor);
    host().note({Call::length, descriptor, {}, 0, 0, result}, verdict);
    return result;
  }

  static int setLock(int descriptor, struct flock* lock) {
    const Verdict verdict = host().begin(Call::lock);
    const int result = verdict.fails ? -1 : real().setLock(descriptor, lock);
    host().note({Call::lock, descriptor, {}, lock->l_type, 0, result}, verdict);
    return result;
  }

  static int findLock(int descriptor, struct flock* lock) {
    const Verdict verdict = host().begin(Call::findLock);
    const auto type = lock->l_type;
    const int result = verdict.fails ? -1 : real().findLock(descriptor, lock);
    host().note({Call::findLock, descriptor, {}, type, 0, result}, verdict);
    return result;
  }

  // Asked for at every write; counted, but not written down one by one.
  static uint64_t fileSizeLimit() {
    host().begin(Call::sizeLimit);
    return host().sizeLimit_ ? *host().sizeLimit_ : real().fileSizeLimit();
  }

  static time_t time() {
    const Verdict verdict = host().begin(Call::time);
    time_t result = time_t{-1};
    if (!verdict.fails) result = host().time_ ? *host().time_ : real().time();
    host().note({Call::time, -1, {}, 0, 0, result}, verdict);
    return result;
  }

  static clock_t processClock() {
    const Verdict verdict = host().begin(Call::processClock);
    if (verdict.fails) return clock_t{-1};
    return host().processClock_ ? *host().processClock_ : real().processClock();
  }

  static uint64_t microseconds() {
    const Verdict verdict = host().begin(Call::microseconds);
    if (verdict.fails) return 0;
    return host().microseconds_ ? *host().microseconds_ : real().microseconds();
  }

  // Asked for by every destructor; counted, but not written down one by one.
  static pid_t processId() {
    host().begin(Call::processId);
    return real().processId();
  }

  static void pause(uint64_t length) {
    host().begin(Call::pause);
    // A clock that was stopped goes on by what is waited, and only by that.
    if (host().microseconds_) {
      *host().microseconds_ += length;
    } else {
      real().pause(length);
    }
  }

  static uint32_t forkCount() {
    host().begin(Call::forkCount);
    return real().forkCount();
  }

  static pid_t lockHolder(dev_t device, ino_t inode, off_t end) {
    host().begin(Call::lockHolder);
    return real().lockHolder(device, inode, end);
  }

  static const char* fileSystem(int descriptor) {
    host().begin(Call::fileSystem);
    return real().fileSystem(descriptor);
  }

  static bool processName(pid_t process, char* name, size_t size) {
    host().begin(Call::processName);
    return real().processName(process, name, size);
  }

  static void* allocate(size_t size) {
    const Verdict verdict = host().begin(Call::allocate, size);
    void* block = verdict.fails ? nullptr : real().allocate(size);
    if (block != nullptr) host().blocks_.insert(block);
    host().note({Call::allocate, -1, {}, 0, size, block != nullptr}, verdict);
    return block;
  }

  static void release(void* block) {
    const Verdict verdict = host().begin(Call::release);
    host().blocks_.erase(block);
    real().release(block);
    host().note({Call::release, -1, {}, 0, 0, 1}, verdict);
  }

  static void* reserve(size_t size, bool large) {
    const Verdict verdict = host().begin(Call::reserve);
    return verdict.fails ? nullptr : real().reserve(size, large);
  }

  static void discard(void* memory, size_t size) {
    host().begin(Call::discard);
    real().discard(memory, size);
  }

  static void unreserve(void* memory, size_t size) {
    host().begin(Call::unreserve);
    real().unreserve(memory, size);
  }
};

RecordedCalls::RecordedCalls() : table_(real()) {
  if (g_current != nullptr) throw std::logic_error("one RecordedCalls at a time");
  table_.openAt = Calls::openAt;
  table_.close = Calls::close;
  table_.status = Calls::status;
  table_.statusAt = Calls::statusAt;
  table_.makeDirectoryAt = Calls::makeDirectoryAt;
  table_.renameAt = Calls::renameAt;
  table_.linkAt = Calls::linkAt;
  table_.removeAt = Calls::removeAt;
  table_.changeMode = Calls::changeMode;
  table_.changeOwner = Calls::changeOwner;
  table_.renameNewAt = Calls::renameNewAt;
  table_.listAttributes = Calls::listAttributes;
  table_.readAttribute = Calls::readAttribute;
  table_.writeAttribute = Calls::writeAttribute;
  table_.removeAttribute = Calls::removeAttribute;
  table_.replaceDescriptor = Calls::replaceDescriptor;
  table_.readAt = Calls::readAt;
  table_.writeAt = Calls::writeAt;
  table_.truncate = Calls::truncate;
  table_.sync = Calls::sync;
  table_.syncData = Calls::syncData;
  table_.nextHole = Calls::nextHole;
  table_.nextStored = Calls::nextStored;
  table_.cloneFile = Calls::cloneFile;
  table_.copyRange = Calls::copyRange;
  table_.punchHole = Calls::punchHole;
  table_.lengthOf = Calls::lengthOf;
  table_.fileSizeLimit = Calls::fileSizeLimit;
  table_.setLock = Calls::setLock;
  table_.findLock = Calls::findLock;
  table_.lockHolder = Calls::lockHolder;
  table_.fileSystem = Calls::fileSystem;
  table_.time = Calls::time;
  table_.processClock = Calls::processClock;
  table_.microseconds = Calls::microseconds;
  table_.pause = Calls::pause;
  table_.allocate = Calls::allocate;
  table_.release = Calls::release;
  table_.reserve = Calls::reserve;
  table_.discard = Calls::discard;
  table_.unreserve = Calls::unreserve;
  table_.processId = Calls::processId;
  table_.forkCount = Calls::forkCount;
  table_.processName = Calls::processName;
  g_current = this;
  replaceHostCalls(&table_);
}

RecordedCalls::~RecordedCalls() {
  replaceHostCalls(nullptr);
  g_current = nullptr;
}

}  // namespace qvdbase::test
