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
  const std::string value = option.value.empty() ? "" : ":" + option.value + ":_files";
  std::string excluded;
  for (const std::string& name : option.names) excluded += (excluded.empty() ? "" : " ") + name;
  std::string result;
  for (const std::string& name : option.names) {
    result += " \\\n        " + quoted("(" + excluded + ")" + name + description + value, "'\\''");
  }
  return result;
}

std::string fishOption(const std::string& command, const Option& option) {
  std::string result = "complete -c qvdb -n '__fish_seen_subcommand_from " + command + "'";
  for (const std::string& name : option.names) {
    result += name.starts_with("--") ? " -l " + name.substr(2) : " -s " + name.substr(1);
  }
  if (!option.value.empty()) result += " -r";
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
                       "  local -a commands\n"
                       "  commands=(\n";
  for (const tool::Command* command : tool::allCommands()) {
    script += "    " + quoted(command->name + (":" + forZsh(command->summary)), "'\\''") + "\n";
  }
  script +=
      "  )\n"
      "  if (( CURRENT == 2 )); then\n"
      "    _describe command commands\n"
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
  std::string script = std::string("# fish completion of qvdb, ") + kOrigin;
  script += "complete -c qvdb -n __fish_use_subcommand -l version -d 'Show the version'\n";
  for (const tool::Command* command : tool::allCommands()) {
    script += std::string("complete -c qvdb -f -n __fish_use_subcommand -a ") + command->name +
              " -d " + quoted(command->summary, "\\'") + "\n";
    for (const Option& option : optionsOf(tool::helpOf(*command))) {
      script += fishOption(command->name, option);
    }
  }
  return script;
}

}  // namespace qvdb::manual
