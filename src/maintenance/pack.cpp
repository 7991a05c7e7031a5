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
  PackToNewFile(const QVWCHAR* dstPath, PackProgress progress) : PackSteps(dstPath, progress) {}

  int run(const QVWCHAR* srcPath) {
    if (!openSource(srcPath)) return 0;
    return attempt([this] { return fill() && finish() && report(100); });
  }

 private:
  bool fill() {
    if (!readSourceDirectory() || !createDestination()) return false;
    if (!copyHeader() || !copyDirectory() || !report(1)) return false;
    SetDBaseVersion(dst_, kUnfinishedPackVersion);  // not checked: the pack does not depend on it
    return copyTables();
  }

  bool finish() {
    closeSource();
    if (SetDBaseVersion(dst_, kFinishedVersion) != 1 || !completeDestination()) return false;
    closeDestination();
    return true;
  }

  bool reportTable() override { return report(99); }
};

}  // namespace

int PackOneDB2NewW(const QVWCHAR* srcPath, const QVWCHAR* dstPath, int userData,
                   QVProgressFunction callback) {
  if (srcPath == nullptr || dstPath == nullptr) return 0;
  return PackToNewFile(dstPath, {callback, userData, nullptr}).run(srcPath);
}
