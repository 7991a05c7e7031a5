// The payload of a category, decoded for a dump. docs/format.md has its structure.
#pragma once

#include <qvdbase/qvdb.hpp>

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "content/json_lines.h"

namespace qvdb::tool {

struct CategoryText {
  Id id;
  std::string name;  // UTF-8
  uint32_t param = 0;
  Id related;
  std::vector<Id> first;
  std::vector<Id> second;
  std::string extra;  // any bytes
};

// Whether the table is the one whose records are categories.
bool isCategoryTable(std::string_view name);

// A payload. Nothing unless encoding the result yields the same bytes.
std::optional<CategoryText> decodeCategory(std::string_view payload);

// Its payload. Nothing for a name of more than 32 UTF-16 characters, or one that is not UTF-8.
std::optional<std::string> encodeCategory(const CategoryText& category);

// Writes it as the members of an object.
void writeCategory(const CategoryText& category, JsonLines& lines);

}  // namespace qvdb::tool
