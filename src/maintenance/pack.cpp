// Packing a database into a new file, with every record under its own identifier.
//
// The destination has version 101 while it is filled, and 100 when it is finished: a file with 101
// comes from a pack that was not completed.
#include <qvdbase/qvdbase.h>

#include "maintenance/pack_steps.h"

using namespace qvdbase;
using namespace qvdbase::support;
using namespace qvdbase::format;
using namespace qvdbase::maintenance;

namespace {

class PackToNewFile : public PackSteps {
 public:
  PackToNewFile(const QVWCHAR* dstPath, const PackProgress& progress)
      : PackSteps(dstPath, progress, {&srcRef_, &dstRef_, &status_}) {}

 private:
  bool copyTables() override {
    SetDBaseVersion(dst_, kUnfinishedPackVersion);  // not checked: the pack does not depend on it
    return PackSteps::copyTables();
  }

  bool completeDestination() override {
    // unreached: setting the version completes all writes
    return SetDBaseVersion(dst_, kFinishedVersion) == 1 && PackSteps::completeDestination();
  }

  bool reportTable() override { return report(99); }

  // This pack's caller gets none of them.
  uint16_t srcRef_ = 0;
  uint16_t dstRef_ = 0;
  int status_ = PackOutputs::kKept;
};

}  // namespace

int maintenance::packToNewFile(const QVWCHAR* srcPath, const QVWCHAR* dstPath,
                               const PackProgress& progress) {
  if (srcPath == nullptr || dstPath == nullptr) return 0;
  return PackToNewFile(dstPath, progress).run(srcPath);
}

int PackOneDB2NewW(const QVWCHAR* srcPath, const QVWCHAR* dstPath, int userData,
                   QVProgressFunction callback) {
  return packToNewFile(srcPath, dstPath, {callback, userData, nullptr});
}
