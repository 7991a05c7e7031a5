// Which of many names a user means.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace qvdb::tool {

struct ChoosableName {
  std::string_view name;
  bool isFolder = false;
};

// A name that exists is that name, whatever characters are in it; a folder means all that is below
// it, too. Any other text is a pattern for whole names (see Pattern), and a folder that matches
// means all below it again. A '/' at the end of either means folders alone; "./" at the beginning
// of either means nothing.
class NameChoice {
 public:
  // The texts of the names must outlive this. A name may be there several times.
  explicit NameChoice(std::vector<ChoosableName> names);

  // The places of the names that are meant, in the order of the names.
  std::vector<size_t> find(std::string_view text) const;

  // Whether the text is a name that exists, or has names below it.
  bool isName(std::string_view text) const;

 private:
  using Order = std::vector<size_t>::const_iterator;
  Order firstFrom(std::string_view name) const;
  std::vector<size_t> findName(std::string_view name, bool isForFolders) const;
  std::vector<size_t> findPattern(std::string_view text, bool isForFolders) const;

  std::vector<ChoosableName> names_;
  std::vector<size_t> order_;  // places, sorted by name
};

}  // namespace qvdb::tool
