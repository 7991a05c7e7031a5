// One line of JSON Lines, read strictly: an object whose members are text, whole numbers, true and
// false, lists of these, or one object of such members; no member twice.
#pragma once

#include <qvdbase/qvdb.hpp>

#include <cstddef>
#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace qvdb::tool {

// What is wrong with a line, without its number.
struct BadLine : std::runtime_error {
  using std::runtime_error::runtime_error;
};

struct JsonValue {
  enum class Kind : uint8_t { text, number, negative, truth, list, object };

  Kind kind = Kind::object;
  std::string text;               // of text
  uint64_t number = 0;            // of numbers, and of true: 1; of a negative one: its bits
  std::vector<std::string> keys;  // of an object, in the order of the line
  std::vector<JsonValue> items;   // of a list, or an object
};

// Throws BadLine.
JsonValue parseLine(std::string_view line);

// The members of an object, which are asked for by name. All throw BadLine where a member is
// missing or of another kind.
class Members {
 public:
  explicit Members(JsonValue& object) : object_(object), known_(object.keys.size()) {}

  bool has(std::string_view key) const;
  const std::string& text(std::string_view key);
  uint64_t number(std::string_view key, uint64_t most);
  std::optional<uint64_t> numberIfThere(std::string_view key, uint64_t most);
  int64_t signedNumber(std::string_view key);
  bool truth(std::string_view key);
  Id id(std::string_view key);
  std::vector<Id> ids(std::string_view key);
  std::vector<uint64_t> numbers(std::string_view key, uint64_t most);
  JsonValue& object(std::string_view key);

  // The bytes that JsonLines::bytes() has written.
  std::string bytes(std::string_view key, std::string_view base64Key);

  // To be called when every member that may be there was asked for. Throws BadLine for another one.
  void requireNoOther() const;

 private:
  // The member, which is known from now on; null when there is none.
  JsonValue* find(std::string_view key);
  JsonValue* find(std::string_view key, JsonValue::Kind kind, const char* what);
  JsonValue& get(std::string_view key, JsonValue::Kind kind, const char* what);

  JsonValue& object_;
  std::vector<bool> known_;  // in the order of the keys
};

}  // namespace qvdb::tool
