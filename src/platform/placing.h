// Putting a finished file in its place: under its name at once and whole, or not at all.
#ifndef QVDBASE_PLATFORM_PLACING_H
#define QVDBASE_PLATFORM_PLACING_H

#include <cstdint>
#include <string>

namespace qvdbase::platform {

enum class Placing : uint8_t {
  done,
  occupied,  // something stands there, and was not to be replaced
  failed,
};

// Gives the file `from` the name `to` instead of its own. Both are absolute paths, in UTF-8, on one
// device. With `replaces`, a file that has the name makes way in the same moment.
Placing placeFile(const std::string& from, const std::string& to, bool replaces);

// Takes a file's name away. False when it has none, or the host refuses.
bool removeFile(const std::string& path);

// Waits until the device has the file's contents.
bool syncFileAt(const std::string& path);

// Waits until the device has the names in the folder of this path, where the host can do that.
bool syncFolderOf(const std::string& path);

// How often this process has the open file open for writing, under whatever numbers.
uint32_t writersOf(int16_t file);

}  // namespace qvdbase::platform

#endif
