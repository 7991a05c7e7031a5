// qvdb::compact: survey, judge, write, compare, place. A plain file (plain_file.h) needs neither
// survey nor judgement.
//
// Until the last step, which gives the new file its name, nothing has happened to the source or the
// target. Everything before it can fail, be cancelled or be killed.
#include <qvdbase/qvdb/error.hpp>
#include <qvdbase/qvdb/maintenance.hpp>

#include <algorithm>
#include <optional>
#include <utility>
#include <vector>

#include "failure/failure.h"
#include "failure/native_path.h"
#include "handle/database_handle.h"
#include "platform/handles/new_file.h"
#include "platform/handles/read_only_file.h"
#include "platform/host/cancellation.h"
#include "products/target_file.h"
#include "recovery/survey/open_file.h"
#include "upkeep/compact_open.h"
#include "upkeep/live_copy.h"
#include "upkeep/plain_file.h"
#include "upkeep/progress.h"
#include "upkeep/table_changes.h"
#include "upkeep/verdict.h"

using namespace qvdbase;
using namespace qvdbase::failure;
using namespace qvdbase::handle;
using namespace qvdbase::products;
using namespace qvdbase::survey;
using namespace qvdbase::upkeep;

namespace qvdb {
namespace {

namespace fs = std::filesystem;

constexpr const char* kOperation = "compact the database";

// A part of the work, as a range of percents that is passed through step by step.
class Stage {
 public:
  Stage(Reporter& reporter, const fs::path& path, int from, int to, uint64_t total)
      : reporter_(reporter), path_(path), from_(from), to_(to), total_(total) {}

  // One record or piece more. Throws cancelled, and what the caller's function throws.
  void step() {
    if (!reporter_.isAsked()) return;
    const uint64_t share = std::min(done_++, total_);
    const auto width = static_cast<uint64_t>(to_ - from_);
    report(from_ + static_cast<int>(total_ == 0 ? 0 : share * width / total_));
  }

  void report(int percent) {
    if (reporter_.report(percent) || !reporter_.wantsToStop()) return;
    throwError(path_, kOperation, Reason::cancelled, "it was cancelled");
  }

 private:
  Reporter& reporter_;
  const fs::path& path_;
  int from_;
  int to_;
  uint64_t total_;
  uint64_t done_ = 0;
};

class Compaction {
 public:
  Compaction(const fs::path& source, const ProgressFunction& progress,
             const CompactOptions& options)
      : source_(source),
        options_(options),
        protection_{options.protect, options.protect && options.accept_changes},
        reporter_(progress) {}

  // Without a target nothing is written.
  CompactReport run(OpenedFile& file, std::optional<TargetFile>& target,
                    const PlaceFunction& place) {
    file.watch();
    if (!takeIfPlain(file)) {
      survey_ = makeSurvey(file.source());
      takeWhatIsLive(file);
      judge(file);
      keepWhatIsWanted();
    }
    changeTables(options_, source_, kOperation, &database_);
    const LiveLayout layout = layOut(database_, protection_);
    if (target) {
      write(file, layout, *target);
      compare(file, target->file());
    }
    file.requireUnchanged(source_, kOperation);
    if (target) place(*target, [this] { return movesOf(database_, protection_); });
    // Too late to stop anything.
    static_cast<void>(reporter_.report(100));
    return reportOn(file.source(), layout);
  }

 private:
  // Most files are. The function of the caller's that chooses records asks more of each of them.
  bool takeIfPlain(const OpenedFile& file) {
    if (options_.keep) return false;
    std::optional<LiveDatabase> plain = takePlain(file.source());
    if (!plain) return false;
    database_ = std::move(*plain);
    Stage stage(reporter_, source_, 0, 20, database_.recordCount());
    for (uint64_t i = database_.recordCount(); i > 0; --i) stage.step();
    return true;
  }

  void takeWhatIsLive(const OpenedFile& file) {
    Stage stage(reporter_, source_, 0, 20, countedRecords());
    const auto damage = takeLive(
        file.source(), survey_, [&] { stage.step(); }, &database_);
    if (!damage) return;
    // First, here and below: work in progress looks like damage.
    file.requireUnchanged(source_, kOperation);
    ErrorDetails known;
    known.record_number = damage->record;
    throwError(source_, kOperation, damage->reason, damage->why, std::move(known));
  }

  // The chains are whole. Refuses when records or data outside them would be lost.
  void judge(const OpenedFile& file) {
    verdict_ = judgeCopy(file.source(), survey_);
    if (verdict_.isClean() || options_.force) return;
    file.requireUnchanged(source_, kOperation);
    throwError(source_, kOperation, Reason::damaged, verdict_.why());
  }

  // Only for the progress: which of them are there is not known yet.
  uint64_t countedRecords() const {
    uint64_t count = 0;
    for (const Table& table : survey_.tables) {
      const Slot& slot = survey_.slotOf(table);
      if (slot.counted) count += slot.fields.recordCount;
    }
    return count;
  }

  void keepWhatIsWanted() {
    if (!options_.keep) return;
    for (size_t i = 0; i < database_.tables.size(); ++i) {
      const Walk& walk = survey_.tableOfSlot(static_cast<int>(i))->forward;
      LiveTable& table = database_.tables[i];
      std::vector<LiveBlock> kept;
      for (size_t place = 0; place < table.records.size(); ++place) {
        const Block& block = survey_.blocks[walk.blocks[place]];
        if (isWanted(table.name, block)) kept.push_back(table.records[place]);
      }
      if (kept.size() != table.records.size()) shorten(std::move(kept), &table);
    }
  }

  bool isWanted(const std::string& table, const Block& block) const {
    const platform::CancellationPause cancellation;
    return options_.keep(
        {table, Id{block.recordID}, block.createTime, block.modifyTime, block.length});
  }

  static void shorten(std::vector<LiveBlock> kept, LiveTable* table) {
    table->setRecords(std::move(kept));
    table->slot.recordCount = static_cast<uint32_t>(table->records.size());
    if (!table->records.empty()) return;
    table->slot.firstRecordPos = table->slot.lastRecordPos = 0;
    table->slot.lastWrittenRecordPos = 0;
  }

  void write(const OpenedFile& file, const LiveLayout& layout, TargetFile& target) {
    Stage stage(reporter_, source_, 20, 80, database_.recordCount());
    const platform::FileAccess access = file.access(source_, kOperation);
    target.create(&access);
    const bool isCopied = copyLive(
        file.source(), database_, layout, protection_, target, [&] { stage.step(); }, &written_,
        &checksumsMade_);
    if (isCopied) return;
    file.requireUnchanged(source_, kOperation);
    throwError(source_, kOperation, Reason::cannot_read, "the system cannot read it");
  }

  void compare(const OpenedFile& file, const platform::NewFile& made) {
    Stage stage(reporter_, source_, 80, 100, written_.size());
    platform::ReadOnlyFile read;
    read.share(made.entry());
    platform::FileStamp stamp;
    const bool isKnown = read.stamp(&stamp);
    const FileSource copy(read, isKnown ? stamp.size : 0);
    if (holdsWhatWasWritten(copy, written_, [&] { stage.step(); })) return;
    file.requireUnchanged(source_, kOperation);
    throwError(source_, kOperation, Reason::cannot_write,
               "what was written is not what can be read back");
  }

  CompactReport reportOn(const ByteSource& source, const LiveLayout& layout) const {
    CompactReport report;
    report.size_before = static_cast<uint64_t>(source.size());
    report.size_after = static_cast<uint64_t>(layout.size);
    report.tables = database_.tables.size();
    report.records = database_.recordCount();
    for (const LiveTable& table : database_.tables) {
      if (table.data) ++report.data_blocks;
    }
    report.records_lost = verdict_.records;
    report.torn_blocks = verdict_.tornBlocks;
    report.checksums_made = checksumsMade_;
    return report;
  }

  const fs::path source_;
  const CompactOptions& options_;
  const Protection protection_;
  Reporter reporter_;
  Survey survey_;
  LiveDatabase database_;
  Verdict verdict_;
  std::vector<WrittenPiece> written_;
  uint64_t checksumsMade_ = 0;
};

CompactReport compactTo(const fs::path& source, const fs::path& target,
                        const ProgressFunction& progress, const CompactOptions& options,
                        bool overwrite) {
  const platform::Uncancelled uncancelled;
  // For a clear message on files that are no database.
  DatabaseHandle(source, DatabaseHandle::readOnly);
  const fs::path place = resolved(source, kOperation);
  std::optional<TargetFile> made;
  const TargetRules rules = {
      .existing = overwrite ? Existing::isReplaced : Existing::isReplacedIfEmpty,
      .createFolders = options.create_folders};
  if (!options.dry_run) {
    static_cast<void>(nativePath(resolved(target, kOperation), kOperation));
    made.emplace(target, kOperation, rules);
  }
  OpenedFile file(place, kOperation);
  return Compaction(source, progress, options)
      .run(file, made, [](TargetFile& finished, const MovesFunction&) { finished.place(); });
}

}  // namespace

CompactReport compact(const fs::path& source, const ProgressFunction& progress,
                      const CompactOptions& options) {
  // The source as target: held exclusively from the beginning, and always to be replaced.
  return compactTo(source, source, progress, options, true);
}

CompactReport compact(const fs::path& source, const fs::path& target,
                      const ProgressFunction& progress, const CompactOptions& options) {
  std::error_code error;
  const bool isInPlace = fs::equivalent(source, target, error);
  return compactTo(source, target, progress, options, isInPlace || options.overwrite);
}

}  // namespace qvdb

qvdb::CompactReport upkeep::compactOpen(const OpenSource& source,
                                        const qvdb::ProgressFunction& progress,
                                        const qvdb::CompactOptions& options,
                                        const PlaceFunction& place) {
  std::optional<TargetFile> made;
  if (!options.dry_run) {
    made.emplace(source.place, qvdb::kOperation,
                 TargetRules{.existing = Existing::isReplaced, .replacedFile = source.number});
  }
  OpenedFile file(source.number, source.path, qvdb::kOperation);
  return qvdb::Compaction(source.path, progress, options).run(file, made, place);
}
