// Opening a file to look at it, and noticing that it changed.
#include "qvdb/raw/open_file.h"

#include <qvdbase/qvdb/error.hpp>

#include <string>
#include <vector>

namespace qvdbase::raw {
namespace {

[[noreturn]] void refuse(const std::filesystem::path& path, const char* operation,
                         qvdb::Reason reason) {
  throw qvdb::Error(
      operation, reason,
      path.native() + ": cannot " + operation + ": " + std::string(qvdb::to_string(reason)));
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
  if (!file_.stamp(&stamp_)) refuse(path, operation, qvdb::Reason::cannot_open);
  source_.emplace(file_, stamp_.size);
  watched_ = firstBytes(*source_, kWatchedSize);
}

bool OpenedFile::hasChanged() const {
  platform::FileStamp now;
  if (!file_.stamp(&now) || !(now == stamp_)) return true;
  return firstBytes(*source_, kWatchedSize) != watched_;
}

}  // namespace qvdbase::raw
