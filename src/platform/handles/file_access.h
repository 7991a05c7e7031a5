// Who may do what with a file, and what users have attached to it: read from one file and given to
// another that replaces it or was made from it.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace qvdbase::platform {

struct FileAttribute {
  std::string name;
  std::string value;
};

struct FileAccess {
  uint32_t mode = 0;  // the permissions of owner, group and others: the low nine bits
  uint32_t owner = 0;
  uint32_t group = 0;
  std::string accessList;                 // in the host's form; empty when the mode is all there is
  std::vector<FileAttribute> attributes;  // of users
};

// False when the host does not report all of it.
bool readAccess(int descriptor, FileAccess* access);

// Gives it to a file that this process has just made and that only its owner can read yet. Never
// more than `access` grants: where the group cannot be kept its rights go, and others then keep no
// right that the group did not have; bits by which a program runs in its owner's name are never
// given. The owner is kept where the host allows it. False when access list or attributes cannot be
// kept, or the mode cannot be set.
bool giveAccess(int descriptor, const FileAccess& access);

}  // namespace qvdbase::platform
