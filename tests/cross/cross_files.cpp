// Writes database files, or prints what is in them: the program that runs on several machines.
//
//   cross_files write FOLDER
//   cross_files read FOLDER
#include <qvdbase/qvdb.hpp>

#include <algorithm>
#include <cstdio>
#include <exception>
#include <filesystem>
#include <string>
#include <vector>

#include "cross/written_files.h"

namespace {

void print(const char* what, const std::vector<std::byte>& bytes) {
  std::printf(" %s", what);
  for (const std::byte each : bytes) std::printf("%02x", std::to_integer<unsigned>(each));
}

void readFile(const std::filesystem::path& path) {
  const qvdb::Database database = qvdb::Database::open(path);
  const qvdb::DatabaseInfo info = database.info();
  std::printf("%s %s %u\n", path.filename().c_str(), qvdb::to_string(info.id).c_str(),
              static_cast<unsigned>(info.version));
  for (const qvdb::Table& table : database.tables()) {
    std::printf("%s %s", table.name().c_str(), qvdb::to_string(table.id()).c_str());
    try {
      if (const auto data = table.data()) print("data ", *data);
    } catch (const qvdb::Error&) {
      std::printf(" no data");  // as a pack leaves it
    }
    std::printf("\n");
    for (const qvdb::Record& record : table.records()) {
      const qvdb::RecordInfo& about = record.info();
      std::printf("%s %u %u %u %u %lld", qvdb::to_string(about.id).c_str(),
                  static_cast<unsigned>(about.create_time),
                  static_cast<unsigned>(about.modify_time), static_cast<unsigned>(about.size),
                  static_cast<unsigned>(about.capacity), static_cast<long long>(about.position));
      print("", record.payload());
      std::printf("\n");
    }
  }
}

void readFiles(const std::filesystem::path& folder) {
  std::vector<std::filesystem::path> files;
  for (const auto& entry : std::filesystem::directory_iterator(folder)) files.push_back(entry);
  std::sort(files.begin(), files.end());
  for (const auto& each : files) readFile(each);
}

}  // namespace

int main(int count, char** arguments) {
  const std::string action = count == 3 ? arguments[1] : "";
  try {
    const std::filesystem::path folder = std::filesystem::absolute(count == 3 ? arguments[2] : "");
    if (action == "write") {
      qvdbase::test::writeFiles(folder);
    } else if (action == "read") {
      readFiles(folder);
    } else {
      std::fprintf(stderr, "usage: cross_files write|read FOLDER\n");
      return 2;
    }
  } catch (const std::exception& error) {
    std::fprintf(stderr, "cross_files: %s\n", error.what());
    return 1;
  }
  return 0;
}
