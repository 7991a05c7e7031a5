// A host under the test's control.
#include "support/fake_host.h"

#include <cerrno>
#include <stdexcept>

namespace qvdbase::test {
namespace {

using platform::hostSystemCalls;

FakeHost* g_current = nullptr;

}  // namespace

FakeHost::FakeHost() : calls_(table()) {
  if (g_current != nullptr) throw std::logic_error("one FakeHost at a time");
  g_current = this;
  platform::replaceSystemCalls(&calls_);
}

FakeHost::~FakeHost() {
  platform::replaceSystemCalls(nullptr);
  g_current = nullptr;
}

FakeHost& FakeHost::current() {
  return *g_current;
}

void FakeHost::failFrom(Call call, int calls) {
  plans_[call] = {calls, false};
  failed_ = false;
  cut_ = false;
}

void FakeHost::failOnce(Call call, int calls) {
  plans_[call] = {calls, true};
  failed_ = false;
  cut_ = false;
}

void FakeHost::cutWrites(int calls) {
  failFrom(Call::write, calls);
  cut_ = true;
}

void FakeHost::heal() {
  plans_.clear();
  cut_ = false;
}

int FakeHost::count(Call call) const {
  const auto found = counts_.find(call);
  return found == counts_.end() ? 0 : found->second;
}

void FakeHost::forget() {
  counts_.clear();
  writes_.clear();
}

void FakeHost::releaseBlocks() {
  for (void* block : blocks_) hostSystemCalls().release(block);
  blocks_.clear();
}

bool FakeHost::failsNow(Call call) {
  ++counts_[call];
  const auto plan = plans_.find(call);
  if (plan == plans_.end()) return false;
  if (plan->second.goThrough > 0) {
    --plan->second.goThrough;
    return false;
  }
  if (plan->second.once) plans_.erase(plan);
  failed_ = true;
  errno = EIO;
  return true;
}

platform::SystemCalls FakeHost::table() {
  platform::SystemCalls calls = hostSystemCalls();
  calls.openAt = [](int directory, const char* name, int flags, mode_t mode) {
    if (current().failsNow(Call::open)) return -1;
    return hostSystemCalls().openAt(directory, name, flags, mode);
  };
  // A descriptor is closed in any case, as the host does it; only the result fails.
  calls.close = [](int descriptor) {
    const int result = hostSystemCalls().close(descriptor);
    return current().failsNow(Call::close) ? -1 : result;
  };
  calls.status = [](int descriptor, struct stat* result) {
    if (current().failsNow(Call::status)) return -1;
    return hostSystemCalls().status(descriptor, result);
  };
  calls.makeDirectoryAt = [](int directory, const char* name, mode_t mode) {
    if (current().failsNow(Call::makeDirectory)) return -1;
    return hostSystemCalls().makeDirectoryAt(directory, name, mode);
  };
  calls.readAt = [](int descriptor, void* buffer, size_t count, off_t position) {
    if (current().failsNow(Call::read)) return ssize_t{-1};
    return hostSystemCalls().readAt(descriptor, buffer, count, position);
  };
  calls.writeAt = [](int descriptor, const void* buffer, size_t count, off_t position) {
    FakeHost& host = current();
    if (host.failsNow(Call::write)) {
      if (!host.cut_ || count < 2) return ssize_t{-1};
      host.cut_ = false;  // what is left of the bytes fails altogether
      count /= 2;
    }
    const ssize_t moved = hostSystemCalls().writeAt(descriptor, buffer, count, position);
    const auto* bytes = static_cast<const std::uint8_t*>(buffer);
    if (moved > 0) host.writes_.push_back({position, Bytes(bytes, bytes + moved)});
    return moved;
  };
  calls.truncate = [](int descriptor, off_t length) {
    if (current().failsNow(Call::truncate)) return -1;
    return hostSystemCalls().truncate(descriptor, length);
  };
  calls.setLock = [](int descriptor, struct flock* lock) {
    if (current().failsNow(Call::lock)) return -1;
    return hostSystemCalls().setLock(descriptor, lock);
  };
  calls.time = [] { return current().time_.value_or(hostSystemCalls().time()); };
  calls.microseconds = [] {
    return current().microseconds_.value_or(hostSystemCalls().microseconds());
  };
  calls.allocate = [](size_t size) -> void* {
    if (current().failsNow(Call::allocate)) return nullptr;
    void* block = hostSystemCalls().allocate(size);
    if (block != nullptr) current().blocks_.insert(block);
    return block;
  };
  calls.release = [](void* block) {
    current().blocks_.erase(block);
    hostSystemCalls().release(block);
  };
  return calls;
}

}  // namespace qvdbase::test
