#include "mdoc.h"

#include <algorithm>
#include <sstream>

#include "streams/text.h"

namespace qvdb::manual {
namespace {

constexpr size_t kWidth = 66;  // in characters, of which some take several bytes
constexpr const char* kDate = "November 22, 2026";  // of the last change of the commands

// Where the first sentence ends: after a full stop that a new word follows, not after dots.
size_t endOfSentence(const std::string& text) {
  for (size_t i = 1; i + 2 < text.size(); ++i) {
    const bool isEnd = text[i] == '.' || text[i] == '?' || text[i] == '!';
    if (isEnd && text[i - 1] != '.' && text[i + 1] == ' ') return i + 1;
  }
  return text.size();
}

}  // namespace

std::string upper(std::string text) {
  std::transform(text.begin(), text.end(), text.begin(),
                 [](unsigned char c) { return static_cast<char>(std::toupper(c)); });
  return text;
}

std::string mdocStart(const std::string& name, const std::string& section,
                      const std::string& summary) {
  return std::string(".Dd ") + kDate + "\n.Dt " + upper(name) + " " + section +
         "\n.Os\n.Sh NAME\n.Nm " + name + "\n.Nd " + summary + "\n";
}

std::string mdocEscaped(const std::string& text, bool isLiteral) {
  std::string result;
  for (const char c : text) {
    if (c == '\\') {
      result += "\\e";
    } else if (c == ')' && result.ends_with('(')) {
      result += "\\&)";  // no macro for a function is meant
    } else if (c == '-' && isLiteral) {
      result += "\\-";
    } else {
      result += c;
    }
  }
  return result;
}

std::string mdocLine(const std::string& escaped) {
  const bool looksLikeRequest = escaped.starts_with('.') || escaped.starts_with('\'');
  return (looksLikeRequest ? "\\&" : "") + escaped + "\n";
}

std::string mdocLines(std::string escaped) {
  std::replace(escaped.begin(), escaped.end(), '\n', ' ');
  std::string result;
  while (!escaped.empty()) {
    const size_t end = endOfSentence(escaped);
    std::istringstream lines(tool::wrapped(escaped.substr(0, end), kWidth, 0));
    for (std::string each; std::getline(lines, each);) result += mdocLine(each);
    escaped.erase(0, std::min(escaped.find_first_not_of(' ', end), escaped.size()));
  }
  return result;
}

std::string mdocText(const std::string& text) {
  return mdocLines(mdocEscaped(text, false));
}

}  // namespace qvdb::manual
