// A place in the host's tree of directories: the one where a walk along a path has arrived.
//
// Each step opens the next component inside the one before, so a path as a whole is never given to
// the host and its limit on one path string does not matter. One descriptor is held at a time.
#pragma once

#include "platform/paths/fs_ref.h"
#include "platform/paths/utf8_names.h"

namespace qvdbase::platform {

class Directory {
 public:
  Directory() = default;
  ~Directory();
  Directory(const Directory&) = delete;
  Directory& operator=(const Directory&) = delete;

  // Goes to the root of the file system.
  bool enterRoot();

  // Goes to the entry `name`, following symbolic links; an empty name stays. The last step of a
  // walk may end on something that is no directory: it has an identity, but leads nowhere further.
  // On failure the place is unchanged.
  bool enter(const EntryName& name);

  // Goes to the entry `name`, which must be a directory and no link.
  bool enterNoLink(const EntryName& name);

  // Goes to a directory that the caller has open.
  bool enterOpen(int descriptor);

  // Makes the directory `name` here. Fails when an entry of that name is there already.
  bool makeDirectory(const EntryName& name) const;

  // Stores what identifies this place. On failure `ref` is not written.
  bool identify(FSRef* ref) const;

  // For the calls of this layer that resolve a name here. Negative when this is no directory.
  int descriptor() const { return descriptor_; }

 private:
  bool moveTo(int descriptor);
  bool moveToLeaf(const EntryName& name);

  int descriptor_ = -1;
  bool isLeaf_ = false;
  FSRef leaf_ = {};  // identifies the place when it is no directory
};

}  // namespace qvdbase::platform
