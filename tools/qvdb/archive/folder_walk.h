// Walks inside a folder by the names of imported files, and never out of it.
//
// Every step goes from folder to folder by open descriptors and follows no symbolic link, so that
// neither a name nor a link, old or just written, leads out of it.
#pragma once

#include <string>
#include <string_view>

#include "streams/input.h"

namespace qvdb::tool {

class FolderWalk {
 public:
  // Opens the folder, which may be a symbolic link. Throws Failure.
  explicit FolderWalk(const std::string& path);

  const std::string& path() const { return path_; }
  int root() const { return root_.number(); }

  // The path of a name, for messages.
  std::string pathOf(std::string_view name) const;

  // Goes to the folder that holds the name; returns the last part of the name. Creates missing
  // folders with `make`; without it the result is empty where one is missing. Throws Failure.
  std::string enterParent(const std::string& name, bool make);

  // The folder that was entered last, and its name, with a '/' at its end; empty for the root.
  int parent() const { return parent_.number(); }
  const std::string& parentName() const { return parentName_; }

  // The folder `part` of that folder, created with `make` if it is missing; none when it cannot be
  // opened. `name` is for messages.
  Descriptor openFolder(const std::string& part, const std::string& name, bool make);

 private:
  std::string path_;
  Descriptor root_;
  Descriptor parent_;
  std::string parentName_;
  bool hasParent_ = false;
};

}  // namespace qvdb::tool
