// Whether the lock on a file keeps others out.
//
// Some file systems grant every lock and exclude no other opener: those that are reached through a
// network or made by a program can be mounted so. A second description of the file is a stranger to
// the lock of the first one, as another process is, and shows it. Local file systems are not asked.
#pragma once

#include <cstdint>
#include <string>

#include "platform/handles/file_entries.h"

namespace qvdbase::platform {

// The kind of file system whose lock on this file, which has that name, has no effect. Null where
// it works, where none is held, and where that cannot be found out: the name leads to another file,
// or locks belong to the process, which is no stranger to them.
const char* fileSystemWithoutLocks(const FileEntry& entry, const Directory& directory,
                                   const EntryName& name);

// The same for an open file at this path, absolute and in the host's form.
const char* fileSystemWithoutLocks(int16_t file, const std::string& path);

}  // namespace qvdbase::platform
