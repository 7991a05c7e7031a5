// The pack with handles, which reports its file numbers while it runs.
//
// It moves slots as images of the structure in memory instead of encoding and decoding them. In a
// slot that the codec wrote, the byte at the place of the structure's end mark belongs to
// lastWrittenDataPos; it is a 'y' only for a position from 0x79 << 32 on. So this pack fails on the
// first table of any ordinary database, and one without tables becomes a header and a directory of
// images. All of this, and each difference below from PackOneDB2NewW, is required and kept.
#include <qvdbase/qvdbase.h>

#include <algorithm>
#include <cstring>

#include "format/Aliment8.h"
#include "format/fields.h"
#include "format/slot_structure.h"
#include "maintenance/pack_steps.h"
#include "platform/host/memory.h"
#include "platform/transfer/transfer.h"

using namespace qvdbase;
using namespace qvdbase::support;
using namespace qvdbase::format;
using namespace qvdbase::engine;
using namespace qvdbase::maintenance;

namespace {

// The version is never touched.
class PackWithHandle : public PackSteps {
 public:
  using PackSteps::PackSteps;

 private:
  bool writeDirectorySlot(const tablePart1& slot) override {
    platform::Buffer image(directory_.slotSize);
    if (!image) return false;
    unsigned char structure[sizeof slot];
    storeSlotStructure(slot, structure);
    std::memset(image.data(), 0, image.size());
    std::memcpy(image.data(), structure, std::min(image.size(), sizeof structure));
    return writeBytes(dst_, image.data(), directory_.slotSize);
  }

  // One read of the whole slot, of which what belongs to the structure is taken.
  bool readTableSlot(int16_t file, tablePart1* slot) override {
    platform::Buffer image(directory_.slotSize);
    if (!image || !readBytes(file, image.data(), directory_.slotSize)) return false;
    unsigned char structure[sizeof *slot] = {};
    std::memcpy(structure, image.data(), std::min(image.size(), sizeof structure));
    loadSlotStructure(structure, slot);
    return true;
  }

  // The wrong way round, and required: a rewrite that succeeds ends the pack, and one that fails
  // does not. Not made in the scope: there a write that fails makes every later one fail.
  bool rewriteSlotWithData(const tablePart1& slot) override {
    if (!CallScope::completeWrites()) return false;  // unreached: the copied block's were completed
    const platform::TransferPause direct;
    return WriteOne_TablePartOne(dst_, &slot) != 1;
  }

  bool reportRecord(uint32_t percent) override {
    // unreached: no record can be appended to a slot that is an image
    if (percent == lastReported_) return true;
    lastReported_ = percent;
    return report(percent);
  }

  uint32_t lastReported_ = 1;
};

}  // namespace

int PackOneDB2New_WithHandle(const QVWCHAR* srcPath, const QVWCHAR* dstPath, int userData,
                             QVProgressFunction callback, uint16_t* outSrcRef, uint16_t* outDstRef,
                             int* status) {
  *status = PackOutputs::kKept;
  if (srcPath == nullptr || dstPath == nullptr) return 0;
  const PackOutputs out{outSrcRef, outDstRef, status};
  return PackWithHandle(dstPath, {callback, userData, nullptr}, out).run(srcPath);
}
