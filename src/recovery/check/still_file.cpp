// Taking a look at a whole database.
#include "recovery/check/still_file.h"

#include <memory>
#include <string>
#include <system_error>

#include "platform/handles/lock_bytes.h"
#include "platform/handles/open_files.h"
#include "platform/host/clock.h"
#include "platform/paths/host_path.h"

namespace qvdbase::check {
namespace {

using platform::LockByte;
using platform::LockOutcome;
using platform::Sharing;

constexpr uint64_t kPatience = 5'000'000;  // microseconds
constexpr uint64_t kPause = 500;

// A change that had begun before the announcement knows nothing of it. One call of a writer is much
// shorter than this.
constexpr uint64_t kLongestChange = 20'000;

// Whether the lock was taken before that time. Where there are no locks it is not.
template <typename Attempt>
bool obtains(uint64_t until, Attempt attempt) {
  for (;;) {
    const LockOutcome outcome = attempt();
    if (outcome != LockOutcome::refused) return outcome == LockOutcome::taken;
    if (platform::microsecondCounter() >= until) return false;
    platform::pauseFor(kPause);
  }
}

int16_t opened(const std::filesystem::path& path) {
  std::error_code unknown;
  const std::string place = std::filesystem::absolute(path, unknown).native();
  if (unknown) return 0;
  platform::Directory folder;
  const std::unique_ptr<platform::EntryName> name = platform::walkToParent(place, &folder);
  int16_t file = 0;
  if (name != nullptr) platform::openFile(folder, *name, platform::kReadOnly, &file);
  return file;
}

}  // namespace

StillFile::StillFile(const std::filesystem::path& path) : file_(opened(path)) {
  if (file_ == 0) return;
  platform::writersOf(file_) == 0 ? begin() : static_cast<void>(turn_.emplace(file_));
}

StillFile::~StillFile() {
  turn_.reset();
  if (hasLook_) platform::releaseLook(file_);
  if (hasTurn_) platform::releaseLockByte(file_, LockByte::turn, Sharing::shared);
  if (isAnnounced_) platform::withdrawReader(file_);
  if (file_ != 0) platform::closeFile(file_);
}

void StillFile::begin() {
  isAnnounced_ = platform::announceReader(file_);
  if (!isAnnounced_) return;
  const uint64_t now = platform::microsecondCounter();
  platform::pauseFor(kLongestChange);
  hasTurn_ = takeTurn(now + kPatience);
  hasLook_ = hasTurn_ && takeLook(now + kPatience);
}

// Next among those that wait for their turn, so that shared writers who never rest let it through.
bool StillFile::takeTurn(uint64_t until) {
  const auto take = [&](LockByte byte) {
    return obtains(until, [&] { return platform::takeLockByte(file_, byte, Sharing::shared); });
  };
  if (!take(LockByte::next)) return false;
  const bool taken = take(LockByte::turn);
  platform::releaseLockByte(file_, LockByte::next, Sharing::shared);
  return taken;
}

bool StillFile::takeLook(uint64_t until) {
  bool asks = false;
  const bool taken = obtains(until, [&] {
    const platform::Turn turn(file_);
    const LockOutcome outcome = platform::takeLook(file_);
    if (outcome == LockOutcome::refused) platform::askForLook(file_);
    asks = asks || outcome == LockOutcome::refused;
    return outcome;
  });
  if (asks) platform::stopAskingForLook(file_);
  return taken;
}

}  // namespace qvdbase::check
