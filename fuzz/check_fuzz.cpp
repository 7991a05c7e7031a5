// Fuzz target: checks the input as a database file, and compares the library's calls with what the
// check predicts; then salvages it, with the databases that are stored in it, and reads all that
// was saved.
//
// The check says of each table which calls will fail, whether a pack will succeed and what link
// repair will report. Each of these calls is made, on a copy. What salvage writes must be sound.
#include <qvdbase/qvdbase.h>
#include <qvdbase/qvdb.hpp>
#include <qvdbase/qvdb/check.hpp>
#include <qvdbase/qvdb/salvage.hpp>

#include <algorithm>
#include <cstdint>
#include <span>
#include <vector>

#include "fuzz/hostile_file.h"

namespace {

using namespace qvdbase::fuzz;

constexpr uint32_t kLongestList = 100'000;
constexpr uint64_t kMostPacked = 10'000;

qvdb::CheckOptions options() {
  qvdb::CheckOptions chosen;
  chosen.deep = true;
  chosen.now = 2'000'000'000;
  chosen.retries = 0;
  return chosen;
}

std::span<const std::byte> asBytes(const uint8_t* data, size_t size) {
  return {reinterpret_cast<const std::byte*>(data), size};
}

void requireWholeAccount(const qvdb::CheckReport& report, size_t size) {
  const qvdb::SpaceUse& space = report.space;
  const uint64_t sum = space.directory + space.records + space.table_data + space.superseded +
                       space.deleted + space.unlinked + space.lost + space.orphans + space.unknown;
  require(report.file_size == size && sum == size, "every byte is accounted for, once");
}

void requireOutlook(const qvdb::TableOutlook& predicted, const std::filesystem::path& path,
                    const uint8_t* data, size_t size) {
  if (!predicted.reachable) return;
  const uint64_t table = predicted.id.value;
  const std::vector<QVWCHAR> wide = widePath(path);
  int16_t db = OpenDBaseW(wide.data(), 1);
  uint32_t count = 0;
  GetNumberOfRecords(db, table, &count);
  if (count <= kLongestList) {
    std::vector<uint64_t> list(std::max(count, 1u));
    uint32_t stored = 0;
    require((GetRecordUuIDList(db, table, list.data(), &stored) == 1) == predicted.list,
            "listing ends as the check predicts");
  }
  uint32_t dataSize = 0;
  if (GetTableDataSize(db, table, &dataSize) == 1 && dataSize > 0 && dataSize <= kLongestList) {
    std::vector<uint8_t> buffer(dataSize);
    require((GetTableData(db, table, buffer.data()) == 1) == predicted.get_data,
            "reading table data ends as the check predicts");
  }
  CloseDBase(db);

  const uint8_t payload[] = {1, 2, 3};
  uint64_t record = 0;
  db = OpenDBaseW(wide.data(), 3);
  require((AddRecordData(db, table, payload, 3, 0, &record) == 1) == predicted.append,
          "appending ends as the check predicts");
  CloseDBase(db);
  writeBytes(path, data, size);
  db = OpenDBaseW(wide.data(), 3);
  require((SetTableData(db, table, payload, 3, 0) == 1) == predicted.set_data,
          "setting table data ends as the check predicts");
  CloseDBase(db);
  writeBytes(path, data, size);
}

void requirePredicted(const qvdb::CheckReport& report, const std::filesystem::path& path,
                      const uint8_t* data, size_t size) {
  for (const qvdb::TableOutlook& each : report.tables) requireOutlook(each, path, data, size);
  const std::vector<QVWCHAR> wide = widePath(path);
  const std::vector<QVWCHAR> packed = widePath(scratchPath("packed.qvd"));
  uint64_t counted = 0;
  for (const qvdb::TableOutlook& each : report.tables) counted += each.counted;
  // A pack copies as many records as are counted, along a chain that loops several times over, each
  // with the capacity that it claims.
  if (counted <= kMostPacked) {
    bool packs = false;
    const bool isCutShort = WorkLimits::fillsDisk(
        [&] { packs = PackOneDB2NewW(wide.data(), packed.data(), 0, nullptr) == 1; });
    require(isCutShort || packs == report.pack, "the pack succeeds where the check predicts it");
  }
  const qvdb::RepairPreview preview = qvdb::predict_repair(path);
  int result = 77;
  FixOneDBLinkErrorW(wide.data(), nullptr, 0, nullptr, &result);
  require(result == report.repair, "repair reports what the check predicts");
  require(result == preview.result, "repair reports what its preview says");
}

// Of a directory with an unusual layout the check predicts nothing but failure, though some calls
// may succeed.
bool hasUsualLayout(const uint8_t* data, size_t size) {
  static constexpr uint8_t kSizes[] = {0, 32, 0, 144};
  return size >= 22 && std::equal(kSizes, kSizes + 4, data + 18);
}

// Reads everything through the C++ layer.
void dump(const std::filesystem::path& path, const qvdb::SalvageReport& saved) {
  const auto database = qvdb::Database::open(path, qvdb::Mode::read_only);
  uint64_t records = 0;
  uint64_t bytes = 0;
  for (const qvdb::Table& table : database.tables()) {
    for (const qvdb::Record& record : table.records(qvdb::Load::payloads)) {
      bytes += record.loaded().size();
      ++records;
    }
    uint64_t back = 0;
    for (const qvdb::Record& record : table.records({.order = qvdb::Order::newest_first})) {
      static_cast<void>(record);
      ++back;
    }
    require(back == table.count(), "as many records are reached from the end");
    if (const auto data = table.data()) bytes += data->size();
  }
  require(records == saved.records_written && bytes == saved.payload_bytes,
          "what salvage says that it wrote can be read");
}

void salvage(const uint8_t* data, size_t size) {
  const std::filesystem::path target = scratchPath("saved.qvd");
  std::filesystem::remove(target);
  qvdb::SalvageOptions chosen;
  chosen.deleted = chosen.versions = chosen.orphans = size % 2 == 1;
  chosen.deep_to = scratchPath("inside");
  std::filesystem::remove_all(chosen.deep_to);
  qvdb::SalvageReport saved;
  try {
    saved = qvdb::salvage_image(asBytes(data, size), target, {}, chosen);
  } catch (const qvdb::Error& error) {
    require(error.reason() == qvdb::Reason::not_a_database, "only nothing cannot be salvaged");
    require(!std::filesystem::exists(target), "no file is made of nothing");
    return;
  }
  const qvdb::CheckReport report = qvdb::check(target, {}, options());
  require(report.errors == 0, "what salvage writes is sound");  // whatever its payloads hold
  dump(target, saved);
  for (const qvdb::StoredDatabase& each : saved.stored) {
    require(qvdb::check(each.file).errors == 0, "what salvage makes of a stored database is sound");
    dump(each.file, each.report);
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::filesystem::path path = scratchPath("checked.qvd");
  writeBytes(path, data, size);
  const WorkLimits limits(size);
  qvdb::CheckOptions everything = options();
  everything.categories = true;
  const qvdb::CheckReport report = qvdb::check(path, {}, everything);
  const qvdb::CheckReport again = qvdb::check_image(asBytes(data, size), {}, everything);
  require(report.errors == again.errors && report.warnings == again.warnings,
          "a file and the same bytes in memory give the same findings");
  requireWholeAccount(report, size);
  if (hasUsualLayout(data, size)) requirePredicted(report, path, data, size);
  salvage(data, size);
  return 0;
}
