// qvdb::salvage: survey, plan, write, verify.
#include <qvdbase/qvdb/error.hpp>
#include <qvdbase/qvdb/salvage.hpp>

#include <optional>
#include <utility>

#include "failure/failure.h"
#include "platform/handles/read_only_file.h"
#include "platform/host/cancellation.h"
#include "recovery/check/parts.h"
#include "recovery/salvage/run.h"
#include "recovery/salvage/stored_databases.h"
#include "recovery/survey/byte_source.h"
#include "recovery/survey/words.h"

using namespace qvdbase;
using namespace qvdbase::survey;

namespace qvdbase::salvage {

Run::Run(const Job& job, const std::filesystem::path& target, const qvdb::BlockVisitor& visitor,
         uint32_t wanted)
    : job_(job),
      plan_(makePlan(job.survey, job.options, wanted)),
      target_(target, "write the salvaged database",
              {.createFolders = job.options.create_folders, .ifTaken = qvdb::Remedy::other_name}) {
  if (!job.options.extract_to.empty()) extraction_.emplace(job_, plan_);
  target_.create(job.access);
  const int64_t unreadableAt = writeFile(job_, plan_, &target_, &report_, &states_);
  if (extraction_) extraction_->write();
  report(visitor);
  noteUnreadable(unreadableAt);
  report_.verified = verify();
}

void Run::place() {
  target_.place();
  if (extraction_) extraction_->keep();
}

void Run::report(const qvdb::BlockVisitor& visitor) {
  const Survey& survey = job_.survey;
  report_.tables_written = plan_.tables.size();
  report_.tables_left_out = plan_.tablesLeftOut;
  report_.notes = plan_.notes;
  report_.blocks_found = survey.blocks.size();
  for (const uint32_t number : blocksInFileOrder(survey)) {
    const int place = plan_.destination[number];
    if (place < 0) ++report_.blocks_left_out;
    if (!visitor) continue;
    qvdb::FoundBlock found = describe(survey, number);
    if (place >= 0) {
      found.written_to = plan_.tables[static_cast<size_t>(place)].name();
      if (!found.is_table_data) found.payload = stateOf(number);
    }
    const platform::CancellationPause cancellation;
    visitor(found);
  }
  for (const LeftoverRange& leftover : survey.leftovers) {
    report_.bytes_unknown += static_cast<uint64_t>(leftover.range.size());
    report_.unknown.push_back({leftover.range.begin, leftover.range.size()});
  }
}

qvdb::PayloadState Run::stateOf(uint32_t number) const {
  const auto known = states_.find(number);
  return known == states_.end() ? qvdb::PayloadState::unprotected
                                : static_cast<qvdb::PayloadState>(known->second);
}

void Run::noteUnreadable(int64_t inPayloads) {
  const int64_t inSurvey = job_.survey.unreadableAt;
  const bool isInPayloads = inPayloads >= 0 && (inSurvey < 0 || inPayloads < inSurvey);
  const int64_t position = isInPayloads ? inPayloads : inSurvey;
  if (position < 0) return;
  std::string zeros;
  if (report_.bytes_unreadable > 0) {
    zeros =
        joined("; ", counted(report_.bytes_unreadable, "byte"), " of payload are zeros instead");
  }
  report_.notes.push_back(joined("The system cannot read the source at ", position, zeros, "."));
}

// The new file must be sound, and hold as many records as were planned for each table.
bool Run::verify() const {
  platform::ReadOnlyFile file;
  platform::FileStamp stamp;
  file.share(target_.file().entry());
  if (!file.stamp(&stamp)) return false;
  const FileSource source(file, stamp.size);
  const qvdb::CheckReport report = check::checkSource(source);
  if (report.errors != 0 || report.tables.size() != plan_.tables.size()) return false;
  for (size_t i = 0; i < plan_.tables.size(); ++i) {
    if (report.tables[i].walked != plan_.tables[i].records.size()) return false;
  }
  return true;
}

void lookAtSourceAgain(const OpenedFile& source, const std::filesystem::path& path,
                       const char* operation, qvdb::SalvageReport* report) {
  report->source_in_use = source.isLockedByOthers();
  if (report->source_in_use) report->source_writer = source.writer();
  source.requireUnchanged(path, operation);
}

}  // namespace qvdbase::salvage

namespace qvdb {
namespace {

using salvage::Run;
using salvage::StoredDatabases;

constexpr const char* kOperation = "salvage the database";

// An empty database is worth salvaging, too, if it can be recognised as a database.
bool holdsNothing(const Survey& survey) {
  const bool beginsAsDatabase = survey.headerThere && isSignature(survey.header.fields.signature);
  return survey.blocks.empty() && survey.tables.empty() && !beginsAsDatabase;
}

// `file` is where the bytes come from; null for those in memory.
SalvageReport salvageSource(const ByteSource& whole, const OpenedFile* file,
                            const std::filesystem::path& name, const std::filesystem::path& target,
                            const BlockVisitor& visitor, const SalvageOptions& options) {
  std::optional<platform::FileAccess> access;
  if (file != nullptr) access = file->access(name, kOperation);
  constexpr int64_t kMostMissing = int64_t{1} << 62;
  if (options.from < -kMostMissing) {
    failure::throwError(kOperation, Reason::bad_argument,
                        "it cannot begin that far before the source");
  }
  const PartSource source(whole, options.from, whole.size());
  const bool isDeep = !options.deep_to.empty();
  const Survey survey =
      makeSurvey(source, {.deep = isDeep, .ignoreDirectory = options.ignore_directory});
  const salvage::Job job = {source, survey, options, access ? &*access : nullptr};
  std::optional<StoredDatabases> stored;
  if (isDeep) stored.emplace(job);
  if (holdsNothing(survey) && (!stored || stored->isEmpty())) {
    failure::throwError(name, kOperation, Reason::not_a_database,
                        "it holds no table and no record, and does not begin as a database does");
  }
  Run run(job, target, visitor);
  // The new file gets its name last, when everything else that was asked for is there.
  if (stored) stored->salvage(&run.report());
  if (file != nullptr) salvage::lookAtSourceAgain(*file, name, kOperation, &run.report());
  run.place();
  if (stored) stored->keep();
  return std::move(run.report());
}

}  // namespace

SalvageReport salvage(const std::filesystem::path& source, const std::filesystem::path& target,
                      const BlockVisitor& visitor, const SalvageOptions& options) {
  const platform::Uncancelled uncancelled;
  OpenedFile file(source, kOperation);
  file.watch();
  return salvageSource(file.source(), &file, source, target, visitor, options);
}

SalvageReport salvage_image(std::span<const std::byte> image, const std::filesystem::path& target,
                            const BlockVisitor& visitor, const SalvageOptions& options) {
  const platform::Uncancelled uncancelled;
  return salvageSource(MemorySource(image), nullptr, "the image", target, visitor, options);
}

}  // namespace qvdb
