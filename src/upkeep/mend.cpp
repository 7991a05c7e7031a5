// qvdb::mend: plan, look at what the plan comes to, write.
#include <qvdbase/qvdb/error.hpp>
#include <qvdbase/qvdb/mend.hpp>

#include <utility>

#include "QVDbase/position.h"
#include "failure/failure.h"
#include "format/fields.h"
#include "handle/database_handle.h"
#include "handle/open_intents.h"
#include "platform/handles/cutting.h"
#include "platform/handles/open_files.h"
#include "platform/host/cancellation.h"
#include "platform/host/host_failure.h"
#include "recovery/check/parts.h"
#include "recovery/mend/mend_plan.h"
#include "recovery/survey/open_file.h"
#include "recovery/survey/words.h"

using namespace qvdbase;
using namespace qvdbase::failure;
using namespace qvdbase::handle;
using namespace qvdbase::mend;
using namespace qvdbase::survey;

namespace qvdb {
namespace {

constexpr const char* kOperation = "mend the database";

class Mending {
 public:
  Mending(const std::filesystem::path& path, const MendOptions& options)
      : path_(path),
        options_(options),
        database_(path, DatabaseHandle::exclusive, DatabaseHandle::Intents::stay) {
    database_.requireAlone(kOperation);
  }

  MendReport run() {
    MendReport report;
    {
      OpenedFile file(database_.number(), path_, kOperation);
      file.watch();
      plan_ = planMend(file.source(), file.openTransactions(), options_.cut_off);
      file.requireUnchanged(path_, kOperation);
    }
    if (plan_.unreadableAt >= 0) {
      refuse(Reason::cannot_read, joined("the system cannot read it at ", plan_.unreadableAt));
    }
    if (!plan_.refusal.empty()) refuse(Reason::damaged, plan_.refusal);
    if (!options_.dry_run && !plan_.steps.empty()) write();
    report.steps = std::move(plan_.steps);
    report.left_over = plan_.leftOver;
    report.left_over_data = plan_.leftOverData;
    return report;
  }

 private:
  [[noreturn]] void refuse(Reason reason, const std::string& why) const {
    ErrorDetails details;
    details.remedy = Remedy::salvage;
    throwError(path_, kOperation, reason, why + "; nothing was changed", std::move(details));
  }

  void write() {
    completeIntents(database_.number(), path_, kOperation);
    platform::forgetHostFailure();
    for (const Patch& patch : plan_.patches) writePatch(patch);
    if (plan_.size < static_cast<int64_t>(database_.fileLength(kOperation))) cut();
    database_.sync(kOperation);
    const OpenedFile file(database_.number(), path_, kOperation);
    if (check::checkSource(file.source()).errors == 0) return;
    throwError(path_, kOperation, Reason::cannot_write, "what was written cannot be read back");
  }

  void writePatch(const Patch& patch) {
    const int16_t db = database_.number();
    const auto count = static_cast<uint32_t>(patch.bytes.size());
    engine::SavedPosition position(db);
    const bool isWritten = myFileSeek(db, patch.position, kFromStart) == 0 &&
                           format::writeBytes(db, patch.bytes.data(), count);
    if (position.restore(isWritten ? 1 : 0) == 1) return;
    throwWriteFailure(path_, kOperation, platform::findWriteFailure(0));
  }

  // By the open file, which is locked: its name may lead to another one by now.
  void cut() {
    const platform::Turn turn(database_.number());
    const auto* file = platform::findOpenFile(database_.number());
    if (file != nullptr && platform::cutFile(*file, plan_.size)) return;
    throwError(path_, kOperation, Reason::cannot_write, "the system cannot shorten it");
  }

  const std::filesystem::path path_;
  const MendOptions options_;
  const DatabaseHandle database_;
  MendPlan plan_;
};

}  // namespace

MendReport mend(const std::filesystem::path& path, const MendOptions& options) {
  const platform::Uncancelled uncancelled;
  return Mending(path, options).run();
}

}  // namespace qvdb
