// JSON Lines: objects of one line each, written member by member into a buffer. Text that comes
// from a file is passed through unchanged where it is UTF-8 that prints, and as base64 where it is
// not.
#pragma once

#include <qvdbase/qvdb.hpp>

#include <cstdint>
#include <functional>
#include <span>
#include <string>
#include <string_view>

namespace qvdb::tool {

// Takes what was written, in large pieces.
using TextSink = std::function<void(std::string_view)>;

// Whether the bytes are UTF-8 without control characters other than tabs and line ends.
bool printsAsText(std::string_view bytes);

// How many of the bytes are whole characters, if they are UTF-8: all of them, or up to three fewer
// where the last character is cut off.
size_t wholeCharacters(std::string_view bytes);

// The bytes of base64 with padding. Nothing for anything else.
bool decodeBase64(std::string_view text, std::string* bytes);

class JsonLines {
 public:
  explicit JsonLines(TextSink sink) : sink_(std::move(sink)) {}

  // A line: its members between begin() and end().
  void begin();
  void end();

  void number(std::string_view key, uint64_t value);
  void signedNumber(std::string_view key, int64_t value);
  void truth(std::string_view key, bool value);
  void id(std::string_view key, Id value);
  // `key` with text, or `base64Key` with base64.
  void bytes(std::string_view key, std::string_view base64Key, std::string_view value);

  // A list, or an object inside the line: what follows up to close() is in it. The elements of a
  // list have no key.
  void openList(std::string_view key) { open(key, '['); }
  void openObject(std::string_view key) { open(key, '{'); }
  void close(char bracket);
  static constexpr std::string_view kElement = {};

  // Passes everything on.
  void flush();

 private:
  void open(std::string_view key, char bracket);
  void startMember(std::string_view key);
  void appendText(std::string_view text);
  void appendBase64(std::string_view bytes);

  TextSink sink_;
  std::string text_;
  bool isFirst_ = true;
};

inline std::string_view textOf(std::span<const std::byte> bytes) {
  return {reinterpret_cast<const char*>(bytes.data()), bytes.size()};
}

}  // namespace qvdb::tool
