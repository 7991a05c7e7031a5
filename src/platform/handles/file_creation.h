// Making files and emptying them.
#pragma once

#include <sys/types.h>

#include "platform/paths/directory.h"

namespace qvdbase::platform {

// Whether `name`, symbolic links followed, names anything.
bool entryExists(const Directory& directory, const EntryName& name);

// Makes the file `name`, empty. Fails when an entry of that name is there, even a symbolic link
// whose target is missing.
bool createFile(const Directory& directory, const EntryName& name);

// The same, and opens it for reading and writing, with this mode less what the process masks out.
// Returns the descriptor or -1.
int createOpenFile(const Directory& directory, const EntryName& name, mode_t mode);

// Empties the regular file `name`. Fails, changing nothing, while this process has it open or
// another process holds a lock on it; also when the file is empty already.
bool emptyFile(const Directory& directory, const EntryName& name);

// Whether `name` is a regular file that holds no bytes.
bool isEmptyFile(const Directory& directory, const EntryName& name);

}  // namespace qvdbase::platform
