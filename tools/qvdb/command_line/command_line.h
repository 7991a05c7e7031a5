// Reads the command line: picks the command, fills its arguments, or shows help.
#pragma once

#include <optional>

#include "command_line/command.h"
#include "command_line/command_help.h"

namespace qvdb::tool {

// The action of the command that was named. Nothing when help or the version was asked for and has
// been printed. Throws Failure (wrong usage).
std::optional<Action> readCommandLine(int argc, const char* const* argv);

// The help of a command, with all arguments and options that it defines.
CommandHelp helpOf(const Command& command);

}  // namespace qvdb::tool
