// qvdb::trim: survey, mark the payloads that go, wait for the device, punch.
//
// The marks are on the device before the first page goes, so that no crash leaves a payload with
// zeros that nothing distinguishes from what was stored.
#include <qvdbase/qvdb/error.hpp>
#include <qvdbase/qvdb/trim.hpp>

#include <algorithm>
#include <vector>

#include "QVDbase/position.h"
#include "failure/failure.h"
#include "format/fields.h"
#include "format/trim_mark.h"
#include "handle/database_handle.h"
#include "handle/open_intents.h"
#include "platform/handles/lock_bytes.h"
#include "platform/handles/open_files.h"
#include "platform/handles/punching.h"
#include "platform/host/cancellation.h"
#include "platform/host/host_failure.h"
#include "recovery/salvage/plan.h"
#include "recovery/survey/open_file.h"
#include "recovery/survey/packed_data.h"
#include "recovery/survey/words.h"
#include "upkeep/verdict.h"

using namespace qvdbase;
using namespace qvdbase::failure;
using namespace qvdbase::handle;
using namespace qvdbase::survey;

namespace qvdb {
namespace {

namespace trimmed = format::trimmed;
using platform::LockByte;
using platform::Sharing;

constexpr const char* kOperation = "give dead space back";

struct DeadPayload {
  int64_t position = 0;
  trimmed::Pages pages;
  bool isMarked = false;
};

// What a salvage saves without being asked, what belongs to a transaction, and what is not whole
// stays.
bool isDead(const Survey& survey, const Block& block) {
  if (survey.isIntent(block) || survey.ownerSlot(block) == nullptr) return false;
  if (block.isReached() || block.isCut() || block.flaws != 0) return false;
  if (block.grade != Grade::a || block.isInTornBlock) return false;
  return block.isDeleted() || block.label == Label::superseded || block.label == Label::uncommitted;
}

std::vector<DeadPayload> deadPayloads(const Survey& survey) {
  const salvage::Plan plan = salvage::makePlan(survey, {});
  std::vector<bool> isNeeded(survey.blocks.size());
  for (size_t i = 0; i < isNeeded.size(); ++i) isNeeded[i] = plan.destination[i] >= 0;
  for (const Table& table : survey.tables) {
    const uint32_t data = dataOf(survey, table);
    if (data != kNoBlock) isNeeded[data] = true;
  }
  std::vector<DeadPayload> dead;
  int64_t taken = survey.blocksStart;  // where all blocks so far have ended
  const std::vector<uint32_t> order = blocksInFileOrder(survey);
  for (size_t i = 0; i < order.size(); ++i) {
    const Block& block = survey.blocks[order[i]];
    const int64_t end = std::max(block.end, block.claimedEnd());
    const bool isApart = block.position >= taken && end <= survey.size &&
                         (i + 1 == order.size() || survey.blocks[order[i + 1]].position >= end);
    taken = std::max(taken, end);
    if (!isApart || isNeeded[order[i]] || !isDead(survey, block)) continue;
    const auto pages = trimmed::pagesOf(block.dataPos(), int64_t{block.capacity});
    if (pages.begin < pages.end) dead.push_back({block.dataPos(), pages, block.isTrimmed});
  }
  return dead;
}

// How much of a range is stored.
uint64_t storedIn(const ByteSource& source, trimmed::Pages pages) {
  int64_t stored = 0;
  for (int64_t position = pages.begin; position < pages.end;) {
    const auto hole = source.nextHole(position);
    const int64_t begin = hole ? std::clamp(hole->begin, position, pages.end) : pages.end;
    stored += begin - position;
    position = hole ? std::max(begin, std::min(hole->end, pages.end)) : pages.end;
    if (hole && hole->end <= begin) break;
  }
  return static_cast<uint64_t>(stored);
}

class Trimming {
 public:
  explicit Trimming(const std::filesystem::path& path)
      : path_(path), database_(path, DatabaseHandle::exclusive) {
    database_.requireAlone(kOperation);
    keepReadersOut();
  }
  ~Trimming() {
    platform::releaseLockByte(database_.number(), LockByte::change, Sharing::exclusive);
  }
  Trimming(const Trimming&) = delete;
  Trimming& operator=(const Trimming&) = delete;

  TrimReport run(const TrimOptions& options) {
    if (!options.dry_run) completeIntents(database_.number(), path_, kOperation);
    OpenedFile file(database_.number(), path_, kOperation);
    file.watch();
    find(file.source());
    const uint64_t before = stored(file.rawSource());
    TrimReport report;
    report.payloads = dead_.size();
    report.bytes = before;
    file.requireUnchanged(path_, kOperation);
    if (dead_.empty() || options.dry_run) return report;
    requireHoles();
    mark();
    punch();
    database_.sync(kOperation);
    report.bytes = before - std::min(before, stored(file.rawSource()));
    return report;
  }

 private:
  [[noreturn]] void fail(Reason reason, const std::string& why) const {
    throwError(path_, kOperation, reason, why);
  }

  // A reader that has found a record just before it was deleted may be about to read it.
  void keepReadersOut() const {
    const int16_t db = database_.number();
    if (platform::isLockByteHeld(db, LockByte::reader) || isReadHere()) {
      fail(Reason::in_use, "it is open for reading elsewhere");
    }
    const auto taken = platform::takeLockByte(db, LockByte::change, Sharing::exclusive);
    if (taken != platform::LockOutcome::taken) fail(Reason::in_use, "it is being read");
  }

  bool isReadHere() const {
    const platform::Turn turn(database_.number());
    return platform::findOpenFile(database_.number())->entry->lockBytes.announced > 0;
  }

  void find(const ByteSource& source) {
    const Survey survey = makeSurvey(source);
    const upkeep::Verdict verdict = upkeep::judgeCopy(source, survey);
    if (verdict.errors > 0) {
      fail(Reason::damaged,
           joined("it has ", counted(verdict.errors, "error"), " (", verdict.firstError, ")"));
    }
    dead_ = deadPayloads(survey);
    std::erase_if(dead_,
                  [&](const DeadPayload& each) { return storedIn(source, each.pages) == 0; });
  }

  uint64_t stored(const ByteSource& source) const {
    uint64_t sum = 0;
    for (const DeadPayload& each : dead_) sum += storedIn(source, each.pages);
    return sum;
  }

  void requireHoles() const {
    const platform::Turn turn(database_.number());
    if (platform::canPunch(*platform::findOpenFile(database_.number()))) return;
    fail(Reason::cannot_write,
         "its file system cannot give parts of a file back; 'qvdb compact' makes it smaller");
  }

  void mark() const {
    platform::forgetHostFailure();
    const int16_t db = database_.number();
    for (const DeadPayload& each : dead_) {
      if (each.isMarked) continue;
      engine::SavedPosition position(db);
      const bool isWritten =
          myFileSeek(db, each.position, kFromStart) == 0 &&
          format::writeBytes(db, trimmed::kMark, static_cast<uint32_t>(trimmed::kMarkSize));
      if (position.restore(isWritten ? 1 : 0) != 1) {
        throwWriteFailure(path_, kOperation, platform::findWriteFailure(0));
      }
    }
    database_.sync(kOperation);
  }

  void punch() const {
    const platform::Turn turn(database_.number());
    const auto* file = platform::findOpenFile(database_.number());
    for (const DeadPayload& each : dead_) {
      const int64_t length = each.pages.end - each.pages.begin;
      if (platform::punchFile(*file, each.pages.begin, length)) continue;
      throwWriteFailure(path_, kOperation, platform::findWriteFailure(0));
    }
  }

  const std::filesystem::path path_;
  const DatabaseHandle database_;
  std::vector<DeadPayload> dead_;
};

}  // namespace

TrimReport trim(const std::filesystem::path& path, const TrimOptions& options) {
  const platform::Uncancelled uncancelled;
  return Trimming(path).run(options);
}

}  // namespace qvdb
