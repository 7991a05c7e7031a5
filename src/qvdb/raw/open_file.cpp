// Opening a file to look at it, and noticing that it changed.
#include "qvdb/raw/open_file.h"

#include <qvdbase/qvdb/error.hpp>

#include <chrono>
#include <string>
#include <thread>
#include <vector>

namespace qvdbase::raw {
namespace {

[[noreturn]] void refuse(const std::filesystem::path& path, const char* operation,
                         qvdb::Reason reason) {
  throw qvdb::Error(
      operation, reason,
      path.native() + ": cannot " + operation + ": " + std::string(qvdb::to_string(reason)));
}

// The times of a file move in ticks of the system's clock, of up to ten milliseconds. A write in
// the same tick as the one before leaves them as they are. So a file that was written just now is
// given time until every further write shows.
constexpr std::chrono::milliseconds kTick(12);

bool isFresh(const platform::FileStamp& stamp) {
  const auto now = std::chrono::system_clock::now().time_since_epoch();
  const auto age = now - std::chrono::nanoseconds(stamp.modifyTime);
  return age < kTick && age > -kTick;
}

std::vector<unsigned char> firstBytes(const ByteSource& source, size_t count) {
  std::vector<unsigned char> bytes(count);
  bytes.resize(source.readAt(0, bytes.data(), count));
  return bytes;
}

qvdb::Reason whyNotOpen(const std::string& path) {
  switch (platform::kindOfPath(path)) {
    case platform::PathKind::nothing:
      return qvdb::Reason::no_such_file;
    case platform::PathKind::somethingElse:
      return qvdb::Reason::not_a_file;
    case platform::PathKind::regularFile:
    case platform::PathKind::blockDevice:
      break;
  }
  return qvdb::Reason::access_denied;
}

}  // namespace

OpenedFile::OpenedFile(const std::filesystem::path& path, const char* operation) {
  std::error_code error;
  const std::string absolute = std::filesystem::absolute(path, error).native();
  if (error || path.empty()) refuse(path, operation, qvdb::Reason::path_not_reachable);
  if (!file_.open(absolute)) refuse(path, operation, whyNotOpen(absolute));
  wasLocked_ = file_.isLockedByOthers();
  if (!file_.stamp(&stamp_)) refuse(path, operation, qvdb::Reason::cannot_open);
  source_.emplace(file_, stamp_.size);
  watched_ = firstBytes(*source_, kWatchedSize);
}

void OpenedFile::watch() {
  if (!isFresh(stamp_)) return;
  std::this_thread::sleep_for(kTick);
  if (!file_.stamp(&stamp_)) return;
  source_.emplace(file_, stamp_.size);
  watched_ = firstBytes(*source_, kWatchedSize);
}

bool OpenedFile::hasChanged() const {
  platform::FileStamp now;
  if (!file_.stamp(&now) || !(now == stamp_)) return true;
  return firstBytes(*source_, kWatchedSize) != watched_;
}

}  // namespace qvdbase::raw
