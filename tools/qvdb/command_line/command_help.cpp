// The help texts.
#include "command_line/command_help.h"

#include <algorithm>
#include <sstream>
#include <string_view>

#include "command_line/commands.h"
#include "streams/text.h"

namespace qvdb::tool {
namespace {

constexpr size_t kWidth = 79;
constexpr size_t kHelpColumn = 10;
constexpr size_t kStatusColumn = 4;
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

constexpr const char* kOverviewOptions = R"(
OPTIONS
  -h, --help    show this help, or that of a command
  --version     show the version
)";

void examples(std::ostream& out, const char* lines) {
  out << "\nEXAMPLES\n";
  std::istringstream examples(lines);
  for (std::string line; std::getline(examples, line);) out << "  " << line << '\n';
}

void exitStatuses(std::ostream& out, const char* lines) {
  out << "\nEXIT STATUS\n";
  std::istringstream statuses(lines);
  for (std::string line; std::getline(statuses, line);) {
    out << wrapped("  " + line, kWidth, kStatusColumn);
  }
}

}  // namespace

const char* const kExitStatus = R"(0  done
1  failed, or what was asked for does not exist
2  wrong usage
3  another process has the database open)";

const char* const kWordsHelp =
    R"(A TABLE is named by its name or its identifier, a RECORD by its identifier or, in a table of
imported files, by its file's name. Identifiers are written as 0x and hexadecimal digits, or in
decimal.)";

const char* const kExamples = R"(qvdb create photos.qvd
qvdb import photos.qvd holiday ~/Pictures/holiday/
qvdb records photos.qvd holiday
qvdb export photos.qvd holiday /mnt/copy)";

std::string overview() {
  std::ostringstream out;
  out << kOverviewStart;
  for (const Command* command : allCommands()) {
    out << "  " << command->name
        << std::string(12 - std::min<size_t>(11, std::string_view(command->name).size()), ' ')
        << command->summary << '\n';
  }
  out << '\n';
  paragraphs(out, kWordsHelp, 0);
  out << kOverviewOptions;
  examples(out, kExamples);
  exitStatuses(out, kExitStatus);
  return out.str();
}

void CommandHelp::addArgument(const std::string& usage, const char* name, const char* help) {
  usage_ += " " + usage;
  arguments_.push_back({name, help});
}

void CommandHelp::addOption(const std::string& names, const char* valueName, const char* help,
                            Given given) {
  std::string left = names;
  const size_t comma = left.find(',');
  if (comma != std::string::npos) left.insert(comma + 1, 1, ' ');
  if (valueName != nullptr) left += std::string(" ") + valueName;
  options_.push_back({left, help, given});
}

std::string CommandHelp::text() const {
  std::ostringstream out;
  out << "qvdb " << command_.name << " - " << command_.summary << "\n\nUSAGE\n  qvdb "
      << command_.name << (options_.empty() ? "" : " [OPTION]...") << usage_ << "\n\nDESCRIPTION\n";
  paragraphs(out, command_.description, 2);
  section(out, "ARGUMENTS", arguments_);
  section(out, "OPTIONS", options());
  examples(out, command_.examples);
  exitStatuses(out, exitStatus());
  return out.str();
}

std::vector<CommandHelp::Entry> CommandHelp::options() const {
  std::vector<Entry> options = options_;
  options.push_back({"-h, --help", "Show this help."});
  return options;
}

const char* CommandHelp::exitStatus() const {
  return command_.exitStatus != nullptr ? command_.exitStatus : kExitStatus;
}

void CommandHelp::section(std::ostream& out, const char* title, const std::vector<Entry>& entries) {
  if (entries.empty()) return;
  out << '\n' << title << '\n';
  for (const Entry& entry : entries) {
    out << "  " << entry.left << '\n';
    wrap(out, entry.help, kHelpColumn);
  }
}

}  // namespace qvdb::tool
