// Reads the command line. The only file that uses the library for it.
#include "command_line/command_line.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <charconv>

#include "command_line/command_help.h"
#include "command_line/commands.h"
#include "command_line/suggestion.h"
#include "streams/failure.h"
#include "streams/output.h"
#include "streams/waiting.h"

namespace qvdb::tool {

// One command under construction: the library's object, and its help.
class Arguments::Parser {
 public:
  Parser(CLI::App* app, const Command& command) : help(command), app_(app) {}

  CLI::App* app() { return app_; }

  CommandHelp help;

 private:
  CLI::App* app_;
};

namespace {

uint64_t numberOf(const std::string& name, const std::string& text) {
  uint64_t value = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (error != std::errc() || end != text.data() + text.size()) {
    throw CLI::ValidationError(name, "'" + text + "' is not a number");
  }
  return value;
}

std::string withoutDashes(const char* names) {
  const std::string all = names;
  return all.substr(all.rfind(',') + 1);
}

using Words = std::vector<std::string>;

// What is wrong with the command line, in our words where the library has none that name the cause.
// What follows "--" is no option.
std::string complaintOf(const CLI::ParseError& error, const CLI::App& app, const Words& words) {
  if (dynamic_cast<const CLI::ExtrasError*>(&error) == nullptr) return error.what();
  const auto end = std::find(words.begin(), words.end(), "--");
  for (const std::string& word : app.remaining(true)) {
    if (word.starts_with('-') && std::find(words.begin(), end, word) != end) {
      return "there is no option '" + word + "'";
    }
  }
  return "there are too many arguments";
}

// A list takes its words as they are: bound to a vector, the library would take "[a,b]" for two of
// them, and "{}" for none.
CLI::Option* addList(CLI::App* app, const char* names, std::vector<std::string>* values) {
  const auto take = [values](const CLI::results_t& words) {
    *values = words;
    return true;
  };
  return app->add_option(names, take)->multi_option_policy(CLI::MultiOptionPolicy::TakeAll);
}

// False when help or the version was asked for and has been printed.
bool parse(CLI::App& app, const Words& words, const std::string& help) {
  try {
    app.parse(Words(words.rbegin(), words.rend()));
    return true;
  } catch (const CLI::CallForHelp&) {
    print(app.help());
    return false;
  } catch (const CLI::CallForVersion& version) {
    printLine(version.what());
    return false;
  } catch (const CLI::ParseError& error) {
    throw wrongUsage(complaintOf(error, app, words) + "; see '" + help + "'");
  }
}

Action defineIn(Arguments::Parser& parser) {
  Arguments arguments(parser);
  Action action = parser.help.command().define(arguments);
  arguments.option("--wait", "SECONDS", waitSeconds,
                   "How long to wait for a database that another process has open for writing. "
                   "Default: not at all.");
  return action;
}

bool hasOption(const Command& command, const std::string& name) {
  CLI::App app;
  Arguments::Parser parser(&app, command);
  defineIn(parser);
  return app.get_option_no_throw(name) != nullptr;
}

// Options of commands come after the command.
void refuseMisplaced(const Words& words) {
  const std::string option = words[0].substr(0, words[0].find('='));
  const auto isMeant = [&](const Command* command) {
    return std::find(words.begin(), words.end(), command->name) != words.end();
  };
  const auto has = [&](const Command* command) { return hasOption(*command, option); };
  const auto all = allCommands();
  const auto meant = std::find_if(all.begin(), all.end(), isMeant);
  if (meant != all.end() ? !has(*meant) : std::none_of(all.begin(), all.end(), has)) return;
  const std::string name = meant != all.end() ? (*meant)->name : "COMMAND";
  throw wrongUsage("the option '" + option + "' comes after the command: 'qvdb " + name + " " +
                   option + " ...'; see 'qvdb " +
                   (meant != all.end() ? name + " --help'" : "--help'"));
}

// A command line that names no command can only ask for help or the version.
void parseWithoutCommand(const Words& words) {
  CLI::App app("", "qvdb");
  app.set_version_flag("--version", "qvdb " QVDB_VERSION);
  app.formatter_fn([](const CLI::App*, std::string, CLI::AppFormatMode) { return overview(); });
  if (!words.empty() && app.get_option_no_throw(words[0]) == nullptr) refuseMisplaced(words);
  if (!parse(app, words, "qvdb --help")) return;
  throw wrongUsage("no command was given; see 'qvdb --help'");
}

const Command& commandOf(const std::string& name) {
  for (const Command* command : allCommands()) {
    if (command->name == name) return *command;
  }
  const std::string suggestion = suggestionFor(name);
  throw wrongUsage("there is no command '" + name + "'; " +
                   (suggestion.empty() ? "" : suggestion + " ") + "see 'qvdb --help'");
}

}  // namespace

void Arguments::argument(const char* name, std::string& value, const char* help) {
  parser_.app()->add_option(name, value)->required();
  parser_.help.addArgument(name, name, help);
}

void Arguments::optionalArgument(const char* name, std::optional<std::string>& value,
                                 const char* help) {
  parser_.app()->add_option_function<std::string>(
      name, [&value](const std::string& text) { value = text; });
  parser_.help.addArgument("[" + std::string(name) + "]", name, help);
}

void Arguments::arguments(const char* name, std::vector<std::string>& values, int atLeast,
                          const char* help) {
  // As many as there are: the library takes more than it expects only where it splits words.
  CLI::Option* option = addList(parser_.app(), name, &values)->expected(1 << 28);
  if (atLeast > 0) option->required();
  const std::string usage = std::string(name) + "...";
  parser_.help.addArgument(atLeast > 0 ? usage : "[" + usage + "]", name, help);
}

void Arguments::option(const char* names, const char* valueName, std::optional<std::string>& value,
                       const char* help) {
  parser_.app()->add_option_function<std::string>(
      names, [&value](const std::string& text) { value = text; });
  parser_.help.addOption(names, valueName, help);
}

void Arguments::option(const char* names, const char* valueName, std::optional<uint64_t>& value,
                       const char* help) {
  parser_.app()->add_option_function<std::string>(
      names, [&value, name = withoutDashes(names)](const std::string& text) {
        value = numberOf(name, text);
      });
  parser_.help.addOption(names, valueName, help);
}

void Arguments::option(const char* names, const char* valueName, std::vector<std::string>& values,
                       const char* help) {
  addList(parser_.app(), names, &values);
  parser_.help.addOption(names, valueName, help, CommandHelp::Given::manyTimes);
}

void Arguments::flag(const char* names, bool& value, const char* help) {
  parser_.app()->add_flag(names, value);
  parser_.help.addOption(names, nullptr, help);
}

void Arguments::json(bool& value) {
  flag("--json", value, "Print JSON, in ASCII, for other programs to read.");
}

void Arguments::force(bool& value, const char* help) {
  flag("-f,--force", value, help);
}

void Arguments::parents(bool& value) {
  flag("-p,--parents", value, "Create missing folders in the path.");
}

void Arguments::noSync(bool& value) {
  flag("--no-sync", value,
       "Do not wait until the device has everything. Faster, but a power failure can undo it.");
}

CommandHelp helpOf(const Command& command) {
  CLI::App app;
  Arguments::Parser parser(&app, command);
  defineIn(parser);
  return parser.help;
}

// Each command is an application of its own to the library. As a subcommand it would end at a word
// "++", and at a "--" once all required arguments are there.
std::optional<Action> readCommandLine(int argc, const char* const* argv) {
  Words words(argv + std::min(argc, 1), argv + argc);
  if (words.size() == 1 && words[0] == "help") words[0] = "--help";
  if (words.size() == 2 && words[0] == "help") words = {words[1], "--help"};
  if (words.empty() || words[0].starts_with('-')) {
    parseWithoutCommand(words);
    return std::nullopt;
  }

  const Command& command = commandOf(words[0]);
  CLI::App app(command.summary, command.name);
  Arguments::Parser parser(&app, command);
  Action action = defineIn(parser);
  app.formatter_fn(
      [&parser](const CLI::App*, std::string, CLI::AppFormatMode) { return parser.help.text(); });
  words.erase(words.begin());
  if (!parse(app, words, std::string("qvdb ") + command.name + " --help")) return std::nullopt;
  return action;
}

}  // namespace qvdb::tool
