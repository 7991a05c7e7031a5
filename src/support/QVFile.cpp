// QVFile: files by 16-bit path, transfers and positions by file reference number.
//
// A path is split at its last separator. Its directory part is walked component by component from
// the root of the file system, each name cleaned; its last part, the name, is taken unchanged. The
// rest is the platform layer's work.
#include <qvdbase/QVFile.h>
#include <qvdbase/QVWString.h>

#include "platform/handles/file_creation.h"
#include "platform/handles/open_files.h"
#include "platform/host/cancellation.h"
#include "platform/paths/directory.h"
#include "platform/paths/utf8_names.h"
#include "platform/transfer/transfer.h"
#include "support/file_transfers.h"

using namespace qvdbase;

namespace {

using platform::Directory;
using platform::EntryName;
using platform::kMaxPathCharacters;

// The longest path and its terminator.
constexpr size_t kPathCapacity = kMaxPathCharacters + 1;

constexpr QVWCHAR kBackslash[] = {'\\', 0};
constexpr QVWCHAR kSlash[] = {'/', 0};

bool isTooLong(const QVWCHAR* path) {
  return QVWString().wcsnlen(path, kPathCapacity) > static_cast<int>(kMaxPathCharacters);
}

// The index of the last separator, or -1.
int lastSeparator(const QVWCHAR* path) {
  int i = QVWString().wcslen(path) - 1;
  while (i >= 0 && path[i] != '\\' && path[i] != '/') --i;
  return i;
}

// One step of a walk: goes from `place` to the entry of that name.
using Step = bool (*)(Directory& place, const EntryName& name);

bool enterExisting(Directory& place, const EntryName& name) {
  return place.enter(name);
}

// Creating mostly fails because the directory exists already, which is as good.
bool enterOrCreate(Directory& place, const EntryName& name) {
  place.makeDirectory(name);
  return place.enter(name);
}

// Cleans the `length` characters at `component` and makes the step that they name.
bool takeStep(Directory& place, const QVWCHAR* component, int length, Step step) {
  QVWCHAR name[kPathCapacity];
  QVWString().wcsncpy(name, component, static_cast<uint32_t>(length));
  name[length] = 0;
  QVWString().TrimPlus(name);
  return step(place, EntryName(name));
}

// Goes from the root along a directory path of at most kMaxPathCharacters characters.
//
// A component begins with the separator before it, which the cleaning removes. After a separator
// the search for the next one leaves out one character: so the second of a doubled separator begins
// the next component instead of making an empty one.
bool walk(const QVWCHAR* directoryPath, Directory& place, Step step) {
  QVWString string;
  QVWCHAR path[kPathCapacity];
  string.wcscpy(path, directoryPath);
  string.Replace(path, kBackslash, kSlash);
  if (!place.enterRoot()) return false;
  const int length = string.wcslen(path);
  int start = 0;
  int from = 1;
  for (;;) {
    const int separator = string.Find(path, kSlash, from);
    const int end = separator >= 0 ? separator : length;
    if (!takeStep(place, path + start, end - start, step)) return false;
    if (separator < 0) return true;
    start = separator;
    from = separator + 2;
  }
}

int walkTo(const QVWCHAR* directoryPath, FSRef* directory, Step step) {
  if (directoryPath == nullptr || isTooLong(directoryPath)) return 0;
  const platform::Uncancelled uncancelled;
  Directory place;
  if (!walk(directoryPath, place, step)) return 0;
  if (directory == nullptr) return 1;
  return place.identify(directory) ? 1 : 0;
}

// What a path names: the directory that holds the file, and the file's name in it. A path without
// any separator serves as both: "db" is the file "db" in the directory "/db". For as long as it is
// at work with them, the thread is not cancelled.
class Location {
 public:
  Location(const QVWCHAR* path, Step step) : found_(path != nullptr && find(path, step)) {}

  bool wasFound() const { return found_; }
  const Directory& directory() const { return directory_; }
  EntryName name() const { return EntryName(name_); }

 private:
  bool find(const QVWCHAR* path, Step step) {
    if (isTooLong(path)) return false;
    QVWCHAR directoryPath[kPathCapacity];
    QVWString().wcscpy(directoryPath, path);
    QVFile().GetFullPathNamePathW(directoryPath);
    if (!walk(directoryPath, directory_, step)) return false;
    QVWString().wcscpy(name_, path);
    QVFile().GetFullPathNameNameW(name_);
    return true;
  }

  const platform::Uncancelled uncancelled_;
  Directory directory_;
  QVWCHAR name_[kPathCapacity];
  bool found_;
};

// Opens the file for a moment to learn whether it can be opened for shared writing.
bool canBeOpened(const Directory& directory, const EntryName& name) {
  int16_t probe = 0;
  if (!platform::openFile(directory, name, 4, &probe)) return false;
  platform::closeFile(probe);
  return true;
}

}  // namespace

QVFile::QVFile() = default;
QVFile::~QVFile() = default;

int QVFile::GetFullPathNamePathW(QVWCHAR* path) {
  if (path == nullptr || isTooLong(path)) return 0;
  const int separator = lastSeparator(path);
  if (separator >= 0) path[separator] = 0;
  return 1;
}

int QVFile::GetFullPathNameNameW(QVWCHAR* path) {
  if (path == nullptr || isTooLong(path)) return 0;
  const int separator = lastSeparator(path);
  if (separator < 0) return 0;
  QVWCHAR name[kPathCapacity];
  QVWString().wcscpy(name, path + separator + 1);
  QVWString().wcscpy(path, name);
  return 1;
}

int QVFile::GetRootFSRef(FSRef* root) {
  Directory place;
  return root != nullptr && place.enterRoot() && place.identify(root) ? 1 : 0;
}

int QVFile::QVGetParentDirectoryFSRef(const QVWCHAR* directoryPath, FSRef* directory) {
  return walkTo(directoryPath, directory, enterExisting);
}

int QVFile::QVCreateAllDirectory(const QVWCHAR* directoryPath, FSRef* directory) {
  return walkTo(directoryPath, directory, enterOrCreate);
}

int QVFile::QVCreateFile(const QVWCHAR* path, int failIfPresent) {
  const Location location(path, enterOrCreate);
  if (!location.wasFound()) return 0;
  const Directory& directory = location.directory();
  const EntryName name = location.name();
  if (!platform::entryExists(directory, name) && !platform::createFile(directory, name)) return 0;
  if (canBeOpened(directory, name)) {
    // A file that was created just now counts as present.
    if (failIfPresent == 1) return 0;
    platform::emptyFile(directory, name);
  }
  // This shows whether emptying succeeded: a database in use still holds its bytes.
  return platform::isEmptyFile(directory, name) ? 1 : 0;
}

int QVFile::QVCreateAndOpenFile(const QVWCHAR* path, int permission, int16_t* file,
                                int failIfPresent) {
  if (QVCreateFile(path, failIfPresent) != 1) return 0;
  return QVOpenFile(path, permission, file);
}

int QVFile::QVOpenFile(const QVWCHAR* path, int permission, int16_t* file) {
  if (file == nullptr) return 0;
  const Location location(path, enterExisting);
  if (!location.wasFound()) return 0;
  return platform::openFile(location.directory(), location.name(), permission, file) ? 1 : 0;
}

int QVFile::QVDeleteFile(const QVWCHAR* path) {
  const Location location(path, enterExisting);
  if (!location.wasFound()) return 0;
  return platform::emptyFile(location.directory(), location.name()) ? 1 : 0;
}

int QVFile::QVReadFile(int16_t file, void* buffer, uint32_t count, uint32_t* actualCount) {
  const platform::Turn turn(file);
  if (platform::findOpenFile(file) == nullptr) return 0;
  uint32_t unused = 0;
  uint32_t* moved = actualCount != nullptr ? actualCount : &unused;
  if (count == 0) {
    *moved = 0;
    return 1;
  }
  if (buffer == nullptr) return 0;
  return qvdbase::support::readFile(file, buffer, count, moved) ? 1 : 0;
}

int QVFile::QVWriteFile(int16_t file, const void* buffer, uint32_t count, uint32_t* actualCount) {
  const platform::Turn turn(file);
  if (platform::findOpenFile(file) == nullptr || (buffer == nullptr && count != 0)) return 0;
  uint32_t unused = 0;
  uint32_t* moved = actualCount != nullptr ? actualCount : &unused;
  return qvdbase::support::writeFile(file, buffer, count, moved) ? 1 : 0;
}

int QVFile::QVSeekFile(int16_t file, uint16_t mode, int64_t offset) {
  return platform::seekFile(file, mode, offset) ? 1 : 0;
}

int QVFile::QVGetFilePos(int16_t file, int64_t* position) {
  const platform::Turn turn(file);
  const platform::OpenFile* openFile = platform::findOpenFile(file);
  if (openFile == nullptr || position == nullptr) return 0;
  *position = openFile->position;
  return 1;
}

int QVFile::QVCloseFile(int16_t file) {
  return platform::closeFile(file) ? 1 : 0;
}
