// Makes the files of an export that were names of one file names of one file again.
#pragma once

#include <sys/types.h>

#include <functional>
#include <string>
#include <unordered_map>
#include <unordered_set>

#include "archive/folder_writer.h"
#include "archive/imported_entry.h"
#include "streams/delivery.h"

namespace qvdb::tool {

// Each of them has its own record, so that changing or deleting one of them concerns no other. They
// become one file only where all of it is the same: contents, permissions, time, fields.
class HardLinks {
 public:
  // Reads the contents of a file once more, from their beginning.
  using Contents = std::function<PieceReader()>;

  // Does nothing unless it is `wanted`.
  HardLinks(bool wanted, FolderWriter& writer) : wanted_(wanted), writer_(writer) {}

  // To be called for each file of the list first: says which are names of one file.
  void note(const ImportedFile& file);

  // Makes the file another name of one that was written before. False where there is none, where it
  // differs, and where the file system refuses; then it is to be written.
  bool link(const ImportedFile& file, const Contents& contents);

  // The file was written, as what writeFile() returned.
  void noteWritten(const ImportedFile& file, const FileIdentity& identity,
                   const Contents& contents);

 private:
  struct Written {
    ImportedFile file;
    FileIdentity identity;
    Contents contents;
  };

  const bool wanted_;
  FolderWriter& writer_;
  std::unordered_set<std::string> groups_;  // each named as the first of its files was
  std::unordered_map<std::string, Written> written_;
};

}  // namespace qvdb::tool
