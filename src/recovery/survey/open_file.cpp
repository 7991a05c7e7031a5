// Opening a file to look at it, and noticing that it changed.
#include "recovery/survey/open_file.h"

#include <qvdbase/qvdb/error.hpp>

#include <string>
#include <thread>
#include <vector>

#include "failure/failure.h"
#include "format/layout.h"
#include "platform/handles/open_failure.h"
#include "platform/handles/open_files.h"
#include "platform/paths/utf8_names.h"

namespace qvdbase::survey {
namespace {

std::vector<unsigned char> firstBytes(const ByteSource& source, size_t count) {
  std::vector<unsigned char> bytes(count);
  bytes.resize(source.readAt(0, bytes.data(), count));
  return bytes;
}

[[noreturn]] void refuseWhatDoesNotOpen(const std::filesystem::path& path, const char* operation,
                                        const std::string& absolute) {
  if (platform::kindOfPath(absolute) == platform::PathKind::blockDevice) {
    failure::throwError(path, operation, qvdb::Reason::access_denied);
  }
  std::vector<QVWCHAR> wide(absolute.size() + 1);
  if (!platform::utf16FromUtf8(absolute.data(), absolute.size(), wide.data(), wide.size())) {
    failure::throwError(path, operation, qvdb::Reason::path_not_reachable,
                        "it does not exist or cannot be opened, and its name is not valid UTF-8");
  }
  failure::throwOpenFailure(path, operation,
                            platform::findOpenFailure(wide.data(), platform::kReadOnly));
}

}  // namespace

OpenedFile::OpenedFile(const std::filesystem::path& path, const char* operation) {
  std::error_code error;
  const std::string absolute = std::filesystem::absolute(path, error).native();
  if (error || path.empty()) {
    failure::throwError(path, operation, qvdb::Reason::path_not_reachable,
                        path.empty() ? "it is empty" : "the current folder is not known");
  }
  if (!file_.open(absolute)) refuseWhatDoesNotOpen(path, operation, absolute);
  wasLocked_ = file_.isLockedByOthers();
  begin(path, operation);
}

OpenedFile::OpenedFile(int16_t file, const std::filesystem::path& path, const char* operation) {
  const platform::Turn turn(file);
  const platform::OpenFile* open = platform::findOpenFile(file);
  if (open == nullptr) failure::throwError(path, operation, qvdb::Reason::cannot_open);
  file_.share(open->entry);
  begin(path, operation);
}

void OpenedFile::begin(const std::filesystem::path& path, const char* operation) {
  if (!look()) failure::throwError(path, operation, qvdb::Reason::cannot_open);
  unsigned char byte = 0;
  if (stamp_.size == 0 && file_.readAt(0, &byte, 1) != 0) {
    failure::throwError(path, operation, qvdb::Reason::not_a_file,
                        "the system makes what is read from it, and it has no size");
  }
}

bool OpenedFile::look() {
  if (!file_.stamp(&stamp_)) return false;
  source_.emplace(file_, stamp_.size);
  completed_.emplace(*source_);
  watched_ = firstBytes(*source_, format::kNewFileSize);
  return true;
}

// Devices belong to a group of the system's, not to one of its users.
platform::FileAccess OpenedFile::access(const std::filesystem::path& path,
                                        const char* operation) const {
  platform::FileAccess access;
  if (!file_.access(&access)) failure::throwError(path, operation, qvdb::Reason::cannot_read);
  if (file_.isDevice()) access.mode &= 0600;
  return access;
}

// After a write just now it waits until every further write would show.
void OpenedFile::watch() {
  if (!platform::isFresh(stamp_)) return;
  std::this_thread::sleep_for(platform::kFileTimeTick);
  look();
}

void OpenedFile::watchAnew(const std::filesystem::path& path, const char* operation) {
  if (!look()) failure::throwError(path, operation, qvdb::Reason::cannot_read);
  watch();
}

bool OpenedFile::hasChanged() const {
  platform::FileStamp now;
  if (!file_.stamp(&now) || !(now == stamp_)) return true;
  return firstBytes(*source_, format::kNewFileSize) != watched_;
}

qvdb::FileWriter OpenedFile::writer() const {
  const std::optional<platform::LockHolder> holder = file_.writer();
  if (!holder) return {};
  return {
      .is_this_process = holder->isThisProcess, .process = holder->process, .name = holder->name};
}

void OpenedFile::requireUnchanged(const std::filesystem::path& path, const char* operation) const {
  if (!hasChanged()) return;
  failure::throwError(path, operation, qvdb::Reason::in_use, "it was changed meanwhile");
}

}  // namespace qvdbase::survey

namespace qvdb {

std::string to_string(const FileWriter& writer) {
  qvdbase::platform::LockHolder holder;
  holder.isThisProcess = writer.is_this_process;
  holder.process = writer.process;
  holder.name = writer.name;
  return qvdbase::failure::wordsFor(holder);
}

}  // namespace qvdb
