// The calls to the host with which a folder of backups is kept, in a table that a test can replace:
// to make them fail, or to end the process at one of them. Each is the host's function of about the
// same name.
#pragma once

#include <dirent.h>
#include <sys/stat.h>
#include <sys/types.h>

#include <cstddef>

namespace qvdb::tool {

struct FolderCalls {
  int (*openAt)(int folder, const char* name, int flags);
  int (*makeFolder)(int folder, const char* name, mode_t mode);
  int (*lock)(int file, int operation);
  DIR* (*openEntries)(int folder);
  dirent* (*nextEntry)(DIR* entries);  // null with errno 0 at the end
  int (*status)(int file, struct stat* status);
  int (*statusAt)(int folder, const char* name, struct stat* status);  // follows no link
  ssize_t (*read)(int file, void* to, size_t size);
  int (*changeMode)(int file, mode_t mode);
  int (*rename)(int from, const char* name, int to, const char* newName);
  int (*remove)(int folder, const char* name);
  int (*sync)(int file);
  int (*syncAll)(int file);  // the file system that it is in
};

FolderCalls hostFolderCalls();

// What is used.
extern FolderCalls folderCalls;

}  // namespace qvdb::tool
