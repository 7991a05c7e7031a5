// A file on its way: made under a temporary name beside its place, and put there in one step.
#pragma once

#include <filesystem>
#include <string>

#include "platform/placing.h"
#include "platform/process_mark.h"

namespace qvdb::detail {

class TemporaryFile {
 public:
  // `place` is an absolute path. Nothing is made yet.
  explicit TemporaryFile(const std::filesystem::path& place);

  // Removes what is under the temporary name, unless it was placed or another process made it.
  ~TemporaryFile();
  TemporaryFile(const TemporaryFile&) = delete;
  TemporaryFile& operator=(const TemporaryFile&) = delete;

  // Where to write: an absolute path in the folder of the place, where nothing is.
  const std::string& path() const { return path_; }

  // Puts the file, which the device must have already, in its place. With `replaces`, a file that
  // is there makes way in the same moment. The device need not have the new name yet.
  qvdbase::platform::Placing place(bool replaces);

 private:
  std::string place_;
  std::string path_;
  bool isPlaced_ = false;
  qvdbase::platform::ProcessMark maker_;
};

}  // namespace qvdb::detail
