// qvdb::salvage: survey, plan, write, verify.
#include <qvdbase/qvdb/error.hpp>
#include <qvdbase/qvdb/salvage.hpp>

#include <algorithm>
#include <cstring>

#include "qvdb/check/check_source.h"
#include "qvdb/raw/open_file.h"
#include "qvdb/raw/part_source.h"
#include "qvdb/salvage/extract.h"
#include "qvdb/salvage/run.h"
#include "qvdb/salvage/stored_databases.h"
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
  const raw::OpenedFile file(target, "check the salvaged database");
  const qvdb::CheckReport report = check::checkSource(file.source());
  if (report.errors != 0 || report.tables.size() != plan.tables.size()) return false;
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

// Takes back what was written.
void removeFiles(const std::filesystem::path& target, const SalvageReport& report) {
  std::error_code ignored;
  std::filesystem::remove(target, ignored);
  for (const StoredDatabase& each : report.stored) std::filesystem::remove(each.file, ignored);
}

SalvageReport salvageSource(const ByteSource& whole, const std::filesystem::path& target,
                            const BlockVisitor& visitor, const SalvageOptions& options) {
  constexpr std::int64_t kMostMissing = std::int64_t{1} << 62;
  if (options.from < -kMostMissing) {
    throw Error("salvage the database", Reason::bad_argument,
                "cannot salvage the database: it cannot begin that far before the source");
  }
  const qvdbase::raw::PartSource source(whole, options.from, whole.size());
  const bool isDeep = !options.deep_to.empty();
  const qvdbase::raw::Survey survey = qvdbase::raw::makeSurvey(
      source, {.deep = isDeep, .ignoreDirectory = options.ignore_directory});
  if (!isDeep) return qvdbase::salvage::run(source, survey, target, visitor, options);

  const qvdbase::salvage::StoredDatabases stored(source, survey, options);
  SalvageReport report = qvdbase::salvage::run(source, survey, target, visitor, options);
  try {
    stored.salvage(&report);
  } catch (...) {
    removeFiles(target, report);
    throw;
  }
  return report;
}

}  // namespace

SalvageReport salvage(const std::filesystem::path& source, const std::filesystem::path& target,
                      const BlockVisitor& visitor, const SalvageOptions& options) {
  qvdbase::raw::OpenedFile file(source, "salvage the database");
  file.watch();
  SalvageReport report = salvageSource(file.source(), target, visitor, options);
  report.source_in_use = file.isLockedByOthers();
  if (file.hasChanged()) {
    removeFiles(target, report);
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
