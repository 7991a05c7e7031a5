// QVDbase: file access by 16-bit path, on file reference numbers with a position of their own.
//
// The class has no data: make an object wherever one is needed; any two are interchangeable.
// Everything that is open belongs to the process. Any thread may call these functions: those on one
// file take turns, those on different files run side by side.
//
// Results. Functions return 1 for success and 0 for failure, and do not say why something failed.
//
// Paths are zero-terminated UTF-16. Both '/' and the backslash separate. Every path starts at the
// root of the file system, whether or not it begins with a separator: "a/b" is "/a/b", and the
// process's working directory plays no part. The part before the last separator leads through
// directories, the part after it is the name of the file. A path without any separator serves as
// both: "db" is the file "db" in the directory "/db".
//   - Directory names are cleaned before they are looked up: every run of spaces, tabs and double
//     quotes becomes one space, and a space at either end is dropped. A directory whose name is
//     changed by this cannot be reached. The name of a file is taken unchanged.
//   - An empty component means the directory where it occurs: "/a//b/f" is "/a/b/f". "." and ".."
//     mean what they mean to the host, and symbolic links are followed.
//   - Names are turned into UTF-8. One with an unpaired surrogate names nothing.
//   - A path of more than 2,047 characters fails in every function that takes one.
//
// File reference numbers, the handles, run from 1 to 32,767; the lowest free one is used, and 0 is
// never one. Each has its own position, in bytes from the start of the file, and its own
// permission, also when several belong to the same file; all of them see the same bytes. Functions
// on a number that is not in use return 0 and do not write their outputs.
//
// Only regular files can be opened.
//
// A process made by fork shares the files that were open then, and their locks, with its parent:
// only one of the two may work with them. What the other one closes has no effect on that.
#pragma once

#include <qvdbase/base.h>

// What identifies a file or directory: 80 bytes, aligned as a 64-bit number, that are copied by
// value and need not be released. The content has no meaning outside the library.
struct FSRef;

// The functions on files. An object holds nothing, and its end closes nothing.
class QVDBASE_API QVFile {
 public:
  QVFile();   // does nothing
  ~QVFile();  // does nothing: what is open stays open

  // -- Paths

  // Cuts the path in place at its last separator, which leaves the directory part: "/a/b" becomes
  // "/a", "/b" the empty text. A path without a separator is not changed. Returns 1; 0, with the
  // path unchanged, for a null pointer and for a path that is too long.
  int GetFullPathNamePathW(QVWCHAR* path);

  // Replaces the path in place by the text after its last separator: "/a/b" becomes "b", "/a/"
  // the empty text. Returns 1; 0, with the path unchanged, for a null pointer, a path without a
  // separator, and one that is too long.
  int GetFullPathNameNameW(QVWCHAR* path);

  // Stores what identifies the root of the file system. Returns 1; 0, with nothing stored, for a
  // null pointer and when the host refuses.
  int GetRootFSRef(FSRef* root);

  // Walks along a directory path and stores what identifies its end in `directory`, which may be
  // null. The end may be something other than a directory; what comes before it may not.
  // Returns 1; 0, with nothing stored, for a null or too long path, and when a component is missing
  // or cannot be passed.
  int QVGetParentDirectoryFSRef(const QVWCHAR* directoryPath, FSRef* directory);

  // Walks as QVGetParentDirectoryFSRef does, and creates every directory that is missing.
  // Returns 1. Returns 0 for a null or too long path, and when a component can be neither created
  // nor entered; the directories created before it stay then.
  int QVCreateAllDirectory(const QVWCHAR* directoryPath, FSRef* directory);

  // -- Files

  // Makes sure that the file exists and is empty. Directories that are missing are created, and so
  // is the file; a file that holds bytes is emptied.
  //
  // failIfPresent  with 1 nothing is emptied, and the function returns 0 whenever the file can be
  //                opened as with permission 4, which includes one that it has just created. The
  //                file exists afterwards in any case. Any other value is as 0.
  //
  // Returns 1 when the file is there and empty. Returns 0 for a null or too long path, when the
  // directories or the file cannot be created, when the path names something other than a file, or
  // a symbolic link whose target is missing, and when the file holds bytes and cannot be emptied:
  // this process has it open, another process holds a lock on it (permissions 2, 3, 4), or it is
  // not writable. Its bytes are unchanged then. What was created stays.
  int QVCreateFile(const QVWCHAR* path, int failIfPresent);

  // Does what QVCreateFile and then QVOpenFile do. Returns 1 and stores the handle when both
  // succeed; else returns 0, with `file` unwritten. When only opening fails, the file stays, empty.
  int QVCreateAndOpenFile(const QVWCHAR* path, int permission, int16_t* file, int failIfPresent);

  // Opens an existing file and stores its handle; the position is 0.
  //
  // permission  what to do with the file, and which other openers are allowed; its low 8 bits as
  //             a signed value
  //             0     the most that can be obtained: as 4, or else as 1
  //             1     read; it excludes no other opener, and none excludes it
  //             2, 3  read and write, and exclude every other writer
  //             4     read and write beside others with 4; writers take turns by other means
  //
  // Between processes a lock on the file enforces this, among programs that take such locks. Inside
  // one process only a second opener with 2 or 3 is refused: openers with 4 and 0 are allowed
  // beside one with 2 or 3. The lock is the strongest that the process's openers need at the time.
  //
  // Returns 1. Returns 0, with `file` unwritten, for null pointers, a path that is too long, a file
  // that is missing or no regular file, another permission, one that cannot be granted now, and
  // when all 32,767 numbers are in use.
  int QVOpenFile(const QVWCHAR* path, int permission, int16_t* file);

  // Deletes the contents of a file; the file itself stays, empty. Returns 1. Returns 0, and changes
  // nothing, for a null or too long path, a file that is missing or no regular file, and while this
  // process has it open or another process holds a lock on it, even if it is empty already.
  int QVDeleteFile(const QVWCHAR* path);

  // -- Transfers and positions

  // Reads `count` bytes at the position into `buffer`, and moves the position after what was read.
  // The number of bytes read is stored in `actualCount`, which may be null. Returns 1 when all of
  // them were read. Returns 0 when the file ends before (what there was is in the buffer, and the
  // position is at the end) or the host fails; and, with nothing stored, for a handle that is not
  // in use and for a null buffer with a count above 0.
  int QVReadFile(int16_t file, void* buffer, uint32_t count, uint32_t* actualCount);

  // Writes `count` bytes at the position, and moves the position after what was written. The file
  // grows as needed; a gap between its end and the position reads as zeros. The number of bytes
  // written is stored in `actualCount`, which may be null. Returns 1 when all of them were written:
  // they are with the operating system then. Returns 0 when the write is cut short, as on a full
  // disk, and when the handle is only for reading; and, with nothing stored, for a handle that is
  // not in use and for a null buffer with a count above 0.
  int QVWriteFile(int16_t file, const void* buffer, uint32_t count, uint32_t* actualCount);

  // Sets the position, which may be beyond the end of the file.
  //
  // mode  0  the position is not changed, the offset is ignored
  //       1  offset bytes from the start
  //       2  offset bytes from the end; negative ones are before it
  //       3  offset bytes from the present position, either way
  //
  // Returns 1. Returns 0, with the position unchanged, for a handle that is not in use, another
  // mode, and a position below 0 or above 2^63 - 1.
  int QVSeekFile(int16_t file, uint16_t mode, int64_t offset);

  // Stores the position. Returns 1; 0, with nothing stored, for a handle that is not in use and for
  // a null pointer.
  int QVGetFilePos(int16_t file, int64_t* position);

  // Closes the handle, whose number is free from then on. Returns 1; 0 for a handle that is not in
  // use, and when the host reports an error on closing (the number is free then too).
  int QVCloseFile(int16_t file);
};
