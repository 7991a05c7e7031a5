#include "option.h"

#include <sstream>

namespace qvdb::manual {

bool Option::takesPath() const {
  return value == "PATH" || value == "DIR" || value == "OUT" || value == "FILE";
}

std::vector<Option> optionsOf(const tool::CommandHelp& help) {
  std::vector<Option> options;
  for (const auto& entry : help.options()) {
    Option option{{}, {}, entry.help, entry.given == tool::CommandHelp::Given::manyTimes};
    std::istringstream words(entry.left);
    for (std::string word; words >> word;) {
      if (word.back() == ',') word.pop_back();
      if (word.starts_with('-')) {
        option.names.push_back(word);
      } else {
        option.value = word;
      }
    }
    options.push_back(option);
  }
  return options;
}

std::string firstSentence(const std::string& help) {
  const size_t end = help.find(". ");
  if (end != std::string::npos) return help.substr(0, end);
  return help.ends_with('.') ? help.substr(0, help.size() - 1) : help;
}

}  // namespace qvdb::manual
