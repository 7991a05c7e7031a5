// The help texts: that of the tool, and that of each command.
#pragma once

#include <string>
#include <vector>

#include "command.h"

namespace qvdb::tool {

// What 'qvdb --help' prints.
std::string overview();

// The help of one command, laid out like a manual page: usage, description, arguments, options,
// examples, exit status.
class CommandHelp {
 public:
  explicit CommandHelp(const Command& command) : command_(command) {}

  // `usage` is the argument as the usage line shows it: "FILE", "[TABLE]", "RECORD...".
  void addArgument(const std::string& usage, const char* name, const char* help);

  // `names` as in "-o,--output"; `valueName` is null for a flag.
  void addOption(const std::string& names, const char* valueName, const char* help);

  std::string text() const;

  const Command& command() const { return command_; }

 private:
  struct Entry {
    std::string left;
    std::string help;
  };
  static void section(std::ostream& out, const char* title, const std::vector<Entry>& entries);

  const Command& command_;
  std::string usage_;
  std::vector<Entry> arguments_;
  std::vector<Entry> options_;
};

}  // namespace qvdb::tool
