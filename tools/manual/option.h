// The options of a command as the manual and the shells want them: taken apart.
#pragma once

#include <string>
#include <vector>

#include "command_line/command_help.h"

namespace qvdb::manual {

struct Option {
  std::vector<std::string> names;  // "-o", "--output"
  std::string value;               // "FILE"; empty for a flag
  std::string help;
  bool isRepeatable = false;

  // Whether its value is the path of a file or folder.
  bool takesPath() const;
};

std::vector<Option> optionsOf(const tool::CommandHelp& help);

// The first sentence of a help, without its full stop: what a shell shows beside an option.
std::string firstSentence(const std::string& help);

}  // namespace qvdb::manual
