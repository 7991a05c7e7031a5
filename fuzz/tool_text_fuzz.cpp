// Fuzz target: the texts that the tool takes from users and from files: identifiers, and names and
// payloads on their way to a terminal.
#include <qvdbase/qvdb/id.hpp>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <string>
#include <string_view>

#include "streams/text.h"

namespace {

void require(bool condition, const char* what) {
  if (condition) return;
  std::fprintf(stderr, "not so: %s\n", what);
  std::abort();
}

void identifiers(std::string_view text) {
  const std::optional<qvdb::Id> id = qvdb::parse_id(text);
  if (!id) return;
  require(text.find_first_not_of("0123456789abcdefABCDEFxX") == text.npos,
          "an identifier is digits");
  require(qvdb::parse_id(qvdb::to_string(*id)) == id, "an identifier reads as it is written");
  require(qvdb::parse_id(std::to_string(id->value)) == id, "and in decimal");
}

// Undoes escaped(): what came out must lead back to what went in.
std::string unescaped(std::string_view text) {
  std::string bytes;
  for (size_t i = 0; i < text.size(); ++i) {
    if (text[i] != '\\') {
      bytes += text[i];
    } else if (text[i + 1] == '\\') {
      bytes += text[++i];
    } else {
      bytes += static_cast<char>(std::stoi(std::string(text.substr(i + 2, 2)), nullptr, 16));
      i += 3;
    }
  }
  return bytes;
}

void escapes(std::string_view bytes) {
  using namespace qvdb::tool;
  const std::string text = escaped(bytes);
  require(isUtf8(text), "escaped text is UTF-8");
  require(std::none_of(text.begin(), text.end(),
                       [](char c) { return static_cast<unsigned char>(c) < 0x20 || c == 0x7F; }),
          "escaped text has no control characters");
  size_t pending = 1;
  require(!isBinary(text, &pending) && pending == 0, "escaped text can be shown");
  require(unescaped(text) == bytes, "escaped text leads back to the bytes");
}

// Text in two pieces is judged as it is in one.
void pieces(std::string_view bytes, size_t cut) {
  using namespace qvdb::tool;
  size_t pending = 0;
  const bool whole = isBinary(bytes, &pending) || pending != 0;
  const std::string_view first = bytes.substr(0, cut);
  bool inPieces = isBinary(first, &pending);
  require(pending <= 3 && pending <= first.size(), "at most a part of a character is pending");
  if (!inPieces) {
    size_t last = 0;
    inPieces = isBinary(bytes.substr(first.size() - pending), &last) || last != 0;
  }
  require(whole == inPieces, "two pieces are judged as one");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  identifiers(text);
  escapes(text);
  pieces(text, size == 0 ? 0 : data[size - 1] % (size + 1));
  int64_t seconds = 0;
  if (size != 0) std::memcpy(&seconds, data, std::min(size, sizeof seconds));
  require(!qvdb::tool::timeText(seconds).empty(), "any time has a text");
  return 0;
}
