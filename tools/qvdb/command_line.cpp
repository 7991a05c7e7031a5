// Reads the command line. The only file that uses the library for it.
//
// Each command's help is laid out like a manual page: usage, description, arguments, options,
// examples, exit status.
#include "command_line.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <charconv>
#include <sstream>

#include "commands.h"
#include "failure.h"
#include "output.h"
#include "suggestion.h"
#include "text.h"
#include "waiting.h"

namespace qvdb::tool {

// One command under construction: the library's object, and what its help is made of.
class Arguments::Parser {
 public:
  Parser(CLI::App* app, const Command& command) : app_(app), command_(command) {}

  CLI::App* app() { return app_; }

  void describeArgument(const std::string& usage, const char* name, const char* help) {
    usage_ += " " + usage;
    arguments_.push_back({name, help});
  }
  void describeOption(const std::string& names, const char* valueName, const char* help) {
    std::string left = names;
    const size_t comma = left.find(',');
    if (comma != std::string::npos) left.insert(comma + 1, " ");
    if (valueName != nullptr) left += std::string(" ") + valueName;
    options_.push_back({left, help});
  }

  std::string help() const;

 private:
  struct Entry {
    std::string left;
    std::string help;
  };
  static void section(std::ostream& out, const char* title, const std::vector<Entry>& entries);

  CLI::App* app_;
  const Command& command_;
  std::string usage_;
  std::vector<Entry> arguments_;
  std::vector<Entry> options_;
};

namespace {

constexpr size_t kWidth = 79;
constexpr size_t kHelpColumn = 10;
constexpr size_t kStatusColumn = 4;
constexpr const char* kExitStatus = R"(0  done
1  failed, or what was asked for does not exist
2  wrong usage
3  another process has the database open)";

void wrap(std::ostream& out, const std::string& text, size_t indent) {
  const std::string space(indent, ' ');
  out << wrapped(space + text, kWidth, indent);
}

void paragraphs(std::ostream& out, const std::string& text, size_t indent) {
  size_t from = 0;
  while (from < text.size()) {
    const size_t end = std::min(text.find("\n\n", from), text.size());
    if (from != 0) out << '\n';
    std::string paragraph = text.substr(from, end - from);
    std::replace(paragraph.begin(), paragraph.end(), '\n', ' ');
    wrap(out, paragraph, indent);
    from = end + 2;
  }
}

constexpr const char* kOverviewStart =
    R"(qvdb - create, inspect, fill and empty QVDbase database files

USAGE
  qvdb COMMAND [ARGUMENT]...
  qvdb COMMAND --help

COMMANDS
)";

constexpr const char* kOverviewEnd = R"(
A TABLE is named by its name or its identifier, a RECORD by its identifier or,
in a table of imported files, by its file's name. Identifiers are written as 0x
and hexadecimal digits, or in decimal.

OPTIONS
  -h, --help    show this help, or that of a command
  --version     show the version

EXAMPLES
  qvdb create photos.qvd
  qvdb import photos.qvd holiday ~/Pictures/holiday/
  qvdb records photos.qvd holiday
  qvdb export photos.qvd holiday /mnt/copy
)";

void exitStatuses(std::ostream& out, const char* lines) {
  out << "\nEXIT STATUS\n";
  std::istringstream statuses(lines);
  for (std::string line; std::getline(statuses, line);) {
    out << wrapped("  " + line, kWidth, kStatusColumn);
  }
}

std::string overview() {
  std::ostringstream out;
  out << kOverviewStart;
  for (const Command* command : allCommands()) {
    out << "  " << command->name
        << std::string(12 - std::min<size_t>(11, std::string_view(command->name).size()), ' ')
        << command->summary << '\n';
  }
  out << kOverviewEnd;
  exitStatuses(out, kExitStatus);
  return out.str();
}

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

}  // namespace

std::string Arguments::Parser::help() const {
  std::ostringstream out;
  out << "qvdb " << command_.name << " - " << command_.summary << "\n\nUSAGE\n  qvdb "
      << command_.name << (options_.empty() ? "" : " [OPTION]...") << usage_ << "\n\nDESCRIPTION\n";
  paragraphs(out, command_.description, 2);
  section(out, "ARGUMENTS", arguments_);
  std::vector<Entry> options = options_;
  options.push_back({"-h, --help", "Show this help."});
  section(out, "OPTIONS", options);
  out << "\nEXAMPLES\n";
  std::istringstream lines(command_.examples);
  for (std::string line; std::getline(lines, line);) out << "  " << line << '\n';
  exitStatuses(out, command_.exitStatus != nullptr ? command_.exitStatus : kExitStatus);
  return out.str();
}

void Arguments::Parser::section(std::ostream& out, const char* title,
                                const std::vector<Entry>& entries) {
  if (entries.empty()) return;
  out << '\n' << title << '\n';
  for (const Entry& entry : entries) {
    out << "  " << entry.left << '\n';
    wrap(out, entry.help, kHelpColumn);
  }
}

void Arguments::argument(const char* name, std::string& value, const char* help) {
  parser_.app()->add_option(name, value)->required();
  parser_.describeArgument(name, name, help);
}

void Arguments::optionalArgument(const char* name, std::optional<std::string>& value,
                                 const char* help) {
  parser_.app()->add_option_function<std::string>(
      name, [&value](const std::string& text) { value = text; });
  parser_.describeArgument("[" + std::string(name) + "]", name, help);
}

void Arguments::arguments(const char* name, std::vector<std::string>& values, int atLeast,
                          const char* help) {
  auto* option = parser_.app()->add_option(name, values);
  if (atLeast > 0) option->required()->expected(atLeast, 1 << 28);
  const std::string usage = std::string(name) + "...";
  parser_.describeArgument(atLeast > 0 ? usage : "[" + usage + "]", name, help);
}

void Arguments::option(const char* names, const char* valueName, std::optional<std::string>& value,
                       const char* help) {
  parser_.app()->add_option_function<std::string>(
      names, [&value](const std::string& text) { value = text; });
  parser_.describeOption(names, valueName, help);
}

void Arguments::option(const char* names, const char* valueName, std::optional<uint64_t>& value,
                       const char* help) {
  parser_.app()->add_option_function<std::string>(
      names, [&value, name = withoutDashes(names)](const std::string& text) {
        value = numberOf(name, text);
      });
  parser_.describeOption(names, valueName, help);
}

void Arguments::option(const char* names, const char* valueName, std::vector<std::string>& values,
                       const char* help) {
  parser_.app()->add_option(names, values)->allow_extra_args(false);
  parser_.describeOption(names, valueName, help);
}

void Arguments::flag(const char* names, bool& value, const char* help) {
  parser_.app()->add_flag(names, value);
  parser_.describeOption(names, nullptr, help);
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
    sub->formatter_fn(
        [p = parser.get()](const CLI::App*, std::string, CLI::AppFormatMode) { return p->help(); });
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
    const auto chosen = app.get_subcommands();
    const std::string help =
        chosen.empty() ? "qvdb --help" : "qvdb " + chosen[0]->get_name() + " --help";
    if (chosen.empty() && !named.empty() && named[0] != '-') {
      const std::string suggestion = suggestionFor(named);
      throw wrongUsage("there is no command '" + named + "'; " +
                       (suggestion.empty() ? "" : suggestion + " ") + "see '" + help + "'");
    }
    throw wrongUsage(std::string(error.what()) + "; see '" + help + "'");
  }
  for (size_t i = 0; i < actions.size(); ++i) {
    if (parsers[i]->app()->parsed()) return actions[i];
  }
  throw wrongUsage("no command was given; see 'qvdb --help'");
}

}  // namespace qvdb::tool
