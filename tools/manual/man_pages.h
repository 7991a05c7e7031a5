// Manual pages, in the mdoc language, of section 1.
#pragma once

#include <string>

#include "command_line/command_help.h"

namespace qvdb::manual {

std::string toolPage();                                  // qvdb.1
std::string commandPage(const tool::CommandHelp& help);  // qvdb-NAME.1

}  // namespace qvdb::manual
