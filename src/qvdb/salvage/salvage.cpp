// qvdb::salvage: survey, plan, write, verify.
#include <qvdbase/qvdb/check.hpp>
#include <qvdbase/qvdb/error.hpp>
#include <qvdbase/qvdb/salvage.hpp>

#include <algorithm>
#include <cstring>

#include "qvdb/raw/open_file.h"
#include "qvdb/salvage/extract.h"
#include "qvdb/salvage/run.h"
#include "qvdb/salvage/writer.h"

namespace qvdbase::salvage {
namespace {

using raw::Survey;

void tell(const Survey& survey, const Plan& plan, const qvdb::BlockVisitor& visitor,
          qvdb::SalvageReport* report) {
  report->blocks_found = survey.blocks.size();
  for (const uint32_t number : raw::blocksInFileOrder(survey)) {
    const int place = plan.destination[number];
    if (place < 0) ++report->blocks_left_out;
    if (!visitor) continue;
    qvdb::FoundBlock found = describe(survey, number);
    if (place >= 0) found.written_to = plan.tables[static_cast<size_t>(place)].name();
    visitor(found);
  }
  for (const raw::LeftoverRange& leftover : survey.leftovers) {
    report->bytes_unknown += static_cast<uint64_t>(leftover.range.size());
    report->unknown.push_back({leftover.range.begin, leftover.range.size()});
  }
}

// The new file must be sound, and hold as many records as were planned for each table.
bool verify(const Plan& plan, const std::filesystem::path& target) {
  const qvdb::CheckReport report = qvdb::check(target);
  const bool isSound = report.errors == 0 && report.state != qvdb::CheckState::in_use &&
                       report.tables.size() == plan.tables.size();
  if (!isSound) return false;
  for (size_t i = 0; i < plan.tables.size(); ++i) {
    if (report.tables[i].walked != plan.tables[i].records.size()) return false;
  }
  return true;
}

}  // namespace

qvdb::SalvageReport run(const raw::ByteSource& source, const Survey& survey,
                        const std::filesystem::path& target, const qvdb::BlockVisitor& visitor,
                        const qvdb::SalvageOptions& options, const Wanted& wanted) {
  qvdb::SalvageReport report;
  const Plan plan = makePlan(survey, options, wanted);
  const Written written = writeFile(source, survey, plan, target);
  if (!options.extract_to.empty()) extractPayloads(source, survey, plan, options.extract_to);
  tell(survey, plan, visitor, &report);
  report.tables_written = plan.tables.size();
  report.records_written = written.records;
  report.data_written = written.data;
  report.payload_bytes = written.payloadBytes;
  report.records_cut = written.recordsCut;
  report.tables_left_out = plan.tablesLeftOut;
  report.notes = plan.notes;
  if (survey.unreadableAt >= 0) {
    report.notes.push_back("The system cannot read the source at " +
                           std::to_string(survey.unreadableAt) + ".");
  }
  report.verified = verify(plan, target);
  return report;
}

}  // namespace qvdbase::salvage

namespace qvdb {
namespace {

using qvdbase::raw::ByteSource;

// A source that begins somewhere inside of another, or before it: then zeros stand for the bytes
// that are missing at the front.
class ShiftedSource : public ByteSource {
 public:
  ShiftedSource(const ByteSource& whole, std::int64_t from) : whole_(whole), from_(from) {}

  std::int64_t size() const override { return std::max<std::int64_t>(whole_.size() - from_, 0); }

  std::size_t readAt(std::int64_t position, void* buffer, std::size_t count) const override {
    if (position < 0) return 0;
    const std::int64_t place = position + from_;
    if (place >= 0) return whole_.readAt(place, buffer, count);
    const auto missing = static_cast<std::size_t>(
        std::min<std::uint64_t>(count, static_cast<std::uint64_t>(-place)));
    std::memset(buffer, 0, missing);
    if (missing == count) return count;
    return missing + whole_.readAt(0, static_cast<char*>(buffer) + missing, count - missing);
  }

  std::optional<qvdbase::platform::FileHole> nextHole(std::int64_t position) const override {
    std::optional<qvdbase::platform::FileHole> hole =
        whole_.nextHole(std::max<std::int64_t>(position + from_, 0));
    if (hole) *hole = {hole->begin - from_, hole->end - from_};
    return hole;
  }

 private:
  const ByteSource& whole_;
  std::int64_t from_;
};

SalvageReport salvageSource(const ByteSource& whole, const std::filesystem::path& target,
                            const BlockVisitor& visitor, const SalvageOptions& options) {
  constexpr std::int64_t kMostMissing = std::int64_t{1} << 62;
  if (options.from < -kMostMissing) {
    throw Error("salvage the database", Reason::bad_argument,
                "cannot salvage the database: it cannot begin that far before the source");
  }
  const ShiftedSource source(whole, options.from);
  const qvdbase::raw::Survey survey =
      qvdbase::raw::makeSurvey(source, {.ignoreDirectory = options.ignore_directory});
  return qvdbase::salvage::run(source, survey, target, visitor, options);
}

}  // namespace

SalvageReport salvage(const std::filesystem::path& source, const std::filesystem::path& target,
                      const BlockVisitor& visitor, const SalvageOptions& options) {
  qvdbase::raw::OpenedFile file(source, "salvage the database");
  file.watch();
  SalvageReport report = salvageSource(file.source(), target, visitor, options);
  report.source_in_use = file.isLockedByOthers();
  if (file.hasChanged()) {
    std::error_code ignored;
    std::filesystem::remove(target, ignored);
    throw Error("salvage the database", Reason::in_use,
                source.native() + ": cannot salvage the database: it was changed meanwhile");
  }
  return report;
}

SalvageReport salvage_image(std::span<const std::byte> image, const std::filesystem::path& target,
                            const BlockVisitor& visitor, const SalvageOptions& options) {
  return salvageSource(qvdbase::raw::MemorySource(image), target, visitor, options);
}

std::string_view to_string(BlockLabel label) noexcept {
  switch (label) {
    case BlockLabel::live:
      return "live";
    case BlockLabel::lost:
      return "lost";
    case BlockLabel::superseded:
      return "superseded";
    case BlockLabel::unfinished:
      return "unfinished";
    case BlockLabel::deleted:
      return "deleted";
    case BlockLabel::unlinked:
      return "unlinked";
    case BlockLabel::deleted_or_unlinked:
      return "deleted or unlinked";
  }
  return "";
}

}  // namespace qvdb
