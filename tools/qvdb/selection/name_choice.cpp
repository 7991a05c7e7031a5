// Which of many names a user means.
#include "selection/name_choice.h"

#include <algorithm>
#include <numeric>

#include "selection/pattern.h"

namespace qvdb::tool {
namespace {

// The text without "./" and the '/' at its end; whether there was one.
bool trim(std::string_view* text) {
  if (text->starts_with("./")) text->remove_prefix(2);
  if (!text->ends_with('/')) return false;
  while (text->ends_with('/')) text->remove_suffix(1);
  return true;
}

}  // namespace

NameChoice::NameChoice(std::vector<ChoosableName> names)
    : names_(std::move(names)), order_(names_.size()) {
  std::iota(order_.begin(), order_.end(), size_t{0});
  std::stable_sort(order_.begin(), order_.end(),
                   [&](size_t one, size_t other) { return names_[one].name < names_[other].name; });
}

NameChoice::Order NameChoice::firstFrom(std::string_view name) const {
  return std::lower_bound(
      order_.begin(), order_.end(), name,
      [&](size_t each, std::string_view text) { return names_[each].name < text; });
}

std::vector<size_t> NameChoice::findName(std::string_view name, bool isForFolders) const {
  std::vector<size_t> found;
  if (name.empty()) return found;
  for (auto each = firstFrom(name); each != order_.end() && names_[*each].name == name; ++each) {
    if (!isForFolders || names_[*each].isFolder) found.push_back(*each);
  }
  const std::string start = std::string(name) + '/';
  for (auto each = firstFrom(start); each != order_.end() && names_[*each].name.starts_with(start);
       ++each) {
    found.push_back(*each);
  }
  return found;
}

std::vector<size_t> NameChoice::findPattern(std::string_view text, bool isForFolders) const {
  const Pattern pattern(text);
  const auto isMeant = [&](const ChoosableName& each) {
    const std::string_view name = each.name;
    for (size_t end = name.find('/'); end != name.npos; end = name.find('/', end + 1)) {
      if (pattern.matches(name.substr(0, end))) return true;
    }
    return (each.isFolder || !isForFolders) && pattern.matches(name);
  };
  std::vector<size_t> found;
  for (auto each = firstFrom(pattern.beginning());
       each != order_.end() && names_[*each].name.starts_with(pattern.beginning()); ++each) {
    if (isMeant(names_[*each])) found.push_back(*each);
  }
  return found;
}

std::vector<size_t> NameChoice::find(std::string_view text) const {
  const bool isForFolders = trim(&text);
  std::vector<size_t> found = findName(text, isForFolders);
  return found.empty() && Pattern::isOne(text) ? findPattern(text, isForFolders) : found;
}

bool NameChoice::isName(std::string_view text) const {
  const bool isForFolders = trim(&text);
  return !findName(text, isForFolders).empty();
}

}  // namespace qvdb::tool
