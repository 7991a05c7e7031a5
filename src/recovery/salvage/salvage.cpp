// qvdb::salvage: survey, plan, write, verify.
#include <qvdbase/qvdb/error.hpp>
#include <qvdbase/qvdb/salvage.hpp>

#include <cctype>
#include <functional>
#include <optional>
#include <utility>

#include "failure/failure.h"
#include "platform/handles/read_only_file.h"
#include "recovery/check/check_source.h"
#include "recovery/salvage/run.h"
#include "recovery/salvage/stored_databases.h"
#include "recovery/survey/byte_source.h"
#include "recovery/survey/words.h"

using namespace qvdbase;
using namespace qvdbase::survey;

namespace qvdbase::salvage {

namespace {

constexpr const char* kWriteOperation = "write the salvaged database";

}  // namespace

Run::Run(const ByteSource& source, const Survey& survey, const std::filesystem::path& target,
         const qvdb::BlockVisitor& visitor, const qvdb::SalvageOptions& options,
         const platform::FileAccess* access, const Wanted& wanted)
    : plan_(makePlan(survey, options, wanted)),
      target_(target, kWriteOperation, {.createFolders = options.create_folders}) {
  if (!options.extract_to.empty()) extraction_.emplace(survey, plan_, options, access);
  target_.create(access);
  const Written written = writeFile(source, survey, plan_, &target_);
  if (extraction_) extraction_->write(source);
  report(survey, visitor);
  report_.tables_written = plan_.tables.size();
  report_.records_written = written.records;
  report_.data_written = written.data;
  report_.payload_bytes = written.payloadBytes;
  report_.bytes_unreadable = written.bytesUnreadable;
  report_.records_cut = written.recordsCut;
  report_.tables_left_out = plan_.tablesLeftOut;
  note(survey, written);
  report_.verified = verify();
}

void Run::place() {
  target_.place();
  if (extraction_) extraction_->keep();
}

void Run::report(const Survey& survey, const qvdb::BlockVisitor& visitor) {
  report_.blocks_found = survey.blocks.size();
  for (const uint32_t number : blocksInFileOrder(survey)) {
    const int place = plan_.destination[number];
    if (place < 0) ++report_.blocks_left_out;
    if (!visitor) continue;
    qvdb::FoundBlock found = describe(survey, number);
    if (place >= 0) found.written_to = plan_.tables[static_cast<size_t>(place)].name();
    visitor(found);
  }
  for (const LeftoverRange& leftover : survey.leftovers) {
    report_.bytes_unknown += static_cast<uint64_t>(leftover.range.size());
    report_.unknown.push_back({leftover.range.begin, leftover.range.size()});
  }
}

void Run::note(const Survey& survey, const Written& written) {
  report_.notes = plan_.notes;
  int64_t position = survey.unreadableAt;
  if (position < 0 || (written.unreadableAt >= 0 && written.unreadableAt < position)) {
    position = written.unreadableAt;
  }
  if (position < 0) return;
  std::string text = "The system cannot read the source at " + std::to_string(position);
  if (written.bytesUnreadable > 0) {
    text += "; " + counted(written.bytesUnreadable, "byte") + " of payload are zeros instead";
  }
  report_.notes.push_back(text + ".");
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

qvdb::SalvageReport run(const ByteSource& source, const Survey& survey,
                        const std::filesystem::path& target, const qvdb::BlockVisitor& visitor,
                        const qvdb::SalvageOptions& options, const platform::FileAccess* access) {
  Run all(source, survey, target, visitor, options, access);
  all.place();
  return all.report();
}

void lookAtSourceAgain(const OpenedFile& source, const std::filesystem::path& path,
                       const char* operation, qvdb::SalvageReport* report) {
  report->source_in_use = source.isLockedByOthers();
  if (!source.hasChanged()) return;
  failure::throwError(path, operation, qvdb::Reason::in_use, "it was changed meanwhile");
}

}  // namespace qvdbase::salvage

namespace qvdb {
namespace {

using salvage::Run;
using salvage::StoredDatabases;

constexpr const char* kOperation = "salvage the database";

// Called when everything is written, and before the new file gets its name.
using LastLook = std::function<void(SalvageReport*)>;

// A database without tables is something, as long as it can be seen to be one.
bool holdsNothing(const Survey& survey) {
  const auto& signature = survey.header.fields.signature;
  const bool beginsAsDatabase =
      survey.headerThere && std::toupper(signature[0]) == 'Q' && std::toupper(signature[1]) == 'V';
  return survey.blocks.empty() && survey.tables.empty() && !beginsAsDatabase;
}

SalvageReport salvageSource(const ByteSource& whole, const std::filesystem::path& name,
                            const std::filesystem::path& target, const BlockVisitor& visitor,
                            const SalvageOptions& options, const platform::FileAccess* access,
                            const LastLook& lastLook) {
  constexpr int64_t kMostMissing = int64_t{1} << 62;
  if (options.from < -kMostMissing) {
    failure::throwError(kOperation, Reason::bad_argument,
                        "it cannot begin that far before the source");
  }
  const PartSource source(whole, options.from, whole.size());
  const bool isDeep = !options.deep_to.empty();
  const Survey survey =
      makeSurvey(source, {.deep = isDeep, .ignoreDirectory = options.ignore_directory});
  std::optional<StoredDatabases> stored;
  if (isDeep) stored.emplace(source, survey, options, access);
  if (holdsNothing(survey) && (!stored || stored->isEmpty())) {
    failure::throwError(name, kOperation, Reason::not_a_database,
                        "it holds no table and no record, and does not begin as a database does");
  }
  Run run(source, survey, target, visitor, options, access);
  // The new file comes last: it appears when all that was asked for is there.
  if (stored) stored->salvage(&run.report());
  if (lastLook) lastLook(&run.report());
  run.place();
  if (stored) stored->keep();
  return std::move(run.report());
}

}  // namespace

SalvageReport salvage(const std::filesystem::path& source, const std::filesystem::path& target,
                      const BlockVisitor& visitor, const SalvageOptions& options) {
  OpenedFile file(source, kOperation);
  file.watch();
  const platform::FileAccess access = file.access(source, kOperation);
  const LastLook lastLook = [&](SalvageReport* report) {
    salvage::lookAtSourceAgain(file, source, kOperation, report);
  };
  return salvageSource(file.source(), source, target, visitor, options, &access, lastLook);
}

SalvageReport salvage_image(std::span<const std::byte> image, const std::filesystem::path& target,
                            const BlockVisitor& visitor, const SalvageOptions& options) {
  return salvageSource(MemorySource(image), "the image", target, visitor, options, nullptr, {});
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
