// qvdb::repair: the library's link repair, with nobody else writing meanwhile.
#include <qvdbase/qvdb/database.hpp>
#include <qvdbase/qvdb/error.hpp>
#include <qvdbase/qvdb/maintenance.hpp>

#include "failure/native_path.h"
#include "platform/handles/open_files.h"
#include "platform/handles/sync.h"
#include "products/target_file.h"
#include "upkeep/progress.h"

using namespace qvdbase;

namespace qvdb {
namespace {

constexpr const char* kOperation = "repair the database";

// What FixOneDBLinkErrorW reports.
constexpr int kNothingToRepair = 0;
constexpr int kRepaired = 2;
constexpr int kStopped = 10;

}  // namespace

RepairOutcome repair(const std::filesystem::path& path, const ProgressFunction& progress) {
  // Held open for the whole time, so that no other writer comes in between.
  const Database held = Database::open(path, Mode::exclusive);
  if (platform::writersOf(held.handle()) > 1) {
    products::failOn(path, kOperation, Reason::in_use, "this program has it open in another place");
  }
  const std::vector<QVWCHAR> wide = failure::nativePath(path, kOperation);
  upkeep::Reporter reporter(progress);
  reporter.listen();
  int result = 0;
  const int opened =
      FixOneDBLinkErrorW(wide.data(), upkeep::Reporter::repairProgress, 0, nullptr, &result);
  // What the function threw or asked for with the last percent comes too late to stop anything.
  const bool stops = reporter.wantsToStop();
  const bool isDone = opened == 1 && (result == kNothingToRepair || result == kRepaired);
  if (isDone && !platform::syncFile(held.handle())) {
    products::failOn(path, kOperation, Reason::cannot_write, "the system reports a failure");
  }
  if (isDone) return result == kRepaired ? RepairOutcome::relinked : RepairOutcome::sound;
  if (result == kStopped || stops) {
    products::failOn(path, kOperation, Reason::cancelled, "it was cancelled");
  }
  products::failOn(path, kOperation, Reason::directory_damaged,
                   "it is damaged in a way that link repair does not mend, or cannot be written");
}

}  // namespace qvdb
