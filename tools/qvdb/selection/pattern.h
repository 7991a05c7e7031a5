// Patterns of names, as shells have them.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace qvdb::tool {

// A pattern for a whole name, whose parts are separated by '/'.
//
//   *        any characters but '/', or none
//   **       any characters; "**/" at the beginning of a part also matches no folder at all
//   ?        one character but '/'
//   [abc]    one of these; [a-z] a range, [!abc] and [^abc] any other; never '/'
//   \x       the character x
//
// A character is one of UTF-8, or a byte that is none. A '[' without its ']' and a '\' at the end
// are ordinary characters. Matching takes time in proportion to both lengths, whatever the pattern.
class Pattern {
 public:
  explicit Pattern(std::string_view text);

  bool matches(std::string_view name) const;

  // The text up to the first character with a meaning: each name that matches begins so.
  const std::string& beginning() const { return beginning_; }

  // Whether a text has a character with a meaning.
  static bool isOne(std::string_view text);

 private:
  enum class Kind { character, one, set, part, all, folders, inFolder };
  struct Step {
    Kind kind;
    uint32_t character = 0;
    bool isNegated = false;
    std::vector<std::pair<uint32_t, uint32_t>> ranges = {};
  };

  size_t readSet(std::string_view text, size_t at);
  size_t readStars(std::string_view text, size_t at);
  static bool takes(const Step& step, uint32_t character);
  void enter(size_t state, std::vector<bool>* states) const;

  std::string beginning_;
  std::vector<Step> steps_;
};

}  // namespace qvdb::tool
