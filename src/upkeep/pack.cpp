// qvdb::pack and qvdb::renumber: the library's packs, into a temporary file that then takes the
// target's place.
#include <qvdbase/qvdb/check.hpp>
#include <qvdbase/qvdb/error.hpp>
#include <qvdbase/qvdb/maintenance.hpp>

#include <algorithm>

#include "failure/failure.h"
#include "failure/native_path.h"
#include "format/Aliment8.h"
#include "format/category.h"
#include "handle/database_handle.h"
#include "handle/open_intents.h"
#include "maintenance/pack_steps.h"
#include "platform/handles/descriptor_path.h"
#include "platform/host/cancellation.h"
#include "products/target_file.h"
#include "recovery/check/parts.h"
#include "recovery/survey/open_file.h"
#include "recovery/survey/payload_checksums.h"
#include "recovery/survey/survey.h"
#include "upkeep/progress.h"
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

const fs::path& differing(const char* operation, const fs::path& source, const fs::path& target) {
  std::error_code error;
  if (fs::equivalent(source, target, error)) {
    throwError(target, operation, Reason::bad_argument, "it is the source itself");
  }
  return target;
}

std::vector<std::string> tablesThatLoseData(const std::vector<tablePart1>& tables) {
  std::vector<std::string> names;
  for (const tablePart1& table : tables) {
    const bool hasRecords = table.recordCount != 0 && table.firstRecordPos != 0;
    if (hasRecords && table.firstDataPos != 0) names.push_back(format::storedName(table));
  }
  return names;
}

// Of the records that are copied.
uint64_t countChecksums(const ByteSource& source, const Survey& survey) {
  return static_cast<uint64_t>(std::ranges::count_if(survey.blocks, [&](const Block& block) {
    return block.label == Label::live && checksumOf(source, block).isThere;
  }));
}

// What both kinds of pack share around the library's function.
class Packing {
 public:
  Packing(const char* operation, const fs::path& source, DatabaseHandle::Permission permission,
          const fs::path& target, const TargetOptions& options)
      : operation_(operation),
        source_(source),
        database_(source, permission),
        access_(OpenedFile(database_.number(), source, operation).access(source, operation)),
        target_(differing(operation, source, target), operation, rulesOf(options)),
        nativeTarget_(nativePath(target_.makePrivateFolder(), operation)),
        isForced_(options.force) {
    if (hasOpenIntents(database_.number())) {
      throwError(
          source, operation, Reason::in_use,
          "transactions in it are committed and not in place yet: end the program that makes "
          "them; where it has ended, 'qvdb mend' completes them");
    }
    // What the library cannot open is not written either.
    static_cast<void>(nativePath(resolved(target, operation), operation));
  }

  int16_t database() const { return database_.number(); }

  // Of the file that is open, and was judged: another user may give its name to another file.
  std::vector<QVWCHAR> nativeSource() const {
    const std::string path = platform::descriptorPath(database_.number());
    return nativePath(path.empty() ? source_ : fs::path(path), operation_);
  }
  std::vector<tablePart1> tables() const { return database_.tables(operation_); }
  const QVWCHAR* nativeTarget() const { return nativeTarget_.data(); }

  // `pack` calls the library's function. `other` is why it can fail on a sound source and a target
  // that can be written.
  PackReport run(const ProgressFunction& progress, const std::function<int(Reporter*)>& pack,
                 const std::function<void()>& other = {}) {
    PackReport report;
    report.size_before = database_.fileLength(operation_);
    report.tables_without_data = tablesThatLoseData(tables());
    judge(&report);
    Reporter reporter(progress);
    const bool done = pack(&reporter) == 1;
    if (!done && reporter.wantsToStop()) {
      throwError(source_, operation_, Reason::cancelled, "it was cancelled");
    }
    if (!done) failPack(report.size_before, other);
    target_.takeOver(access_);
    report.size_after = target_.file().size();
    target_.place();
    return report;
  }

 private:
  static TargetRules rulesOf(const TargetOptions& options) {
    return {.existing = options.overwrite ? Existing::isReplaced : Existing::isReplacedIfEmpty,
            .createFolders = options.create_folders};
  }

  // Counts what would be lost. Refuses errors, and records that are lost, unless it is forced.
  void judge(PackReport* report) const {
    const OpenedFile file(database_.number(), source_, operation_);
    const Survey survey = makeSurvey(file.source());
    const Verdict verdict = judgeCopy(file.source(), survey);
    report->records_lost = verdict.records;
    report->checksums_lost = countChecksums(file.source(), survey);
    if (verdict.isClean() || isForced_) return;
    file.requireUnchanged(source_, operation_);
    const bool canPack = check::willPack(survey);
    throwError(source_, operation_, canPack ? Reason::damaged : Reason::chain_damaged,
               verdict.why());
  }

  // The library says only that it failed.
  [[noreturn]] void failPack(uint64_t length, const std::function<void()>& other) const {
    const auto failure = platform::findWriteFailure(length);
    if (!check(source_).pack) {
      throwError(source_, operation_, Reason::chain_damaged, "the database is damaged");
    }
    if (!failure.code && other) other();
    target_.failWriting(failure);
  }

  const char* operation_;
  fs::path source_;
  DatabaseHandle database_;
  platform::FileAccess access_;
  TargetFile target_;
  std::vector<QVWCHAR> nativeTarget_;
  bool isForced_;
};

}  // namespace

PackReport pack(const fs::path& source, const fs::path& target, const ProgressFunction& progress,
                const TargetOptions& options) {
  constexpr const char* kOperation = "pack the database";
  const platform::Uncancelled uncancelled;
  Packing packing(kOperation, source, DatabaseHandle::shared, target, options);
  const std::vector<QVWCHAR> nativeSource = packing.nativeSource();
  return packing.run(progress, [&](Reporter* reporter) {
    return maintenance::packToNewFile(nativeSource.data(), packing.nativeTarget(),
                                      {Reporter::packProgress, 0, reporter});
  });
}

PackReport renumber(const fs::path& source, const fs::path& target,
                    const ProgressFunction& progress, const TargetOptions& options) {
  constexpr const char* kOperation = "renumber the database";
  const platform::Uncancelled uncancelled;
  Packing packing(kOperation, source, DatabaseHandle::any, target, options);
  const std::vector<tablePart1> tables = packing.tables();
  const bool canRenew = std::any_of(tables.begin(), tables.end(), [](const tablePart1& table) {
    return format::storedName(table) == format::kCategoryTable;
  });
  if (!canRenew) {
    throwError(
        source, kOperation, Reason::table_missing,
        std::string("it has no table '") + format::kCategoryTable + "', which renumbering needs");
  }
  const auto renumberOpenFile = [&](Reporter* reporter) {
    uint16_t srcRef = 0;
    uint16_t dstRef = 0;
    int status = 0;
    return PackOneDB2AllNewUUIDFile(packing.nativeTarget(), packing.database(), 0,
                                    Reporter::packProgress, &srcRef, &dstRef, &status, reporter);
  };
  return packing.run(progress, renumberOpenFile, [&] {
    throwError(
        source, kOperation, Reason::data_damaged,
        "its categories cannot be renewed: one is damaged, or lists a record that has no new "
        "identifier");
  });
}

}  // namespace qvdb
