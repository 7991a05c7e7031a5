// Manual pages, in the mdoc language, of section 1.
#pragma once

#include <string>

#include "command_help.h"

namespace qvdb::manual {

std::string toolPage();                                  // qvdb.1
std::string commandPage(const tool::CommandHelp& help);  // qvdb-NAME.1

// Text as mdoc wants it: each sentence begins a line, and nothing is taken for a request.
std::string mdocText(const std::string& text);

}  // namespace qvdb::manual
