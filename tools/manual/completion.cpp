#include "completion.h"

#include "command_line/command_line.h"
#include "command_line/commands.h"
#include "option.h"

namespace qvdb::manual {
namespace {

constexpr const char* kOrigin = "made from the list of commands of the tool\n";

// In apostrophes, as all three shells take them; each has its own way for an apostrophe inside.
std::string quoted(const std::string& text, const std::string& apostrophe) {
  std::string result = "'";
  for (const char c : text) result += c == '\'' ? apostrophe : std::string(1, c);
  return result + "'";
}

std::string allNames(const tool::CommandHelp& help) {
  std::string names;
  for (const Option& option : optionsOf(help)) {
    for (const std::string& name : option.names) names += (names.empty() ? "" : " ") + name;
  }
  return names;
}

std::string commandNames() {
  std::string names;
  for (const tool::Command* command : tool::allCommands())
    names += command->name + std::string(" ");
  return names + "help";
}

// Inside _arguments a bracket would end the description, and a colon begin the next field.
std::string forZsh(const std::string& text) {
  std::string result;
  for (const char c : text) {
    if (c == '[' || c == ']' || c == ':' || c == '\\') result += '\\';
    result += c;
  }
  return result;
}

std::string zshOption(const Option& option) {
  const std::string description = "[" + forZsh(firstSentence(option.help)) + "]";
  std::string value;
  if (!option.value.empty()) {
    value = ":" + option.value + ":" + (option.takesPath() ? "_files" : " ");
  }
  std::string excluded;
  for (const std::string& name : option.names) excluded += (excluded.empty() ? "" : " ") + name;
  const std::string before = option.isRepeatable ? "*" : "(" + excluded + ")";
  std::string result;
  for (const std::string& name : option.names) {
    result += " \\\n        " + quoted(before + name + description + value, "'\\''");
  }
  return result;
}

// The functions by which the lines of fish ask where on the command line the cursor is: a file or a
// table may be called as a command is.
constexpr const char* kFishQuestions = R"(function __qvdb_begins
  test (count (commandline -opc)) -eq 1
end
function __qvdb_runs
  set -l words (commandline -opc)
  test (count $words) -gt 1; and test $words[2] = $argv[1]
end
)";

std::string fishNames(const Option& option) {
  std::string names;
  for (const std::string& name : option.names) {
    names += name.starts_with("--") ? " -l " + name.substr(2) : " -s " + name.substr(1);
  }
  return names;
}

std::string fishOption(const std::string& command, const Option& option) {
  std::string result = "complete -c qvdb -n '__qvdb_runs " + command + "'" + fishNames(option);
  if (!option.value.empty()) result += option.takesPath() ? " -r -F" : " -x";
  return result + " -d " + quoted(firstSentence(option.help), "\\'") + "\n";
}

}  // namespace

std::string bashCompletion() {
  std::string script = std::string("# bash completion of qvdb, ") + kOrigin +
                       "_qvdb() {\n"
                       "  local word=${COMP_WORDS[COMP_CWORD]} options=\n"
                       "  COMPREPLY=()\n"
                       "  if [ \"$COMP_CWORD\" -eq 1 ]; then\n"
                       "    COMPREPLY=($(compgen -W '" +
                       commandNames() +
                       " --help --version' -- \"$word\"))\n"
                       "    return\n"
                       "  fi\n"
                       "  case ${COMP_WORDS[1]} in\n"
                       "    help) options='" +
                       commandNames() + "' ;;\n";
  for (const tool::Command* command : tool::allCommands()) {
    script += std::string("    ") + command->name + ") options='" +
              allNames(tool::helpOf(*command)) + "' ;;\n";
  }
  return script +
         "  esac\n"
         "  if [[ $word == -* || ${COMP_WORDS[1]} == help ]]; then\n"
         "    COMPREPLY=($(compgen -W \"$options\" -- \"$word\"))\n"
         "  fi\n"
         "}\n"
         "# Where the function finds nothing, the shell completes names of files.\n"
         "complete -o default -F _qvdb qvdb\n";
}

std::string zshCompletion() {
  std::string script = std::string("#compdef qvdb\n# zsh completion of qvdb, ") + kOrigin +
                       "_qvdb() {\n"
                       "  local -a commands general\n"
                       "  commands=(\n";
  for (const tool::Command* command : tool::allCommands()) {
    script += "    " + quoted(command->name + (":" + forZsh(command->summary)), "'\\''") + "\n";
  }
  script +=
      "    'help:show the help of a command'\n"
      "  )\n"
      "  general=('--help:show the help' '--version:show the version')\n"
      "  if (( CURRENT == 2 )); then\n"
      "    _describe command commands\n"
      "    _describe -o option general\n"
      "    return\n"
      "  fi\n"
      "  local command=${words[2]}\n"
      "  shift words\n"
      "  (( CURRENT-- ))\n"
      "  case $command in\n"
      "    help) _describe command commands ;;\n";
  for (const tool::Command* command : tool::allCommands()) {
    script += std::string("    ") + command->name + ")\n      _arguments";
    for (const Option& option : optionsOf(tool::helpOf(*command))) script += zshOption(option);
    script += " \\\n        '*:file:_files' ;;\n";
  }
  return script + "  esac\n}\n_qvdb \"$@\"\n";
}

std::string fishCompletion() {
  std::string script = std::string("# fish completion of qvdb, ") + kOrigin + kFishQuestions;
  const std::string first = "complete -c qvdb -f -n __qvdb_begins";
  script += first + " -s h -l help -d 'Show the help'\n";
  script += first + " -l version -d 'Show the version'\n";
  script += first + " -a help -d 'show the help of a command'\n";
  for (const tool::Command* command : tool::allCommands()) {
    const std::string named =
        std::string(" -a ") + command->name + " -d " + quoted(command->summary, "\\'") + "\n";
    script += first + named;
    script += "complete -c qvdb -f -n '__qvdb_runs help'" + named;
    for (const Option& option : optionsOf(tool::helpOf(*command))) {
      script += fishOption(command->name, option);
    }
  }
  return script;
}

}  // namespace qvdb::manual
