// What a database shows to those who read it through the library, as plain values.
#pragma once

#include <qvdbase/qvdb.hpp>

#include <algorithm>
#include <cstddef>
#include <span>
#include <stdexcept>
#include <string>
#include <vector>

#include "kit/table_contents.h"

namespace qvdbase::test {

inline std::string textOf(std::span<const std::byte> bytes) {
  return {reinterpret_cast<const char*>(bytes.data()), bytes.size()};
}

// Every table is walked in both directions, and each record looked up. Throws what these throw, and
// std::runtime_error where they do not agree.
inline TableContents shownBy(const qvdb::Database& database) {
  TableContents contents;
  for (const qvdb::Table& table : database.tables()) {
    TableContent& content = contents[table.name()];
    if (const auto data = table.data()) content.data = textOf(*data);
    for (const qvdb::Record& record : table.records()) {
      content.records.emplace_back(record.id().value, textOf(record.payload()));
    }
    std::vector<uint64_t> backwards;
    for (const qvdb::Record& record : table.records({.order = qvdb::Order::newest_first})) {
      backwards.push_back(record.id().value);
    }
    std::reverse(backwards.begin(), backwards.end());
    bool agrees = backwards.size() == content.records.size() && table.count() == backwards.size();
    for (size_t i = 0; agrees && i < backwards.size(); ++i) {
      const auto& [id, payload] = content.records[i];
      const auto found = table.get(qvdb::Id{id});
      agrees = backwards[i] == id && found && textOf(*found) == payload;
    }
    if (!agrees) throw std::runtime_error("two ways of reading a table do not agree");
  }
  return contents;
}

}  // namespace qvdbase::test
