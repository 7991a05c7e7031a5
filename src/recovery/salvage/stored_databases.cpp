// A stored database ends with the payload that it is in. In an image of a device it may be in none:
// then it has everything that its own directory points to, and ends where the next one begins after
// that. What follows may be a copy of the same database, with blocks of the same tables. A database
// without tables is its directory and nothing else.
#include "recovery/salvage/stored_databases.h"

#include <qvdbase/qvdb/error.hpp>

#include <algorithm>
#include <optional>
#include <string>
#include <utility>

#include "format/layout.h"
#include "recovery/salvage/run.h"
#include "recovery/survey/byte_source.h"
#include "recovery/survey/words.h"

using namespace qvdbase::format;
using namespace qvdbase::survey;

namespace qvdbase::salvage {
namespace {

constexpr const char* kOperation = "salvage the stored databases";

// Each is surveyed on its own, and a hostile directory can claim everything that follows.
constexpr size_t kMostDatabases = 1000;

// Where the payload ends that holds `position`. Where that is among the spare bytes of a block, its
// end; 0 where no block holds it. `order` is that of the file.
int64_t endOfPayload(const Survey& survey, const std::vector<uint32_t>& order, int64_t position) {
  const auto after = std::ranges::upper_bound(
      order, position, {}, [&](uint32_t number) { return survey.blocks[number].position; });
  if (after == order.begin()) return 0;
  const Block& block = survey.blocks[*(after - 1)];
  const int64_t end = block.dataPos() + block.dataThere();
  return position < end ? end : position < block.end ? block.end : 0;
}

// How many times the bytes of the source all of them together may have. One that is stored in
// another holds the same bytes again, so that a few MB could become thousands of MB.
constexpr int64_t kMostTimes = 4;

constexpr size_t kMostNamed = 20;

std::string aboutNotWritten(const std::vector<int64_t>& positions) {
  const size_t named = std::min(positions.size(), kMostNamed);
  std::string list;
  for (size_t i = 0; i < named; ++i) list += joined(i == 0 ? "" : ", ", positions[i]);
  if (named < positions.size()) list += joined(" and ", positions.size() - named, " more");
  return joined(counted(positions.size(), "database stored in a payload was",
                        "databases stored in payloads were"),
                " not written, because the files together would be larger than four times the "
                "source. Salvage them one at a time, each from where it begins: ",
                list, ".");
}

// Where the database that begins at `origin` reaches at least, by its directory; none when it has
// no tables.
std::optional<int64_t> reachOf(const ByteSource& source, int64_t origin) {
  const PartSource part(source, origin, source.size());
  Survey survey;
  readDirectory(part, {}, &survey);
  int64_t farthest = kNewFileSize;
  for (const Slot& slot : survey.slots) {
    if (!slot.isTable()) continue;
    const tablePart1& fields = slot.fields;
    for (const int64_t position : {fields.firstRecordPos, fields.lastRecordPos,
                                   fields.lastWrittenRecordPos, fields.firstDataPos}) {
      if (position < part.size()) farthest = std::max(farthest, position);
    }
  }
  const bool hasTables = survey.header.tableCount != 0 || survey.knownOwners != 0;
  return hasTables ? std::optional(origin + farthest) : std::nullopt;
}

std::string nameOf(const Range& place) {
  return joined("at-", place.begin, ".qvd");
}

}  // namespace

StoredDatabases::StoredDatabases(const Job& job) : job_(job), folder_(job.options.deep_to) {
  const std::vector<uint32_t> order = blocksInFileOrder(job.survey);
  std::vector<int64_t> loose;  // where those begin that are in no payload
  for (const int64_t origin : job.survey.nestedDatabases) {
    if (origin == 0) continue;  // the database itself
    places_.push_back({origin, endOfPayload(job.survey, order, origin)});
    if (places_.back().end == 0) loose.push_back(origin);
  }
  const size_t kept = std::min(places_.size(), kMostDatabases);
  leftOut_ = places_.size() - kept;
  places_.resize(kept);
  for (Range& place : places_) {
    const std::optional<int64_t> reach = reachOf(job.source, place.begin);
    if (!reach) {
      place.end = std::min(place.begin + kNewFileSize, job.source.size());
    } else if (place.end == 0) {
      const auto next = std::ranges::lower_bound(loose, *reach);
      place.end = next != loose.end() ? *next : job.source.size();
    }
    folder_.requireFree(nameOf(place), kOperation);
  }
}

void StoredDatabases::salvage(qvdb::SalvageReport* report) {
  folder_.make(kOperation, job_.options.create_folders, qvdb::Reason::path_not_reachable);
  qvdb::SalvageOptions options = job_.options;
  options.ignore_directory = false;
  options.extract_to.clear();
  options.deep_to.clear();
  int64_t left = kMostTimes * (job_.source.size() + std::min<int64_t>(job_.options.from, 0));
  std::vector<int64_t> notWritten;
  for (const Range& place : places_) {
    // Its size is looked at first: what is not written need not be surveyed either.
    std::optional<Survey> survey;
    const PartSource part(job_.source, place.begin, place.end);
    if (place.size() <= left) survey.emplace(makeSurvey(part));
    options.from = place.begin;
    const int64_t size =
        survey ? std::max(place.size(), plannedSize(*survey, makePlan(*survey, options))) : 0;
    if (!survey || size > left) {
      notWritten.push_back(place.begin);
      continue;
    }
    left -= size;
    const std::filesystem::path file = folder_.fileNamed(nameOf(place));
    Run run({part, *survey, options, job_.access}, file);
    run.place();
    report->stored.push_back({place.begin, file, std::move(run.report())});
    folder_.add(nameOf(place));
  }
  if (!notWritten.empty()) report->notes.push_back(aboutNotWritten(notWritten));
  if (leftOut_ > 0) {
    report->notes.push_back(joined("Payloads seem to hold ", leftOut_, " more databases ",
                                   "than are salvaged at once."));
  }
}

}  // namespace qvdbase::salvage
