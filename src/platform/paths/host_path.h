// Walking a whole path of the host, in the host's own bytes, component by component.
#ifndef QVDBASE_PLATFORM_HOST_PATH_H
#define QVDBASE_PLATFORM_HOST_PATH_H

#include <memory>
#include <string>

#include "platform/paths/directory.h"
#include "platform/paths/utf8_names.h"

namespace qvdbase::platform {

// Goes to the directory of an absolute path's last component. Returns that component's name, or
// null when the way does not lead there.
std::unique_ptr<EntryName> walkToParent(const std::string& path, Directory* directory);

}  // namespace qvdbase::platform

#endif
