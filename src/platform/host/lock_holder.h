// Who holds a lock on a file, as far as the host lets this process know.
#pragma once

#include <sys/types.h>

#include <cstddef>

namespace qvdbase::platform {

// Entries of the table of system calls; see there.
pid_t hostLockHolder(dev_t device, ino_t inode, off_t end);
bool hostProcessName(pid_t process, char* name, size_t size);
const char* hostFileSystem(int descriptor);

}  // namespace qvdbase::platform
