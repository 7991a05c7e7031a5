// Giving names to files, in one step each, and waiting until the device has them.
#pragma once

#include <cstdint>

#include "platform/paths/directory.h"

namespace qvdbase::platform {

enum class Placing : uint8_t {
  done,
  occupied,   // something is there, and was not to be replaced
  changed,    // what was to be replaced is not there any more, or is another file by now
  failed,     // the host refuses
  notStored,  // the device does not take the file; nothing was placed
  notNamed,   // it was placed, but the device does not take its name
};

// A name in an open folder.
struct NamedIn {
  int folder;
  const char* name;
};

// Gives the file another name instead of its own, unless something has that name: then occupied.
Placing renameWhereNothingIs(const NamedIn& from, const NamedIn& to);

// The same; a file that has the name loses it in the same moment.
Placing renameOver(const NamedIn& from, const NamedIn& to);

// Waits until the device has the file's contents.
bool syncDescriptor(int descriptor);

// Waits until the device has the names in the folder, where the host can do that.
bool syncFolder(const Directory& folder);

}  // namespace qvdbase::platform
