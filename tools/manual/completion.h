// Completion of command lines of the tool: commands, their options, and names of files.
#pragma once

#include <string>

namespace qvdb::manual {

std::string bashCompletion();
std::string zshCompletion();
std::string fishCompletion();

}  // namespace qvdb::manual
