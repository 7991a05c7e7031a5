#include "man_pages.h"

#include <algorithm>
#include <sstream>

#include "commands.h"
#include "option.h"
#include "text.h"

namespace qvdb::manual {
namespace {

constexpr size_t kWidth = 78;
constexpr const char* kDate = "November 22, 2026";  // of the last change of the commands

std::string upper(std::string text) {
  std::transform(text.begin(), text.end(), text.begin(),
                 [](unsigned char c) { return static_cast<char>(std::toupper(c)); });
  return text;
}

// A backslash, and a hyphen that has to stay one when it is copied.
std::string escaped(const std::string& text, bool isLiteral) {
  std::string result;
  for (const char c : text) {
    if (c == '\\') {
      result += "\\e";
    } else if (c == '-' && isLiteral) {
      result += "\\-";
    } else {
      result += c;
    }
  }
  return result;
}

// At the beginning of a line a dot or an apostrophe would be a request.
std::string line(const std::string& text) {
  const bool looksLikeRequest = text.starts_with('.') || text.starts_with('\'');
  return (looksLikeRequest ? "\\&" : "") + text + "\n";
}

std::string start(const std::string& name, const std::string& summary) {
  return std::string(".Dd ") + kDate + "\n.Dt " + upper(name) + " 1\n.Os\n.Sh NAME\n.Nm " + name +
         "\n.Nd " + summary + "\n";
}

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
  for (std::string each; std::getline(in, each);) result += line(escaped(each, true));
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
      result += " Fl " + escaped(name.substr(1), true);
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

// Where the first sentence ends: after a full stop that a new word follows, not after dots.
size_t endOfSentence(const std::string& text) {
  for (size_t i = 1; i + 2 < text.size(); ++i) {
    const bool isEnd = text[i] == '.' || text[i] == '?' || text[i] == '!';
    if (isEnd && text[i - 1] != '.' && text[i + 1] == ' ') return i + 1;
  }
  return text.size();
}

}  // namespace

std::string mdocText(const std::string& text) {
  std::string rest = escaped(text, false);
  std::replace(rest.begin(), rest.end(), '\n', ' ');
  std::string result;
  while (!rest.empty()) {
    const size_t end = endOfSentence(rest);
    std::istringstream lines(tool::wrapped(rest.substr(0, end), kWidth, 0));
    for (std::string each; std::getline(lines, each);) result += line(each);
    rest.erase(0, std::min(rest.find_first_not_of(' ', end), rest.size()));
  }
  return result;
}

std::string toolPage() {
  std::string page = start("qvdb", "create, inspect, fill and empty QVDbase database files");
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
  std::string page = start(std::string("qvdb-") + command.name, command.summary);
  page += std::string(".Sh SYNOPSIS\n.Nm qvdb ") + command.name + "\n.Op Ar option ...\n" +
          synopsisOf(help.usage());
  page += ".Sh DESCRIPTION\n" + paragraphs(command.description);
  page += arguments(help) + options(help) + exitStatus(help.exitStatus());
  page += ".Sh EXAMPLES\n" + literal(command.examples) + ".Sh SEE ALSO\n.Xr qvdb 1\n";
  return page;
}

}  // namespace qvdb::manual
