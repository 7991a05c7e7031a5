// What an import leaves out because its user wants it so.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "selection/pattern.h"

namespace qvdb::tool {

// The patterns of --exclude. One without '/' is compared with the last part of a name, so that it
// counts in all folders; another one with the whole name, and a '/' at its beginning means only
// that. One that ends in '/' counts for folders alone. What is in an excluded folder is excluded.
class Excluded {
 public:
  Excluded() = default;
  // Throws Failure (wrong usage) for an empty pattern.
  explicit Excluded(const std::vector<std::string>& patterns);

  // Whether a pattern matches the name itself.
  bool has(std::string_view name, bool isFolder) const;

  // The same, or matches a folder that it is in.
  bool covers(std::string_view name, bool isFolder) const;

 private:
  struct Rule {
    Pattern pattern;
    bool isWholeName;
    bool isForFolders;
  };
  std::vector<Rule> rules_;
};

}  // namespace qvdb::tool
