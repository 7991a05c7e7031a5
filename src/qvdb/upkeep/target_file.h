// The target of an operation that makes a database file: judged before the work, written under a
// temporary name beside its place, and put there in one step at the end.
#pragma once

#include <qvdbase/qvdb/database.hpp>
#include <qvdbase/qvdb/error.hpp>

#include <cstdint>
#include <filesystem>
#include <string>

#include "platform/host_failure.h"
#include "qvdb/temporary_file.h"

namespace qvdb::detail {

// Throws an Error of this operation on this file.
[[noreturn]] void failOn(const std::filesystem::path& path, const char* operation, Reason reason,
                         const std::string& why);

// The file that a path leads to: absolute, symbolic links followed as far as they exist.
std::filesystem::path resolved(const std::filesystem::path& path, const char* operation);

// A file that nobody else has open for writing, for as long as the object lives.
class HeldFile {
 public:
  HeldFile() = default;
  // Throws Error as Database::open does for a file that cannot be had exclusively; in_use also when
  // this process has it open in another place. The file need not be a database.
  HeldFile(const std::filesystem::path& path, const char* operation);

 private:
  Database file_;
};

class TargetFile {
 public:
  // Throws file_exists when the target is there and must not be replaced, not_a_file for a folder
  // or device, in_use when somebody has it open for writing.
  TargetFile(const std::filesystem::path& target, const char* operation, bool overwrite);

  // As it was named.
  const std::filesystem::path& given() const { return given_; }

  // Where to write: an absolute path in the target's folder, where nothing is. Missing folders are
  // made.
  const std::string& temporary() const { return temporary_.path(); }

  // Puts the finished file, which the device must have already, in its place and waits until the
  // device has its name. Throws file_exists when the place was taken meanwhile, cannot_write.
  void place();

  // After a file could not be made: throws what the host answered, such as access_denied.
  [[noreturn]] void failMaking() const;

  // After a write that failed: throws what the host answered, such as disk_full, or cannot_write.
  [[noreturn]] void failWriting() const;
  [[noreturn]] void failWriting(const qvdbase::platform::WriteFailure& found) const;

 private:
  std::filesystem::path given_;
  std::string place_;
  const char* operation_;
  bool replaces_ = false;
  TemporaryFile temporary_;
  HeldFile replaced_;
};

}  // namespace qvdb::detail
