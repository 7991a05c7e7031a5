// Guesses the command that was meant: from other usual words for it, from a misspelling, or from a
// file where the command is missing.
#include "command_line/suggestion.h"

#include <algorithm>
#include <numeric>
#include <vector>

#include "command_line/commands.h"

namespace qvdb::tool {
namespace {

struct OtherWord {
  std::string_view word;
  std::string_view command;
};

constexpr OtherWord kOtherWords[] = {
    {"new", "create"},
    {"init", "create"},
    {"make", "create"},
    {"open", "info"},
    {"show", "info"},
    {"header", "info"},
    {"ls", "tables"},
    {"list", "tables"},
    {"table", "tables"},
    {"addtable", "add-table"},
    {"new-table", "add-table"},
    {"create-table", "add-table"},
    {"record", "records"},
    {"cat", "get"},
    {"read", "get"},
    {"fetch", "get"},
    {"add", "put"},
    {"append", "put"},
    {"insert", "put"},
    {"store", "put"},
    {"update", "set"},
    {"modify", "set"},
    {"write", "set"},
    {"replace", "set"},
    {"delete", "rm"},
    {"del", "rm"},
    {"remove", "rm"},
    {"load", "import"},
    {"extract", "export"},
    {"dump", "export"},
    {"stats", "stat"},
    {"statistics", "stat"},
    {"verify", "check"},
    {"fsck", "check"},
    {"validate", "check"},
    {"recover", "salvage"},
    {"rescue", "salvage"},
    {"log", "history"},
    {"versions", "history"},
    {"restore", "undelete"},
    {"unremove", "undelete"},
    {"vacuum", "compact"},
    {"shrink", "compact"},
    {"fix", "repair"},
};

// How many letters must be inserted, removed, changed, or exchanged with their neighbour to turn
// one word into the other.
size_t distance(std::string_view a, std::string_view b) {
  std::vector<size_t> before(b.size() + 1);
  std::vector<size_t> last(b.size() + 1);
  std::vector<size_t> now(b.size() + 1);
  std::iota(last.begin(), last.end(), size_t{0});
  for (size_t i = 1; i <= a.size(); ++i) {
    now[0] = i;
    for (size_t j = 1; j <= b.size(); ++j) {
      const size_t changed = last[j - 1] + (a[i - 1] == b[j - 1] ? 0 : 1);
      now[j] = std::min({last[j] + 1, now[j - 1] + 1, changed});
      if (i > 1 && j > 1 && a[i - 1] == b[j - 2] && a[i - 2] == b[j - 1]) {
        now[j] = std::min(now[j], before[j - 2] + 1);
      }
    }
    before.swap(last);
    last.swap(now);
  }
  return last[b.size()];
}

// The command with the smallest distance; nothing when none is near.
std::string_view nearest(std::string_view word) {
  constexpr size_t kLongestWord = 20;
  if (word.size() > kLongestWord) return {};
  std::string_view found;
  size_t best = word.size() < 5 ? 2 : 3;  // more is not a misspelling
  for (const Command* command : allCommands()) {
    const size_t away = distance(word, command->name);
    if (away >= best) continue;
    best = away;
    found = command->name;
  }
  return found;
}

}  // namespace

std::string suggestionFor(std::string_view word) {
  const auto question = [](std::string_view command) {
    return "did you mean 'qvdb " + std::string(command) + "'?";
  };
  for (const OtherWord& other : kOtherWords) {
    if (other.word == word) return question(other.command);
  }
  const std::string_view command = nearest(word);
  if (!command.empty()) return question(command);
  if (word.find_first_of("./") == std::string_view::npos) return {};
  return question("info " + std::string(word));
}

}  // namespace qvdb::tool
