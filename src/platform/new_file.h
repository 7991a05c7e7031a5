// A file that is being made: created where nothing was, open to nobody else, written at any
// position straight to the host.
#ifndef QVDBASE_PLATFORM_NEW_FILE_H
#define QVDBASE_PLATFORM_NEW_FILE_H

#include <cstddef>
#include <cstdint>
#include <string>

#include "platform/read_only_file.h"

namespace qvdbase::platform {

class NewFile {
 public:
  NewFile() = default;
  ~NewFile();
  NewFile(const NewFile&) = delete;
  NewFile& operator=(const NewFile&) = delete;

  // Creates the file at this absolute path, in UTF-8. Fails when anything is there.
  bool create(const std::string& path);

  // Gives it another file's permissions, and its owner and group where the host allows that.
  bool setAccess(const FileAccess& access);

  // True when all bytes were written; why not is the last failure of the host (host_failure.h).
  bool writeAt(int64_t position, const void* bytes, size_t count);

  // Hands everything to the device and closes the file. True when both succeeded.
  bool finish();

 private:
  FileEntry* entry_ = nullptr;
};

}  // namespace qvdbase::platform

#endif
