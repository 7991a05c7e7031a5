// Walking a whole path of the host, in the host's own bytes, component by component.
#pragma once

#include <memory>
#include <string>

#include "platform/paths/directory.h"
#include "platform/paths/utf8_names.h"

namespace qvdbase::platform {

// Goes to the directory of an absolute path's last component. Returns that component's name, or
// null when the path does not lead there.
std::unique_ptr<EntryName> walkToParent(const std::string& path, Directory* directory);

}  // namespace qvdbase::platform
