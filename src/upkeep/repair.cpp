// qvdb::repair: the library's link repair, with no other writer meanwhile.
#include <qvdbase/qvdb/check.hpp>
#include <qvdbase/qvdb/error.hpp>
#include <qvdbase/qvdb/maintenance.hpp>

#include "failure/failure.h"
#include "handle/database_handle.h"
#include "maintenance/link_repair.h"
#include "platform/host/cancellation.h"
#include "recovery/check/parts.h"
#include "recovery/survey/open_file.h"
#include "upkeep/progress.h"

using namespace qvdbase;
using namespace qvdbase::failure;
using namespace qvdbase::handle;
using namespace qvdbase::upkeep;

namespace qvdb {
namespace {

constexpr const char* kOperation = "repair the database";

[[noreturn]] void failCancelled(const std::filesystem::path& path) {
  throwError(path, kOperation, Reason::cancelled, "it was cancelled");
}

}  // namespace

RepairOutcome repair(const std::filesystem::path& path, const ProgressFunction& progress) {
  return repair_if(path, {}, progress);
}

RepairOutcome repair_if(const std::filesystem::path& path, const RepairJudge& judge,
                        const ProgressFunction& progress) {
  const platform::Uncancelled uncancelled;
  const DatabaseHandle file(path, DatabaseHandle::exclusive);
  file.requireAlone(kOperation);
  if (judge) {
    const survey::OpenedFile bytes(file.number(), path, kOperation);
    if (!judge(check::willRepair(survey::makeSurvey(bytes.source())))) failCancelled(path);
  }
  Reporter reporter(progress);
  int result = 0;
  maintenance::repairLinks(file.number(), {Reporter::repairProgress, 0, &reporter}, &result);
  // What the function threw or asked for with the last percent comes too late to stop anything.
  const bool stops = reporter.wantsToStop();
  if (result == maintenance::kNothingToRepair || result == maintenance::kRepaired) {
    static_cast<void>(reporter.report(100));
    file.sync(kOperation);
    return result == maintenance::kRepaired ? RepairOutcome::relinked : RepairOutcome::sound;
  }
  if (result == maintenance::kStopped || stops) failCancelled(path);
  throwError(path, kOperation, Reason::directory_damaged,
             "it is damaged in a way that link repair does not mend, or cannot be written");
}

}  // namespace qvdb
