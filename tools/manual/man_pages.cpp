#include "man_pages.h"

#include <algorithm>
#include <sstream>

#include "command_line/commands.h"
#include "mdoc.h"
#include "option.h"

namespace qvdb::manual {
namespace {

std::string paragraphs(const std::string& text) {
  std::string result;
  size_t from = 0;
  while (from < text.size()) {
    const size_t end = std::min(text.find("\n\n", from), text.size());
    if (from != 0) result += ".Pp\n";
    result += mdocText(text.substr(from, end - from));
    from = end + 2;
  }
  return result;
}

std::string literal(const char* lines) {
  std::string result = ".Bd -literal -offset indent\n";
  std::istringstream in(lines);
  for (std::string each; std::getline(in, each);) result += mdocLine(mdocEscaped(each, true));
  return result + ".Ed\n";
}

// Lines as "4  the file is in use".
std::string exitStatus(const char* lines) {
  std::string result = ".Sh EXIT STATUS\n.Bl -tag -width Ds\n";
  std::istringstream in(lines);
  for (std::string each; std::getline(in, each);) {
    result += ".It " + each.substr(0, 1) + "\n" + mdocText(each.substr(3));
  }
  return result + ".El\n";
}

std::string arguments(const tool::CommandHelp& help) {
  if (help.arguments().empty()) return "";
  std::string result = ".Sh ARGUMENTS\n.Bl -tag -width Ds\n";
  for (const auto& entry : help.arguments()) {
    result += ".It Ar " + entry.left + "\n" + mdocText(entry.help);
  }
  return result + ".El\n";
}

std::string options(const tool::CommandHelp& help) {
  std::string result = ".Sh OPTIONS\n.Bl -tag -width Ds\n";
  for (const Option& option : optionsOf(help)) {
    result += ".It";
    for (const std::string& name : option.names) {
      if (&name != &option.names.front()) result += " ,";
      result += " Fl " + mdocEscaped(name.substr(1), true);
    }
    if (!option.value.empty()) result += " Ar " + option.value;
    result += "\n" + mdocText(option.help);
  }
  return result + ".El\n";
}

// " FILE [TABLE] RECORD..." as macros.
std::string synopsisOf(const std::string& usage) {
  std::string result;
  std::istringstream words(usage);
  for (std::string word; words >> word;) {
    const bool isOptional = word.starts_with('[');
    std::erase_if(word, [](char c) { return c == '[' || c == ']'; });
    const bool isRepeated = word.ends_with("...");
    if (isRepeated) word.resize(word.size() - 3);
    result += (isOptional ? ".Op Ar " : ".Ar ") + word + (isRepeated ? " ..." : "") + "\n";
  }
  return result;
}

}  // namespace

std::string toolPage() {
  std::string page =
      mdocStart("qvdb", "1", "create, inspect, fill and empty QVDbase database files");
  page += ".Sh SYNOPSIS\n.Nm\n.Ar command\n.Op Ar argument ...\n.Nm\n.Ar command\n.Fl \\-help\n";
  page += ".Sh DESCRIPTION\nThe commands, each with a page of its own:\n.Bl -tag -width Ds\n";
  for (const tool::Command* command : tool::allCommands()) {
    page += std::string(".It Xr qvdb-") + command->name + " 1\n" + mdocText(command->summary);
  }
  page += ".El\n.Pp\n" + paragraphs(tool::kWordsHelp);
  page +=
      ".Sh OPTIONS\n.Bl -tag -width Ds\n.It Fl h , Fl \\-help\n"
      "Show a short help, or that of a command.\n.It Fl \\-version\nShow the version.\n.El\n";
  page += exitStatus(tool::kExitStatus) + ".Sh EXAMPLES\n" + literal(tool::kExamples);
  return page;
}

std::string commandPage(const tool::CommandHelp& help) {
  const tool::Command& command = help.command();
  std::string page = mdocStart(std::string("qvdb-") + command.name, "1", command.summary);
  page += std::string(".Sh SYNOPSIS\n.Nm qvdb ") + command.name + "\n.Op Ar option ...\n" +
          synopsisOf(help.usage());
  page += ".Sh DESCRIPTION\n" + paragraphs(command.description);
  page += arguments(help) + options(help) + exitStatus(help.exitStatus());
  page += ".Sh EXAMPLES\n" + literal(command.examples) + ".Sh SEE ALSO\n.Xr qvdb 1\n";
  return page;
}

}  // namespace qvdb::manual
