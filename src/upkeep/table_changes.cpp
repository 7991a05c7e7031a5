#include "upkeep/table_changes.h"

#include <qvdbase/qvdb/error.hpp>

#include <algorithm>
#include <cstring>
#include <set>

#include "failure/failure.h"
#include "format/block_heads.h"
#include "recovery/survey/words.h"

using namespace qvdb;
using namespace qvdbase::format;

namespace qvdbase::upkeep {

namespace {

class Changes {
 public:
  Changes(const std::filesystem::path& path, const char* operation, LiveDatabase* database)
      : path_(path), operation_(operation), database_(*database) {}

  void apply(const CompactOptions& options) {
    std::set<size_t> dropped;
    std::vector<std::pair<size_t, std::string>> renamed;
    for (const std::string& name : options.clear) clear(&database_.tables[indexOf(name)]);
    for (const std::string& name : options.drop) dropped.insert(indexOf(name));
    for (const auto& [from, to] : options.rename) renamed.emplace_back(indexOf(from), to);
    for (const auto& [index, name] : renamed) rename(&database_.tables[index], name);
    refuseEqualNames(renamed, dropped);
    for (auto index = dropped.rbegin(); index != dropped.rend(); ++index) {
      database_.tables.erase(database_.tables.begin() + static_cast<std::ptrdiff_t>(*index));
    }
    storeBigEndian(database_.header.data() + kTableCountPos,
                   static_cast<uint16_t>(database_.tables.size()));
  }

 private:
  [[noreturn]] void fail(Reason reason, const std::string& why) const {
    failure::throwError(path_, operation_, reason, why);
  }

  size_t indexOf(const std::string& name) {
    const auto found = std::find_if(database_.tables.begin(), database_.tables.end(),
                                    [&](const LiveTable& table) { return table.name == name; });
    if (found == database_.tables.end()) {
      fail(Reason::table_missing, survey::joined("there is no table '", name, "'"));
    }
    const auto index = static_cast<size_t>(found - database_.tables.begin());
    if (!named_.insert(index).second) {
      fail(Reason::bad_argument, survey::joined("the table '", name, "' is named twice"));
    }
    return index;
  }

  // The counts of what was ever written stay, as they do when records are deleted one by one.
  static void clear(LiveTable* table) {
    table->records = {};
    table->slot.recordCount = 0;
    table->slot.firstRecordPos = table->slot.lastRecordPos = 0;
    table->slot.lastWrittenRecordPos = 0;
  }

  void rename(LiveTable* table, const std::string& name) const {
    if (name.empty() || name.find('\0') != std::string::npos) {
      fail(Reason::bad_name, "a table's name has 1 to 32 bytes, none of them zero");
    }
    if (name.size() > kTableNameSize) {
      fail(Reason::name_too_long, survey::joined("the name '", name, "' has more than 32 bytes"));
    }
    // Clears what the old name leaves after a shorter one.
    std::memset(table->slot.tableName, 0, kTableNameSize);
    std::memcpy(table->slot.tableName, name.data(), name.size());
  }

  void refuseEqualNames(const std::vector<std::pair<size_t, std::string>>& renamed,
                        const std::set<size_t>& dropped) {
    for (const auto& [index, name] : renamed) database_.tables[index].name = name;
    for (const auto& each : renamed) {
      for (size_t i = 0; i < database_.tables.size(); ++i) {
        if (i == each.first || dropped.contains(i)) continue;
        if (database_.tables[i].name != each.second) continue;
        fail(Reason::table_exists, survey::joined("there would be two tables '", each.second, "'"));
      }
    }
  }

  const std::filesystem::path& path_;
  const char* operation_;
  LiveDatabase& database_;
  std::set<size_t> named_;
};

}  // namespace

void changeTables(const CompactOptions& options, const std::filesystem::path& path,
                  const char* operation, LiveDatabase* database) {
  Changes(path, operation, database).apply(options);
}

}  // namespace qvdbase::upkeep
