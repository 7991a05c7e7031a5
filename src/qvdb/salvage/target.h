// The new file of a salvage: its place is judged before the work, it is written under a temporary
// name, and put in its place at the end.
#pragma once

#include <qvdbase/qvdb/error.hpp>

#include <filesystem>
#include <string>

#include "qvdb/temporary_file.h"

namespace qvdbase::salvage {

class Target {
 public:
  // Throws qvdb::Error: file_exists when anything is there, path_not_reachable when its folder is
  // not.
  explicit Target(const std::filesystem::path& given);

  // Where to write: an absolute path where nothing is. What is there when the object goes is
  // removed, unless it was placed.
  const std::string& temporary() const { return file_.path(); }

  // Puts the finished file, which the device must have already, in its place and waits until the
  // device has its name. Throws file_exists when the place was taken meanwhile, cannot_write.
  void place();

  // Throws an error that names the new file.
  [[noreturn]] void fail(qvdb::Reason reason) const;
  // The same after a file could not be made, or written: with what the host answered.
  [[noreturn]] void failMaking() const;
  [[noreturn]] void failWriting() const;

 private:
  std::filesystem::path given_;
  std::filesystem::path place_;  // the same, absolute
  qvdb::detail::TemporaryFile file_;
};

}  // namespace qvdbase::salvage
