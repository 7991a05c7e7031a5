// Reading one line of JSON Lines.
#include "content/json_line.h"

#include <algorithm>
#include <nlohmann/json.hpp>

#include "content/json_lines.h"
#include "streams/text.h"

namespace qvdb::tool {
namespace {

constexpr size_t kDeepest = 3;  // a list in an object in the line

// Takes what the parser finds.
class Builder {
 public:
  using number_integer_t = nlohmann::json::number_integer_t;
  using number_unsigned_t = nlohmann::json::number_unsigned_t;
  using number_float_t = nlohmann::json::number_float_t;
  using string_t = nlohmann::json::string_t;
  using binary_t = nlohmann::json::binary_t;

  bool null() { throw BadLine("null has no meaning here"); }
  bool boolean(bool value) {
    add(JsonValue::Kind::truth).number = value ? 1 : 0;
    return true;
  }
  bool number_integer(number_integer_t value) {
    add(JsonValue::Kind::negative).number = static_cast<uint64_t>(value);
    return true;
  }
  bool number_unsigned(number_unsigned_t value) {
    add(JsonValue::Kind::number).number = value;
    return true;
  }
  bool number_float(number_float_t, const string_t& written) {
    throw BadLine("the number " + written.substr(0, 30) + " is not a whole number below 2^64");
  }
  bool string(string_t& value) {
    // Half of a character that needs two would not be UTF-8.
    if (!isUtf8(value)) throw BadLine("a text is not UTF-8");
    add(JsonValue::Kind::text).text = std::move(value);
    return true;
  }
  bool binary(binary_t&) { return false; }
  bool start_object(size_t) { return open(JsonValue::Kind::object); }
  bool end_object() { return close(); }
  bool start_array(size_t) { return open(JsonValue::Kind::list); }
  bool end_array() { return close(); }
  bool key(string_t& name) {
    std::vector<std::string>& keys = open_.back()->keys;
    if (std::find(keys.begin(), keys.end(), name) != keys.end()) {
      throw BadLine("the member \"" + name.substr(0, 60) + "\" is there twice");
    }
    if (keys.size() == kMostMembers) throw BadLine("an object has too many members");
    keys.push_back(std::move(name));
    return true;
  }
  bool parse_error(size_t position, const std::string&, const nlohmann::json::exception&) {
    throw BadLine("it is not valid JSON in UTF-8 at byte " + std::to_string(position));
  }

  JsonValue take() {
    if (root_.kind != JsonValue::Kind::object) throw BadLine("it is not a JSON object");
    return std::move(root_);
  }

 private:
  static constexpr size_t kMostMembers = 32;  // no line of ours has as many

  JsonValue& add(JsonValue::Kind kind) {
    if (open_.empty()) {
      root_.kind = kind;
      return root_;
    }
    JsonValue& added = open_.back()->items.emplace_back();
    added.kind = kind;
    return added;
  }

  // Pointers stay valid: nothing is added to a list or object while one inside it is open.
  bool open(JsonValue::Kind kind) {
    if (open_.size() == kDeepest) throw BadLine("it is nested too deeply");
    open_.push_back(&add(kind));
    return true;
  }

  bool close() {
    open_.pop_back();
    return true;
  }

  JsonValue root_;
  std::vector<JsonValue*> open_;
};

std::string inQuotes(std::string_view key) {
  return "\"" + std::string(key) + "\"";
}

Id idOf(std::string_view text, std::string_view key) {
  const auto id = text.starts_with("0x") ? parse_id(text) : std::nullopt;
  if (!id) throw BadLine(inQuotes(key) + " is not an identifier: 0x and hexadecimal digits");
  return *id;
}

void requireAtMost(uint64_t value, uint64_t most, std::string_view key) {
  if (value > most) throw BadLine(inQuotes(key) + " is more than " + std::to_string(most));
}

}  // namespace

JsonValue parseLine(std::string_view line) {
  Builder builder;
  nlohmann::json::sax_parse(line.data(), line.data() + line.size(), &builder);
  return builder.take();
}

bool Members::has(std::string_view key) const {
  return std::find(object_.keys.begin(), object_.keys.end(), key) != object_.keys.end();
}

JsonValue* Members::find(std::string_view key) {
  const auto at = std::find(object_.keys.begin(), object_.keys.end(), key);
  if (at == object_.keys.end()) return nullptr;
  const auto place = static_cast<size_t>(at - object_.keys.begin());
  known_[place] = true;
  return &object_.items[place];
}

JsonValue* Members::find(std::string_view key, JsonValue::Kind kind, const char* what) {
  JsonValue* const value = find(key);
  if (value != nullptr && value->kind != kind) throw BadLine(inQuotes(key) + " is not " + what);
  return value;
}

JsonValue& Members::get(std::string_view key, JsonValue::Kind kind, const char* what) {
  JsonValue* const value = find(key, kind, what);
  if (value == nullptr) throw BadLine(inQuotes(key) + " is missing");
  return *value;
}

const std::string& Members::text(std::string_view key) {
  return get(key, JsonValue::Kind::text, "text").text;
}

uint64_t Members::number(std::string_view key, uint64_t most) {
  const uint64_t value = get(key, JsonValue::Kind::number, "a whole number").number;
  requireAtMost(value, most, key);
  return value;
}

std::optional<uint64_t> Members::numberIfThere(std::string_view key, uint64_t most) {
  if (find(key, JsonValue::Kind::number, "a whole number") == nullptr) return std::nullopt;
  return number(key, most);
}

int64_t Members::signedNumber(std::string_view key) {
  const JsonValue* const value = find(key);
  if (value != nullptr && value->kind == JsonValue::Kind::negative) {
    return static_cast<int64_t>(value->number);
  }
  return static_cast<int64_t>(number(key, INT64_MAX));
}

bool Members::truth(std::string_view key) {
  const JsonValue* const value = find(key, JsonValue::Kind::truth, "true or false");
  return value != nullptr && value->number != 0;
}

Id Members::id(std::string_view key) {
  return idOf(get(key, JsonValue::Kind::text, "an identifier as text").text, key);
}

std::vector<Id> Members::ids(std::string_view key) {
  std::vector<Id> ids;
  for (const JsonValue& item : get(key, JsonValue::Kind::list, "a list").items) {
    if (item.kind != JsonValue::Kind::text) throw BadLine(inQuotes(key) + " is no list of text");
    ids.push_back(idOf(item.text, key));
  }
  return ids;
}

std::vector<uint64_t> Members::numbers(std::string_view key, uint64_t most) {
  std::vector<uint64_t> numbers;
  for (const JsonValue& item : get(key, JsonValue::Kind::list, "a list").items) {
    if (item.kind != JsonValue::Kind::number)
      throw BadLine(inQuotes(key) + " is no list of numbers");
    requireAtMost(item.number, most, key);
    numbers.push_back(item.number);
  }
  return numbers;
}

JsonValue& Members::object(std::string_view key) {
  return get(key, JsonValue::Kind::object, "an object");
}

std::string Members::bytes(std::string_view key, std::string_view base64Key) {
  JsonValue* const plain = find(key, JsonValue::Kind::text, "text");
  JsonValue* const encoded = find(base64Key, JsonValue::Kind::text, "text");
  if (plain != nullptr && encoded != nullptr) {
    throw BadLine(inQuotes(key) + " and " + inQuotes(base64Key) + " exclude each other");
  }
  if (plain != nullptr) return std::move(plain->text);
  if (encoded == nullptr) throw BadLine(inQuotes(key) + " is missing");
  std::string bytes;
  if (!decodeBase64(encoded->text, &bytes)) throw BadLine(inQuotes(base64Key) + " is not base64");
  return bytes;
}

void Members::requireNoOther() const {
  const auto unknown = std::find(known_.begin(), known_.end(), false);
  if (unknown == known_.end()) return;
  const std::string& key = object_.keys[static_cast<size_t>(unknown - known_.begin())];
  throw BadLine("a member " + inQuotes(key.substr(0, 60)) + " is not known in such a line");
}

}  // namespace qvdb::tool
