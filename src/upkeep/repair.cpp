// qvdb::repair: the library's link repair, with no other writer meanwhile.
#include <qvdbase/qvdb/error.hpp>
#include <qvdbase/qvdb/maintenance.hpp>

#include "failure/failure.h"
#include "failure/native_path.h"
#include "handle/database_handle.h"
#include "maintenance/link_repair.h"
#include "upkeep/progress.h"

using namespace qvdbase;
using namespace qvdbase::failure;
using namespace qvdbase::handle;
using namespace qvdbase::upkeep;

namespace qvdb {
namespace {

constexpr const char* kOperation = "repair the database";

// What FixOneDBLinkErrorW reports.

}  // namespace

RepairOutcome repair(const std::filesystem::path& path, const ProgressFunction& progress) {
  // Held open for the whole time, so that no other writer comes in between.
  const DatabaseHandle held(path, DatabaseHandle::exclusive);
  held.requireAlone(kOperation);
  const std::vector<QVWCHAR> wide = nativePath(path, kOperation);
  Reporter reporter(progress);
  reporter.listen();
  int result = 0;
  const int opened = FixOneDBLinkErrorW(wide.data(), Reporter::repairProgress, 0, nullptr, &result);
  // What the function threw or asked for with the last percent comes too late to stop anything.
  const bool stops = reporter.wantsToStop();
  const bool isDone =
      opened == 1 && (result == maintenance::kNothingToRepair || result == maintenance::kRepaired);
  if (isDone) {
    held.sync(kOperation);
    return result == maintenance::kRepaired ? RepairOutcome::relinked : RepairOutcome::sound;
  }
  if (result == maintenance::kStopped || stops) {
    throwError(path, kOperation, Reason::cancelled, "it was cancelled");
  }
  throwError(path, kOperation, Reason::directory_damaged,
             "it is damaged in a way that link repair does not mend, or cannot be written");
}

}  // namespace qvdb
