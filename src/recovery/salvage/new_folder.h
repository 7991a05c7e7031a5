// A folder for files of a salvage beside the new database.
#pragma once

#include <qvdbase/qvdb/error.hpp>

#include <filesystem>
#include <string>
#include <vector>

#include "platform/host/process_mark.h"

namespace qvdbase::salvage {

class NewFolder {
 public:
  // The folder may be there already. Nothing is made yet.
  explicit NewFolder(const std::filesystem::path& path) : path_(path) {}

  // Removes what was made, unless keep() was called or another process made it.
  ~NewFolder();
  NewFolder(const NewFolder&) = delete;
  NewFolder& operator=(const NewFolder&) = delete;

  const std::filesystem::path& path() const { return path_; }
  std::filesystem::path fileNamed(const std::string& name) const { return path_ / name; }

  // Throws qvdb::Error (file_exists) of this operation when anything has the name of that file.
  void requireFree(const std::string& name, const char* operation) const;

  // Makes the folder, and with `parents` those that are missing in its path. Throws qvdb::Error of
  // this operation: path_not_reachable, what the host answers, and `reason` when something that is
  // no folder has the name.
  void make(const char* operation, bool parents, qvdb::Reason reason);

  // To be called for each file that has been made.
  void add(const std::string& name) { made_.push_back(path_ / name); }
  void keep() { isKept_ = true; }

 private:
  const std::filesystem::path path_;
  std::vector<std::filesystem::path> made_;  // folders, outermost first, and then files
  bool isKept_ = false;
  platform::ProcessMark maker_;
};

// Whether anything has that name. A link that leads nowhere counts, too.
bool isTaken(const std::filesystem::path& path);

}  // namespace qvdbase::salvage
