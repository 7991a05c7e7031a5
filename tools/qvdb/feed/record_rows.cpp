#include "feed/record_rows.h"

#include <nlohmann/json.hpp>

#include "streams/text.h"

namespace qvdb::tool {

Row rowOf(const Record& record, const std::string* name) {
  const RecordInfo& info = record.info();
  return {info.id, info.size, info.capacity, info.create_time, info.modify_time, name};
}

void printRow(const Row& row) {
  std::string line = to_string(row.id) + column(std::to_string(row.size), 12) +
                     column(std::to_string(row.third), 12) + "  " + timeText(row.created) + "  " +
                     timeText(row.modified);
  if (row.name != nullptr) line += "  " + escaped(*row.name);
  printLine(line);
}

void printHead(const char* third, bool hasNames) {
  printLine("ID                        SIZE" + column(third, 12) +
            "  CREATED               MODIFIED" + (hasNames ? "              NAME" : ""));
}

Json jsonOf(const Row& row, const char* third) {
  Json json;
  json["id"] = to_string(row.id);
  json["size"] = row.size;
  json[third] = row.third;
  json["created"] = timeText(row.created);
  json["modified"] = timeText(row.modified);
  return json;
}

void addName(Json* json, const Row& row) {
  if (row.name != nullptr) addText(json, "name", *row.name);
}

}  // namespace qvdb::tool
