// Reads the owner and the extended attributes of a file, and gives them to one.
#pragma once

#include <sys/stat.h>

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "archive/entry_fields.h"

namespace qvdb::tool {

// Throws wrong usage where the system has no extended attributes.
void requireAttributes(const char* option);

class FieldReader {
 public:
  explicit FieldReader(const FieldChoice& chosen) : chosen_(chosen) {}

  // What was chosen of a file, a folder or a link, which is not followed. What cannot be read of
  // it, or has no place in the list, is left out with a line on standard error.
  // `name` is the name that the file is going to have.
  std::string of(const std::string& path, const std::string& name, const struct stat& status);

 private:
  const std::string& userName(uid_t user);
  const std::string& groupName(gid_t group);

  FieldChoice chosen_;
  // Of files with several names: the first one that was met.
  std::map<std::pair<dev_t, ino_t>, std::string> firstNames_;
  std::map<uid_t, std::string> users_;
  std::map<gid_t, std::string> groups_;
};

class FieldWriter {
 public:
  explicit FieldWriter(const FieldChoice& chosen) : chosen_(chosen) {}

  // Each for an open file or folder with these fields. `path` is for messages.
  //
  // Gives it the owner: by name where the system knows it, otherwise by number. It comes before the
  // permissions, because the system takes set-id bits away with it. Throws Failure.
  void setOwner(int file, std::string_view fields, const std::string& path);
  // The same of a symbolic link in a folder.
  void setOwnerOfLink(int folder, const char* name, std::string_view fields,
                      const std::string& path);
  // One that the system refuses is left out with a line on standard error. Attributes that give
  // privileges are for `withPrivileges` only.
  void setAttributes(int file, std::string_view fields, const std::string& path,
                     bool withPrivileges);

  // Whether everything got what was stored of it.
  bool isComplete() const { return refused_ == 0; }

 private:
  struct Numbers {
    uid_t user;
    gid_t group;
  };
  Numbers numbersOf(const FileOwner& owner);

  FieldChoice chosen_;
  // By name; nothing where the system knows none of that name.
  std::map<std::string, std::optional<uid_t>> users_;
  std::map<std::string, std::optional<gid_t>> groups_;
  uint64_t refused_ = 0;
};

}  // namespace qvdb::tool
