// Lists the files, folders and symbolic links of an import.
#pragma once

#include <sys/stat.h>

#include <string>
#include <vector>

#include "archive/entry_fields.h"
#include "archive/imported_files.h"
#include "selection/excluded.h"

namespace qvdb::tool {

struct FoundFile {
  ImportedFile file;  // without a record
  std::string path;   // where it is now; empty for a folder or a link, which are not read again
  // When it was looked at; device and inode identify it when it is opened.
  uint64_t size = 0;
  dev_t device = 0;
  ino_t inode = 0;
  bool isStored = false;  // the table has the contents already: only mode and times are stored
};

// A PATH of an import, and the first part of the names below it; empty for a folder's contents.
struct FoundRoot {
  std::string path;
  std::string name;
  bool isFolder = false;
  bool isEmpty = false;  // nothing is in it
};

struct FileTree {
  std::vector<FoundFile> files;  // folders before what is in them, each folder in order of names
  std::vector<std::string> leftOut;  // what is not a file, folder or link, and the database
  std::vector<FoundRoot> roots;
  FieldChoice fields;  // what the files have in their fields
};

// Lists PATHs with everything below them. A PATH gives its last part as the first part of the
// names; one that ends in '/' or '/.', or is '.', means the contents of the folder. Symbolic links
// are not followed (except such a PATH), folders of other file systems are entered.
//
// `database` is left out if it is among the files, and so is what is excluded. What disappears from
// a folder meanwhile counts as if it had never been there. Owners and attributes are read of each
// file if they are chosen. Throws Failure when a path cannot be
// read, and when two of them give the same name; Interrupted.
FileTree listFiles(const std::vector<std::string>& paths, const std::string& database,
                   const Excluded& excluded = {}, const FieldChoice& fields = {});

// What the system reports about a file, in our form.
ImportedFile propertiesOf(const struct stat& status, std::string name);

}  // namespace qvdb::tool
