// The pack that reports its file numbers and lets its caller decide, through the status, whether a
// destination that was not finished is kept.
//
// It moves slots as images of the structure in memory instead of encoding and decoding them. In a
// slot that the codec wrote, the byte at the place of the structure's end mark belongs to
// lastWrittenDataPos; it is a 'y' only for a position from 0x79 << 32 on. So this pack fails on the
// first table of any ordinary database, and one without tables becomes a header and a directory of
// images. All of this, and each difference below from the other pack, is required and kept.
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

constexpr int kKept = 100;  // the status of a destination that does not exist or is to be kept
constexpr int kEmptied = 0;

struct HandleOutputs {
  uint16_t* srcRef;
  uint16_t* dstRef;
  int* status;
};

class PackWithHandle : public PackSteps {
 public:
  PackWithHandle(const QVWCHAR* dstPath, PackProgress progress, HandleOutputs out)
      : PackSteps(dstPath, progress), out_(out) {}

  int run(const QVWCHAR* srcPath) {
    if (!openSource(srcPath)) return 0;
    return attempt([this] { return fill() && finish() && report(100); });
  }

 private:
  bool fill() {
    if (!readSourceDirectory() || !createDestinationForCaller()) return false;
    if (!copyHeader() || !copyDirectory() || !report(1)) return false;
    lastReported_ = 1;
    return copyTables();  // the version is never touched
  }

  bool createDestinationForCaller() {
    if (!createDestination()) {
      *out_.status = kKept;
      return false;
    }
    *out_.status = kEmptied;
    *out_.srcRef = static_cast<uint16_t>(src_);
    *out_.dstRef = static_cast<uint16_t>(dst_);
    return true;
  }

  bool finish() {
    releaseSource();
    if (!completeDestination()) return false;
    closeDestination();
    *out_.dstRef = 0;
    return true;
  }

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

  // The wrong way round, and meant: the rewrite that succeeds ends the pack, and one that fails
  // does not. Made past the scope, in which a write may be gathered and fails every later one.
  bool rewriteSlotWithData(const tablePart1& slot) override {
    if (!CallScope::completeWrites()) return false;
    const platform::TransferPause direct;
    return WriteOne_TablePartOne(dst_, &slot) != 1;
  }

  bool reportRecord(uint32_t percent) override {
    if (percent == lastReported_) return true;
    lastReported_ = percent;
    return report(percent);
  }

  void releaseSource() override {
    closeSource();
    *out_.srcRef = 0;
  }

  // The status counts as the caller left it: a progress function that stores 100 keeps the file.
  bool emptiesDestination() override { return *out_.status != kKept; }

  // The only failure after which the caller's destination number is 0: the others leave it.
  void failedWithBuffer() override { *out_.dstRef = 0; }

  HandleOutputs out_;
  uint32_t lastReported_ = 0;
};

}  // namespace

int PackOneDB2New_WithHandle(const QVWCHAR* srcPath, const QVWCHAR* dstPath, int userData,
                             QVProgressFunction callback, uint16_t* outSrcRef, uint16_t* outDstRef,
                             int* status) {
  *status = kKept;
  if (srcPath == nullptr || dstPath == nullptr) return 0;
  const HandleOutputs out{outSrcRef, outDstRef, status};
  return PackWithHandle(dstPath, {callback, userData, nullptr}, out).run(srcPath);
}
