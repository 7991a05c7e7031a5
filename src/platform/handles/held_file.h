// A file that no other opener writes to, for as long as the object lives: one that is going to be
// replaced.
#pragma once

#include <cstdint>
#include <string>

#include "platform/handles/file_access.h"
#include "platform/handles/file_entries.h"
#include "platform/handles/open_failure.h"

namespace qvdbase::platform {

class HeldFile {
 public:
  HeldFile() = default;
  ~HeldFile();
  HeldFile(const HeldFile&) = delete;
  HeldFile& operator=(const HeldFile&) = delete;

  // Holds the regular file at this absolute path in the host's form. inUse also when this process
  // has it open for writing.
  OpenFailureFound hold(const std::string& path);

  // Only looks at the file, which may then be changed by others: for one that cannot be written.
  bool lookAt(const std::string& path);

  // Looks at a file that this process has open exclusively under that number: that keeps others
  // from writing to it. False for a number that is not in use.
  bool holdOpen(int16_t file);

  // Holds the entry `name` of a folder. A link is none that could be held, fileMissing; everything
  // else that is no regular file is notAFile.
  OpenFailureFound holdEntry(const Directory& folder, const EntryName& name);

  bool isHeld() const { return entry_ != nullptr; }

  // Whether this process has it open elsewhere, if only for reading.
  bool isReadHere() const;

  // How many names it has, or 0 when the host does not report it.
  uint64_t nameCount() const;

  bool access(FileAccess* access) const { return readAccess(descriptorOf(*entry_), access); }

  // Whether `name` is this file, and not a link to it.
  bool isNamed(const Directory& folder, const EntryName& name) const;

 private:
  bool join(const Directory& folder, const EntryName& name);

  FileEntry* entry_ = nullptr;
  Sharing sharing_ = Sharing::exclusive;
};

}  // namespace qvdbase::platform
