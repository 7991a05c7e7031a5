// A folder of our own beside the place of a new file, for routines that make a file by its path:
// no other user can put anything under that path, or read what is there.
//
// Another user who may write to the folder around it cannot enter ours, but can rename it and give
// its name to a folder of his own. So a routine gets a path that leads through our descriptor.
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

  // Makes it beside this absolute path in the host's form, in which no component is a link.
  // False with the last failure of the host (host_failure.h).
  bool make(const std::string& place);

  // Whether make() failed because only its name leads to the folder, which other users could give
  // to a folder of their own.
  bool isExposed() const { return isExposed_; }

  // The path of the file by the names of folders, in which no component is empty.
  const std::string& filePath() const { return filePath_; }

  // The path for a routine: through the descriptor where the host has such paths, else by names
  // that no other user can change.
  const std::string& routinePath() const { return routinePath_; }

  // Opens the file, which must be there, exclusively. Null when it cannot.
  FileEntry* joinFile() const;

  int descriptor() const { return folder_.descriptor(); }

  // The folder in which it was made.
  int parentDescriptor() const { return parent_.descriptor(); }

 private:
  bool fail();
  bool isOurs();
  bool isReachedThrough(const std::string& path) const;
  bool choosePath(const std::string& place);

  Directory parent_;
  Directory folder_;
  bool isOpen_ = false;  // folder_ is the private one
  bool isExposed_ = false;
  uid_t owner_ = 0;  // of what this process makes there
  ProcessMark maker_;
  std::string name_;
  std::string filePath_;
  std::string routinePath_;
};

}  // namespace qvdbase::platform
