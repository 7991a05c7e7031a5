// Writes files into a folder, and nowhere else, whatever their names say.
#pragma once

#include <sys/stat.h>
#include <sys/types.h>

#include <filesystem>
#include <set>
#include <string>
#include <vector>

#include "archive/file_fields.h"
#include "archive/folder_walk.h"
#include "archive/imported_files.h"
#include "streams/delivery.h"

namespace qvdb::tool {

struct FolderOptions {
  bool force = false;            // replace what exists
  bool parents = false;          // create missing folders in the path
  bool samePermissions = false;  // ignore the umask, and restore set-id bits
  FieldChoice fields = {};       // what else is restored
  bool noSync = false;           // do not wait for the device
  std::string database = {};     // the file that is never replaced: where everything comes from
};

// A file that was written.
struct FileIdentity {
  dev_t device = 0;
  ino_t inode = 0;
};

class FolderWriter {
 public:
  // Opens the folder, which may be a symbolic link, or creates it. Throws Failure.
  FolderWriter(const std::string& path, const FolderOptions& options);

  // Whether nothing was in the folder when it was opened.
  bool wasEmpty() const { return wasEmpty_; }

  // Throws Failure when the name is not safe, or something of that name prevents the writing: for a
  // file or a link anything (unless force is set and it is not a folder), for a folder anything but
  // a folder, a file with several hard links, the database itself.
  void check(const ImportedFile& file);

  // Each throws Failure; a half-written file is removed. Missing folders in a name are created.
  void makeFolder(const std::string& name);
  FileIdentity writeFile(const ImportedFile& file, const PieceReader& read);
  void makeLink(const ImportedFile& file);

  // Makes the file another name of one that was written before, and is still the same one. False,
  // and nothing is made, where it is another one now or the file system refuses.
  bool makeHardLink(const ImportedFile& file, const ImportedFile& first,
                    const FileIdentity& identity);

  // Waits until the device has the names of all that was written.
  void sync();

  // Sets permissions, times and fields of a folder. To be called last, and from the bottom up.
  void finishFolder(const ImportedFile& file);

  // Whether everything that was written got the attributes and the names that are stored of it.
  bool isComplete() const { return fields_.isComplete() && refusedLinks_ == 0; }

 private:
  bool isDatabase(const struct stat& status) const;
  void noteWritten();

  mode_t modeOf(const ImportedFile& file, const struct stat& status) const;
  void setFields(int opened, const ImportedFile& file, const std::string& path);
  FileIdentity setMode(int opened, const ImportedFile& file, const std::string& path);

  FolderOptions options_;
  mode_t masked_;                               // the permissions that new files do not get
  std::vector<std::filesystem::path> parents_;  // those that got new folders for this one
  FolderWalk walk_;
  bool wasEmpty_;
  FieldWriter fields_;
  uint64_t refusedLinks_ = 0;
  std::set<std::string> written_;  // the folders that got new names, as FolderWalk::parentName()
};

}  // namespace qvdb::tool
