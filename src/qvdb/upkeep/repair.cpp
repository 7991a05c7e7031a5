// qvdb::repair: the library's link repair, with nobody else writing meanwhile.
#include <qvdbase/qvdb/database.hpp>
#include <qvdbase/qvdb/error.hpp>
#include <qvdbase/qvdb/maintenance.hpp>

#include "platform/placing.h"
#include "qvdb/native_path.h"
#include "qvdb/upkeep/progress.h"
#include "qvdb/upkeep/target_file.h"

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
  if (qvdbase::platform::writersOf(held.handle()) > 1) {
    detail::failOn(path, kOperation, Reason::in_use, "this program has it open in another place");
  }
  const std::vector<QVWCHAR> nativePath = detail::nativePath(path, kOperation);
  detail::Reporter reporter(progress);
  reporter.listen();
  int result = 0;
  const int opened =
      FixOneDBLinkErrorW(nativePath.data(), detail::Reporter::repairProgress, 0, nullptr, &result);
  // What the function threw or asked for with the last percent comes too late to stop anything.
  const bool stops = reporter.wantsToStop();
  if (opened == 1 && result == kNothingToRepair) return RepairOutcome::sound;
  if (opened == 1 && result == kRepaired) return RepairOutcome::relinked;
  if (result == kStopped || stops) {
    detail::failOn(path, kOperation, Reason::cancelled, "it was cancelled");
  }
  detail::failOn(path, kOperation, Reason::directory_damaged,
                 "it is damaged in a way that link repair does not mend, or cannot be written");
}

}  // namespace qvdb
