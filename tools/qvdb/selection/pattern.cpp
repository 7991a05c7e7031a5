// Patterns of names.
//
// A pattern becomes a list of steps, and a name is compared with all ways through them at once: no
// pattern makes that slow, as trying one way after the other would.
#include "selection/pattern.h"

#include <algorithm>

#include "streams/text.h"

namespace qvdb::tool {
namespace {

constexpr uint32_t kByte = 0x110000;  // added to a byte that is no UTF-8

// The character at `*at`, which moves on to the next.
uint32_t nextOf(std::string_view text, size_t* at) {
  uint32_t code = 0;
  if (const size_t length = utf8Character(text.substr(*at), &code)) {
    *at += length;
    return code;
  }
  return kByte + static_cast<unsigned char>(text[(*at)++]);
}

}  // namespace

bool Pattern::isOne(std::string_view text) {
  return text.find_first_of("*?[\\") != std::string_view::npos;
}

Pattern::Pattern(std::string_view text) : beginning_(text.substr(0, text.find_first_of("*?[\\"))) {
  size_t at = 0;
  while (at < text.size()) {
    const char next = text[at];
    if (next == '*') {
      at = readStars(text, at);
    } else if (next == '?') {
      steps_.push_back({Kind::one});
      ++at;
    } else if (const size_t after = next == '[' ? readSet(text, at) : 0) {
      at = after;
    } else {
      if (next == '\\' && at + 1 < text.size()) ++at;
      steps_.push_back({Kind::character, nextOf(text, &at)});
    }
  }
}

size_t Pattern::readStars(std::string_view text, size_t at) {
  const size_t end = std::min(text.find_first_not_of('*', at), text.size());
  if (end - at == 1) {
    steps_.push_back({Kind::part});
    return end;
  }
  const bool isPart = (at == 0 || text[at - 1] == '/') && end < text.size() && text[end] == '/';
  if (!isPart) {
    steps_.push_back({Kind::all});
    return end;
  }
  steps_.push_back({Kind::folders});
  steps_.push_back({Kind::inFolder});
  return end + 1;
}

// Returns where the text continues, or 0 when the set does not end.
size_t Pattern::readSet(std::string_view text, size_t at) {
  Step set = {Kind::set};
  ++at;
  if (at < text.size() && (text[at] == '!' || text[at] == '^')) {
    set.isNegated = true;
    ++at;
  }
  const auto read = [&] {
    if (text[at] == '\\' && at + 1 < text.size()) ++at;
    return nextOf(text, &at);
  };
  const size_t first = at;
  while (at < text.size() && (text[at] != ']' || at == first)) {
    const uint32_t from = read();
    const bool isRange = at + 1 < text.size() && text[at] == '-' && text[at + 1] != ']';
    if (isRange) ++at;
    set.ranges.emplace_back(from, isRange ? read() : from);
  }
  if (at >= text.size()) return 0;
  steps_.push_back(std::move(set));
  return at + 1;
}

bool Pattern::takes(const Step& step, uint32_t character) {
  switch (step.kind) {
    case Kind::character:
      return character == step.character;
    case Kind::one:
    case Kind::part:
      return character != '/';
    case Kind::set: {
      if (character == '/') return false;
      const bool isIn = std::any_of(step.ranges.begin(), step.ranges.end(), [&](const auto& range) {
        return range.first <= character && character <= range.second;
      });
      return isIn != step.isNegated;
    }
    default:
      return true;
  }
}

// Notes that this step comes next, and those that may come next because it can take nothing.
void Pattern::enter(size_t state, std::vector<bool>* states) const {
  for (;;) {
    (*states)[state] = true;
    if (state == steps_.size()) return;
    const Kind kind = steps_[state].kind;
    if (kind != Kind::part && kind != Kind::all && kind != Kind::folders) return;
    state += kind == Kind::folders ? 2 : 1;
  }
}

bool Pattern::matches(std::string_view name) const {
  if (!name.starts_with(beginning_)) return false;
  std::vector<bool> states(steps_.size() + 1);
  std::vector<bool> next(steps_.size() + 1);
  enter(0, &states);
  for (size_t at = 0; at < name.size();) {
    const uint32_t character = nextOf(name, &at);
    next.assign(next.size(), false);
    bool hasNext = false;
    for (size_t i = 0; i < steps_.size(); ++i) {
      if (!states[i] || !takes(steps_[i], character)) continue;
      hasNext = true;
      switch (steps_[i].kind) {
        case Kind::part:
        case Kind::all:
          enter(i, &next);
          break;
        case Kind::folders:
          enter(character == '/' ? i : i + 1, &next);
          break;
        case Kind::inFolder:
          enter(character == '/' ? i - 1 : i, &next);
          break;
        default:
          enter(i + 1, &next);
      }
    }
    if (!hasNext) return false;
    states.swap(next);
  }
  return states.back();
}

}  // namespace qvdb::tool
