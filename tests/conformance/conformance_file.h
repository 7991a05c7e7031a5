// A conformance file of docs/conformance with its contents as the JSON beside it says.
#pragma once

#include <cstdint>
#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <vector>

#include "kit/bytes.h"

namespace qvdbase::test {

struct ExpectedRecord {
  uint64_t id = 0;
  int64_t position = 0;
  uint32_t createTime = 0;
  uint32_t modifyTime = 0;
  uint32_t capacity = 0;
  std::optional<std::string> payload;  // none when it claims more than its capacity
};

struct ExpectedTable {
  uint64_t id = 0;
  std::string name;
  std::optional<std::string> data;
  int64_t dataPosition = 0;
  bool complete = true;
  bool loops = false;
  std::vector<ExpectedRecord> records;

  std::vector<uint64_t> ids() const {
    std::vector<uint64_t> all;
    for (const ExpectedRecord& record : records) all.push_back(record.id);
    return all;
  }
};

// Bytes are strings of the characters U+0000 to U+00FF.
inline std::string bytesIn(const nlohmann::json& text) {
  const auto& utf8 = text.get_ref<const std::string&>();
  std::string bytes;
  for (size_t i = 0; i < utf8.size(); ++i) {
    const auto lead = static_cast<unsigned char>(utf8[i]);
    if (lead < 0x80) {
      bytes += utf8[i];
    } else {
      const auto next = static_cast<unsigned char>(utf8.at(++i));
      bytes += static_cast<char>((lead & 0x03) << 6 | (next & 0x3F));
    }
  }
  return bytes;
}

inline std::optional<std::string> bytesOrNothing(const nlohmann::json& text) {
  if (text.is_null()) return std::nullopt;
  return bytesIn(text);
}

inline uint64_t numberIn(const nlohmann::json& id) {
  return std::stoull(id.get<std::string>(), nullptr, 16);
}

class ConformanceFile {
 public:
  explicit ConformanceFile(const std::string& name)
      : path_(std::filesystem::path(QVDBASE_CONFORMANCE) / (name + ".qvd")),
        bytes_(readFile(path_)) {
    std::ifstream description(std::filesystem::path(path_).replace_extension(".json"));
    json_ = nlohmann::json::parse(description);
    for (const auto& table : json_["tables"]) tables_.push_back(tableIn(table));
  }

  const std::filesystem::path& path() const { return path_; }
  const Bytes& bytes() const { return bytes_; }
  const nlohmann::json& json() const { return json_; }
  const std::vector<ExpectedTable>& tables() const { return tables_; }

  bool isComplete() const {
    for (const ExpectedTable& table : tables_) {
      if (!table.complete) return false;
    }
    return true;
  }

 private:
  static ExpectedTable tableIn(const nlohmann::json& json) {
    ExpectedTable table;
    table.id = numberIn(json["id"]);
    table.name = bytesIn(json["name"]);
    table.data = bytesOrNothing(json["data"]);
    table.dataPosition = json["data_position"];
    table.complete = json["complete"];
    table.loops = json.value("loops", false);
    for (const auto& record : json["records"]) {
      table.records.push_back({numberIn(record["id"]), record["position"], record["created"],
                               record["modified"], record["capacity"],
                               bytesOrNothing(record["payload"])});
    }
    return table;
  }

  std::filesystem::path path_;
  Bytes bytes_;
  nlohmann::json json_;
  std::vector<ExpectedTable> tables_;
};

}  // namespace qvdbase::test
