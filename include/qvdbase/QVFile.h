// QVDbase: file access by 16-bit path, on file reference numbers with a position of their own.
#ifndef QVDBASE_QVFILE_H
#define QVDBASE_QVFILE_H

#include <qvdbase/base.h>

struct FSRef;

class QVDBASE_API QVFile {
 public:
  QVFile();
  ~QVFile();

  int GetFullPathNamePathW(QVWCHAR* path);
  int GetFullPathNameNameW(QVWCHAR* path);
  int GetRootFSRef(FSRef* root);
  int QVGetParentDirectoryFSRef(const QVWCHAR* directoryPath, FSRef* directory);
  int QVCreateAllDirectory(const QVWCHAR* directoryPath, FSRef* directory);

  int QVCreateFile(const QVWCHAR* path, int failIfPresent);
  int QVCreateAndOpenFile(const QVWCHAR* path, int permission, int16_t* file, int failIfPresent);
  int QVOpenFile(const QVWCHAR* path, int permission, int16_t* file);
  int QVDeleteFile(const QVWCHAR* path);

  int QVReadFile(int16_t file, void* buffer, uint32_t count, uint32_t* actualCount);
  int QVWriteFile(int16_t file, const void* buffer, uint32_t count, uint32_t* actualCount);
  int QVSeekFile(int16_t file, uint16_t mode, int64_t offset);
  int QVGetFilePos(int16_t file, int64_t* position);
  int QVCloseFile(int16_t file);
};

#endif
