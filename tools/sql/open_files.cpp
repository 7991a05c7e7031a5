// The databases that virtual tables have open.
#include "sql/open_files.h"

#include <algorithm>

namespace qvdb::sql {
namespace {

constexpr size_t kMostFiles = 16;           // one virtual table keeps open
constexpr uint64_t kLookupsForAnIndex = 3;  // an index costs one walk; so does each lookup

}  // namespace

OpenFile::OpenFile(const std::string& path)
    : path_(path), database_(Database::open(path, Mode::read_only)) {}

Table OpenFile::table(const std::string& nameOrId) const {
  auto table = database_.find_table(nameOrId);
  const auto id = parse_id(nameOrId);
  if (!table && id) table = database_.find_table(*id);
  return table ? *table : database_.table(nameOrId);
}

std::optional<Record> OpenFile::find(const Table& table, Id record) {
  Lookups& lookups = lookups_[table.id()];
  if (!lookups.index && ++lookups.count >= kLookupsForAnIndex) lookups.index = table.index();
  return table.find(record);
}

std::shared_ptr<OpenFile> OpenFiles::at(std::string_view path) {
  const auto found = std::find_if(files_.begin(), files_.end(),
                                  [&](const auto& file) { return file->path() == path; });
  if (found != files_.end()) {
    std::shared_ptr<OpenFile> file = *found;
    if (file->database().is_current()) return file;
    files_.erase(found);  // a statement that still reads it keeps it
  }
  if (files_.size() == kMostFiles) files_.erase(files_.begin());
  files_.push_back(std::make_shared<OpenFile>(std::string(path)));
  return files_.back();
}

}  // namespace qvdb::sql
