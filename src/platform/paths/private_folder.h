// A folder of our own beside the place of a new file, for routines that make a file by its path:
// no other user can put anything under that path, or read what is there.
#pragma once

#include <string>

#include "platform/handles/file_entries.h"
#include "platform/host/process_mark.h"
#include "platform/paths/directory.h"

namespace qvdbase::platform {

class PrivateFolder {
 public:
  // The one file that is made in it.
  static constexpr const char* kFileName = "database";

  PrivateFolder() = default;
  // Removes the folder and the file in it, unless another process made it.
  ~PrivateFolder();
  PrivateFolder(const PrivateFolder&) = delete;
  PrivateFolder& operator=(const PrivateFolder&) = delete;

  // Makes it beside this absolute path in the host's form.
  // False with the last failure of the host (host_failure.h).
  bool make(const std::string& place);

  // The path of the file, in which no component is empty.
  const std::string& filePath() const { return filePath_; }

  // Opens the file, which must be there, exclusively. Null when it cannot.
  FileEntry* joinFile() const;

  int descriptor() const { return folder_.descriptor(); }

 private:
  Directory parent_;
  Directory folder_;
  bool isOpen_ = false;  // folder_ is the private one
  ProcessMark maker_;
  std::string name_;
  std::string filePath_;
};

}  // namespace qvdbase::platform
