// The help texts: that of the tool, and that of each command.
#pragma once

#include <string>
#include <vector>

#include "command_line/command.h"

namespace qvdb::tool {

// What 'qvdb --help' prints.
std::string overview();

// The exit statuses of the tool, one to a line, and what it says of the words for tables and
// records and of its own use.
extern const char* const kExitStatus;
extern const char* const kWordsHelp;
extern const char* const kExamples;

// The help of one command, laid out like a manual page: usage, description, arguments, options,
// examples, exit status.
class CommandHelp {
 public:
  explicit CommandHelp(const Command& command) : command_(command) {}

  // `usage` is the argument as the usage line shows it: "FILE", "[TABLE]", "RECORD...".
  void addArgument(const std::string& usage, const char* name, const char* help);

  // `names` as in "-o,--output"; `valueName` is null for a flag.
  enum class Given { once, manyTimes };
  void addOption(const std::string& names, const char* valueName, const char* help,
                 Given given = Given::once);

  std::string text() const;

  // What the text is made of, for the manual and the completion of shells.
  struct Entry {
    std::string left;  // "FILE", "-o, --output FILE"
    std::string help;
    Given given = Given::once;
  };
  const Command& command() const { return command_; }
  const std::string& usage() const { return usage_; }  // of the arguments: " FILE [TABLE]"
  const std::vector<Entry>& arguments() const { return arguments_; }
  std::vector<Entry> options() const;
  const char* exitStatus() const;  // one to a line

 private:
  static void section(std::ostream& out, const char* title, const std::vector<Entry>& entries);

  const Command& command_;
  std::string usage_;
  std::vector<Entry> arguments_;
  std::vector<Entry> options_;
};

}  // namespace qvdb::tool
