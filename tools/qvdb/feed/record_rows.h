// How a record is listed: as a line of a table, and as a JSON object.
#pragma once

#include <qvdbase/qvdb.hpp>

#include <cstdint>
#include <nlohmann/json_fwd.hpp>
#include <string>

#include "streams/output.h"

namespace qvdb::tool {

// What a list shows of a record: `third` is the capacity, or the offset of a deleted one.
struct Row {
  Id id;
  uint64_t size;
  uint64_t third;
  uint32_t created;
  uint32_t modified;
  const std::string* name;  // null for none
};

Row rowOf(const Record& record, const std::string* name = nullptr);

void printHead(const char* third, bool hasNames);
void printRow(const Row& row);

// `third` is the name of that member.
Json jsonOf(const Row& row, const char* third = "capacity");

// The last member, if there is a name.
void addName(Json* json, const Row& row);

}  // namespace qvdb::tool
