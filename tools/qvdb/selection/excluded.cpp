// What an import leaves out.
#include "selection/excluded.h"

#include <algorithm>

#include "streams/failure.h"

namespace qvdb::tool {

Excluded::Excluded(const std::vector<std::string>& patterns) {
  for (std::string_view text : patterns) {
    const bool isForFolders = text.ends_with('/');
    while (text.ends_with("/")) text.remove_suffix(1);
    const bool isWholeName = text.find('/') != std::string_view::npos;
    while (text.starts_with("/")) text.remove_prefix(1);
    if (text.starts_with("./")) text.remove_prefix(2);
    if (text.empty()) throw wrongUsage("--exclude: the pattern is empty");
    rules_.push_back({Pattern(text), isWholeName, isForFolders});
  }
}

bool Excluded::has(std::string_view name, bool isFolder) const {
  const std::string_view last = name.substr(name.rfind('/') + 1);
  return std::any_of(rules_.begin(), rules_.end(), [&](const Rule& rule) {
    return (isFolder || !rule.isForFolders) && rule.pattern.matches(rule.isWholeName ? name : last);
  });
}

bool Excluded::covers(std::string_view name, bool isFolder) const {
  if (rules_.empty()) return false;
  for (size_t end = name.find('/'); end != std::string_view::npos; end = name.find('/', end + 1)) {
    if (has(name.substr(0, end), true)) return true;
  }
  return has(name, isFolder);
}

}  // namespace qvdb::tool
