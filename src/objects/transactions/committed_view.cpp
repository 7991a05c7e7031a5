// Laying over the file what is committed.
#include "objects/transactions/committed_view.h"

#include <qvdbase/qvdb/error.hpp>

#include <utility>

#include "QVDbase/directory_cache.h"
#include "objects/open_database.h"

using namespace qvdbase;

namespace qvdb::detail {

void CommittedView::begin(const Operation& operation) {
  if (!missing_.lookAt(operation.db())) {
    operation.fail(Reason::cannot_read, "the system cannot read what was committed to it last");
  }
  if (missing_.patches().isEmpty()) return;
  if (stage_ == nullptr) {
    stage_ = platform::Stage::forReading(intents::underlayOf(missing_.patches()));
  }
  if (platform::useStage(operation.db(), stage_.get())) file_ = operation.db();
}

// The number of tables in the directory cache may be one that the file does not show.
void CommittedView::end() noexcept {
  const int16_t used = std::exchange(file_, int16_t{0});
  if (used == 0) return;
  platform::leaveStage(used);
  engine::dropDirectoryEntry(used);
}

}  // namespace qvdb::detail
