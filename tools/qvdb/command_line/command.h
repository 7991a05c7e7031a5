// A command of the tool: its name, its help and what it does. Each command has a file of its own;
// the list of them is in commands.cpp.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace qvdb::tool {

// Exit statuses.
inline constexpr int kDone = 0;
inline constexpr int kFailed = 1;          // something failed, or what was asked for does not exist
inline constexpr int kWrongUsage = 2;      // the command line cannot be understood
inline constexpr int kInUse = 3;           // another process has the database open
inline constexpr int kWorkInProgress = 4;  // check: another process writes to it, so no verdict

// The arguments and options of a command. A definition binds each to a variable that is filled
// before the command runs. Only command_line.cpp uses the library that reads command lines.
class Arguments {
 public:
  class Parser;
  explicit Arguments(Parser& parser) : parser_(parser) {}

  // Arguments by position: one that must be given, one that may be left out, and one that may be
  // given many times, at least `atLeast` times.
  void argument(const char* name, std::string& value, const char* help);
  void optionalArgument(const char* name, std::optional<std::string>& value, const char* help);
  void arguments(const char* name, std::vector<std::string>& values, int atLeast, const char* help);

  // Options: `names` as in "-o,--output".
  void option(const char* names, const char* valueName, std::optional<std::string>& value,
              const char* help);
  void option(const char* names, const char* valueName, std::optional<uint64_t>& value,
              const char* help);
  // One that may be given many times.
  void option(const char* names, const char* valueName, std::vector<std::string>& values,
              const char* help);
  void flag(const char* names, bool& value, const char* help);

  // Options that many commands have.
  void json(bool& value);
  void force(bool& value, const char* help);
  void parents(bool& value);
  void noSync(bool& value);

 private:
  Parser& parser_;
};

// Runs a command and returns its exit status.
using Action = std::function<int()>;

struct Command {
  const char* name;
  const char* summary;      // one line, for the list of commands
  const char* description;  // paragraphs, separated by empty lines; other line ends are spaces
  const char* examples;     // one to a line
  Action (*define)(Arguments& arguments);
  // Exit statuses of its own, one to a line as "4  the file is in use"; null for the usual ones.
  const char* exitStatus = nullptr;
};

// Binds the arguments to a new Options, and makes an action of run(options).
template <typename Options>
Action actionOf(const std::shared_ptr<Options>& options, int (*run)(const Options&)) {
  return [options, run] { return run(*options); };
}

}  // namespace qvdb::tool
