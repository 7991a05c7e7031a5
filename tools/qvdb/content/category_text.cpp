// Categories as text.
#include "content/category_text.h"

#include "format/big_endian.h"
#include "format/category.h"
#include "streams/text.h"

using namespace qvdbase;

namespace qvdb::tool {
namespace {

constexpr size_t kNameBytes = static_cast<size_t>(format::category::kNameSize);

// Reads a payload from its beginning to its end.
class Cursor {
 public:
  explicit Cursor(std::string_view bytes) : left_(bytes) {}

  std::string_view take(uint64_t count) {
    isShort_ = isShort_ || count > left_.size();
    if (isShort_) return {};
    const std::string_view taken = left_.substr(0, static_cast<size_t>(count));
    left_.remove_prefix(taken.size());
    return taken;
  }

  template <typename Unsigned>
  Unsigned number() {
    const std::string_view bytes = take(sizeof(Unsigned));
    if (bytes.empty()) return 0;
    return format::loadBigEndian<Unsigned>(reinterpret_cast<const unsigned char*>(bytes.data()));
  }

  // A count and as many identifiers. One that is negative as a signed number is never there.
  void ids(std::vector<Id>* to) {
    const auto count = number<uint32_t>();
    isShort_ = isShort_ || uint64_t{count} * sizeof(uint64_t) > left_.size();
    for (uint32_t i = 0; i < count && !isShort_; ++i) to->push_back(Id{number<uint64_t>()});
  }

  bool isAtEnd() const { return !isShort_ && left_.empty(); }

 private:
  std::string_view left_;
  bool isShort_ = false;
};

template <typename Unsigned>
void append(Unsigned value, std::string* to) {
  unsigned char bytes[sizeof(Unsigned)];
  format::storeBigEndian(bytes, value);
  to->append(reinterpret_cast<const char*>(bytes), sizeof bytes);
}

void appendIds(const std::vector<Id>& ids, std::string* to) {
  append(static_cast<uint32_t>(ids.size()), to);
  for (const Id id : ids) append(id.value, to);
}

void appendUtf8(uint32_t code, std::string* to) {
  if (code < 0x80) {
    *to += static_cast<char>(code);
    return;
  }
  const int more = code < 0x800 ? 1 : code < 0x10000 ? 2 : 3;
  constexpr unsigned kFirst[] = {0, 0xC0, 0xE0, 0xF0};
  *to += static_cast<char>(kFirst[more] | code >> (6 * more));
  for (int i = more - 1; i >= 0; --i) *to += static_cast<char>(0x80 | (code >> (6 * i) & 0x3F));
}

uint32_t unitAt(std::string_view name, size_t at) {
  return static_cast<uint32_t>(static_cast<unsigned char>(name[at]) |
                               static_cast<unsigned char>(name[at + 1]) << 8);
}

// The name up to its first zero. What is not UTF-16 becomes something that is not encoded alike.
std::string nameOf(std::string_view stored) {
  std::string name;
  for (size_t i = 0; i + 1 < stored.size(); i += 2) {
    uint32_t code = unitAt(stored, i);
    if (code == 0) break;
    if (code >= 0xD800 && code < 0xDC00 && i + 3 < stored.size()) {
      const uint32_t low = unitAt(stored, i + 2);
      if (low >= 0xDC00 && low < 0xE000) {
        code = 0x10000 + ((code - 0xD800) << 10) + (low - 0xDC00);
        i += 2;
      }
    }
    appendUtf8(code, &name);
  }
  return name;
}

void appendUnit(uint32_t unit, std::string* to) {
  *to += static_cast<char>(unit & 0xFF);
  *to += static_cast<char>(unit >> 8);
}

std::optional<std::string> storedName(std::string_view name) {
  std::string stored;
  while (!name.empty()) {
    uint32_t code = 0;
    const size_t length = utf8Character(name, &code);
    if (length == 0 || code == 0) return std::nullopt;
    if (code >= 0x10000) {
      appendUnit(0xD800 + ((code - 0x10000) >> 10), &stored);
      code = 0xDC00 + ((code - 0x10000) & 0x3FF);
    }
    appendUnit(code, &stored);
    name.remove_prefix(length);
  }
  if (stored.size() > kNameBytes) return std::nullopt;
  stored.resize(kNameBytes);
  return stored;
}

}  // namespace

bool isCategoryTable(std::string_view name) {
  return name == format::kCategoryTable;
}

std::optional<CategoryText> decodeCategory(std::string_view payload) {
  CategoryText category;
  Cursor cursor(payload);
  category.id = Id{cursor.number<uint64_t>()};
  category.name = nameOf(cursor.take(kNameBytes));
  category.param = cursor.number<uint32_t>();
  category.related = Id{cursor.number<uint64_t>()};
  cursor.ids(&category.first);
  cursor.ids(&category.second);
  category.extra = cursor.take(cursor.number<uint32_t>());
  if (!cursor.isAtEnd() || encodeCategory(category) != payload) return std::nullopt;
  return category;
}

std::optional<std::string> encodeCategory(const CategoryText& category) {
  const std::optional<std::string> name = storedName(category.name);
  if (!name) return std::nullopt;
  std::string payload;
  append(category.id.value, &payload);
  payload += *name;
  append(category.param, &payload);
  append(category.related.value, &payload);
  appendIds(category.first, &payload);
  appendIds(category.second, &payload);
  append(static_cast<uint32_t>(category.extra.size()), &payload);
  return payload + category.extra;
}

void writeCategory(const CategoryText& category, JsonLines& lines) {
  lines.id("id", category.id);
  lines.bytes("name", "name_base64", category.name);
  lines.number("param", category.param);
  lines.id("related", category.related);
  lines.openList("first");
  for (const Id id : category.first) lines.id(JsonLines::kElement, id);
  lines.close(']');
  lines.openList("second");
  for (const Id id : category.second) lines.id(JsonLines::kElement, id);
  lines.close(']');
  lines.bytes("extra", "extra_base64", category.extra);
}

}  // namespace qvdb::tool
