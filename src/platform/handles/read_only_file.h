// A file, or a block device, opened by its host path for nothing but reading, at any position,
// straight from the host: no handle number, no shared position, no mapping (a file cut short
// meanwhile gives short reads).
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

#include "platform/handles/file_access.h"
#include "platform/handles/file_changes.h"
#include "platform/handles/file_entries.h"
#include "platform/handles/open_failure.h"

namespace qvdbase::platform {

// A part of a file that is not stored.
struct FileHole {
  int64_t begin = 0;
  int64_t end = 0;
};

// What a path names.
enum class PathKind : uint8_t { nothing, regularFile, blockDevice, somethingElse };
PathKind kindOfPath(const std::string& path);

class ReadOnlyFile {
 public:
  ReadOnlyFile() = default;
  ~ReadOnlyFile();
  ReadOnlyFile(const ReadOnlyFile&) = delete;
  ReadOnlyFile& operator=(const ReadOnlyFile&) = delete;

  // Opens the regular file or block device at this absolute path, in UTF-8. Takes no lock and
  // ignores those of others.
  bool open(const std::string& path);
  // Reads a file of this process, which keeps it open meanwhile, through the descriptor that it
  // has.
  void share(FileEntry* entry);
  bool isOpen() const { return entry_ != nullptr || device_ >= 0; }

  bool isDevice() const { return device_ >= 0; }

  // Reads up to `count` bytes at `position` and returns how many there were; fewer come at the end
  // of the file and where the host cannot read.
  size_t readAt(int64_t position, void* buffer, size_t count) const;

  // The first hole, bytes that were never stored and read as zeros, that ends after `position`.
  // False when there is none before `size`, the file's, or the host does not report it.
  bool nextHole(int64_t position, int64_t size, FileHole* hole) const;

  // Its length and when it was changed; the descriptor stays this object's.
  bool stamp(FileStamp* stamp) const;
  int descriptor() const { return entry_ != nullptr ? descriptor_ : device_; }
  bool access(FileAccess* access) const { return readAccess(descriptor(), access); }

  // Whether another process holds a lock on the file, as every process does that has it open for
  // writing.
  bool isLockedByOthers() const;

  // Who has it open for writing: another process, else this one. Nothing where neither has.
  std::optional<LockHolder> writer() const;

 private:
  void use(FileEntry* entry);

  FileEntry* entry_ = nullptr;
  int descriptor_ = -1;  // the entry's
  int device_ = -1;      // the descriptor of a block device
};

}  // namespace qvdbase::platform
