// Reads the command line. The only file that uses the library for it.
#include "command_line.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <charconv>

#include "command_help.h"
#include "commands.h"
#include "failure.h"
#include "output.h"
#include "suggestion.h"
#include "waiting.h"

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

// What is wrong with the command line, in our words where the library has none that name the cause.
std::string complaintOf(const CLI::ParseError& error, const CLI::App& app) {
  if (dynamic_cast<const CLI::ExtrasError*>(&error) == nullptr) return error.what();
  for (const std::string& word : app.remaining(true)) {
    if (word.starts_with('-')) return "there is no option '" + word + "'";
  }
  return "there are too many arguments";
}

// A command line that cannot be understood; `named` is its first word.
Failure misuse(const CLI::ParseError& error, const CLI::App& app, const std::string& named) {
  const auto chosen = app.get_subcommands();
  const std::string help =
      chosen.empty() ? "qvdb --help" : "qvdb " + chosen[0]->get_name() + " --help";
  if (chosen.empty() && !named.empty() && named[0] != '-') {
    const std::string suggestion = suggestionFor(named);
    return wrongUsage("there is no command '" + named + "'; " +
                      (suggestion.empty() ? "" : suggestion + " ") + "see '" + help + "'");
  }
  return wrongUsage(complaintOf(error, app) + "; see '" + help + "'");
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
  auto* option = parser_.app()->add_option(name, values);
  if (atLeast > 0) option->required()->expected(atLeast, 1 << 28);
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
  parser_.app()->add_option(names, values)->allow_extra_args(false);
  parser_.help.addOption(names, valueName, help);
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

std::optional<Action> readCommandLine(int argc, const char* const* argv) {
  std::vector<std::string> words(argv + std::min(argc, 1), argv + argc);
  if (words.size() == 1 && words[0] == "help") words[0] = "--help";
  if (words.size() == 2 && words[0] == "help") words = {words[1], "--help"};

  CLI::App app("", "qvdb");
  app.set_version_flag("--version", "qvdb " QVDB_VERSION);
  app.formatter_fn([](const CLI::App*, std::string, CLI::AppFormatMode) { return overview(); });
  app.require_subcommand(0, 1);

  std::vector<std::unique_ptr<Arguments::Parser>> parsers;
  std::vector<Action> actions;
  for (const Command* command : allCommands()) {
    CLI::App* sub = app.add_subcommand(command->name, command->summary);
    auto parser = std::make_unique<Arguments::Parser>(sub, *command);
    Arguments arguments(*parser);
    actions.push_back(command->define(arguments));
    arguments.option("--wait", "SECONDS", waitSeconds,
                     "How long to wait for a database that another process has open for writing. "
                     "Default: not at all.");
    sub->formatter_fn([p = parser.get()](const CLI::App*, std::string, CLI::AppFormatMode) {
      return p->help.text();
    });
    parsers.push_back(std::move(parser));
  }

  const std::string named = words.empty() ? "" : words[0];
  try {
    std::reverse(words.begin(), words.end());
    app.parse(words);
  } catch (const CLI::CallForHelp&) {
    print(app.help());
    return std::nullopt;
  } catch (const CLI::CallForVersion& version) {
    printLine(version.what());
    return std::nullopt;
  } catch (const CLI::ParseError& error) {
    throw misuse(error, app, named);
  }
  for (size_t i = 0; i < actions.size(); ++i) {
    if (parsers[i]->app()->parsed()) return actions[i];
  }
  throw wrongUsage("no command was given; see 'qvdb --help'");
}

}  // namespace qvdb::tool
