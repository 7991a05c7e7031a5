// A stored database ends where the payload ends in which it stands. What stands in no payload, as
// in an image of a device, may reach to the end of the source: blocks of other databases behind it
// are not in its directory, and stay out.
#include "qvdb/salvage/stored_databases.h"

#include <qvdbase/qvdb/error.hpp>

#include <algorithm>

#include "qvdb/raw/part_source.h"
#include "qvdb/salvage/run.h"

namespace qvdbase::salvage {
namespace {

constexpr const char* kOperation = "salvage the stored databases";
constexpr int64_t kSmallestSize = kDirectoryPos + int64_t{kNewSlotCount} * kSlotImageSize;

// Each is surveyed on its own, so that a file made of nothing but headers would take for ever.
constexpr size_t kMostDatabases = 1000;

[[noreturn]] void fail(const std::filesystem::path& path, qvdb::Reason reason) {
  throw qvdb::Error(
      kOperation, reason,
      path.native() + ": cannot " + kOperation + ": " + std::string(qvdb::to_string(reason)));
}

// Where the payload that holds `position` ends; the source's end where none does. `order` is the
// file's.
int64_t endOfPayload(const raw::Survey& survey, const std::vector<uint32_t>& order,
                     int64_t position) {
  const auto behind = std::upper_bound(
      order.begin(), order.end(), position,
      [&](int64_t wanted, uint32_t number) { return wanted < survey.blocks[number].position; });
  if (behind == order.begin()) return survey.size;
  const raw::Block& block = survey.blocks[*(behind - 1)];
  const int64_t end = block.dataPos() + block.dataThere();
  return position < end ? end : position < block.end ? block.end : survey.size;
}

}  // namespace

StoredDatabases::StoredDatabases(const raw::ByteSource& source, const raw::Survey& survey,
                                 const qvdb::SalvageOptions& options)
    : source_(source), options_(options) {
  const std::vector<uint32_t> order = raw::blocksInFileOrder(survey);
  int64_t free = 1;  // what begins at 0 is the database itself
  for (const int64_t origin : survey.nestedDatabases) {
    if (origin < free) continue;  // no database begins in the directory of another
    free = origin + kSmallestSize;
    if (places_.size() == kMostDatabases) {
      ++leftOut_;
    } else {
      places_.push_back({origin, endOfPayload(survey, order, origin)});
    }
  }
  for (const raw::Range& place : places_) {
    std::error_code error;
    const std::filesystem::path file = fileOf(place.begin);
    const bool isThere = std::filesystem::exists(std::filesystem::symlink_status(file, error));
    if (isThere) fail(file, qvdb::Reason::file_exists);
  }
}

std::filesystem::path StoredDatabases::fileOf(int64_t origin) const {
  return options_.deep_to / ("at-" + std::to_string(origin) + ".qvd");
}

void StoredDatabases::salvage(qvdb::SalvageReport* report) const {
  std::error_code error;
  std::filesystem::create_directories(options_.deep_to, error);
  if (error) fail(options_.deep_to, qvdb::Reason::path_not_reachable);
  qvdb::SalvageOptions options = options_;
  options.from = 0;
  options.ignore_directory = false;
  options.extract_to.clear();
  options.deep_to.clear();
  for (const raw::Range& place : places_) {
    const raw::PartSource part(source_, place.begin, place.end);
    const raw::Survey survey = raw::makeSurvey(part);
    const std::filesystem::path file = fileOf(place.begin);
    const qvdb::SalvageReport inner = run(part, survey, file, {}, options);
    report->stored.push_back(
        {place.begin, file, inner.tables_written, inner.records_written, inner.verified});
  }
  if (leftOut_ > 0) {
    report->notes.push_back("There seem to be " + std::to_string(leftOut_) +
                            " more databases stored in payloads than are salvaged at once.");
  }
}

}  // namespace qvdbase::salvage
