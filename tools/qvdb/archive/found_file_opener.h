// Opens the files that an import has listed.
#pragma once

#include <string>

#include "archive/file_tree.h"
#include "streams/failure.h"
#include "streams/input.h"

namespace qvdb::tool {

// Thrown for a file that has disappeared since it was listed.
class Disappeared : public Failure {
  using Failure::Failure;
};

// Opens exactly the files that were listed, also when another user can change their folders
// meanwhile: below the PATH that the user named no symbolic link is followed, and a file in the
// place of the one that was listed is refused.
class FoundFileOpener {
 public:
  // Opens the file for reading and fills `status`. Throws Failure; Disappeared.
  Descriptor open(const FoundFile& found, struct stat* status);

 private:
  void enterFolder(const std::string& folder, size_t named);

  Descriptor folder_;  // that of the file before
  std::string path_;   // its path; empty for none
};

}  // namespace qvdb::tool
