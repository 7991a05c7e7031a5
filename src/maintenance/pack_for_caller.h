// What the two packs have in common that report their file numbers and let their caller decide,
// through the status, whether a destination that was not finished is kept.
#pragma once

#include <cstdint>

#include "maintenance/pack_steps.h"

namespace qvdbase::maintenance {

// Where the caller is given the file numbers and the status. The status is set to kKept when the
// pack is called.
struct PackOutputs {
  static constexpr int kKept = 100;  // the destination does not exist, or is to be kept
  static constexpr int kEmptied = 0;

  uint16_t* srcRef;
  uint16_t* dstRef;
  int* status;
};

class PackForCaller : public PackSteps {
 public:
  PackForCaller(const QVWCHAR* dstPath, PackProgress progress, PackOutputs out)
      : PackSteps(dstPath, progress), out_(out) {}

 protected:
  bool createDestination() {
    if (!PackSteps::createDestination()) {
      *out_.status = PackOutputs::kKept;
      return false;
    }
    *out_.status = PackOutputs::kEmptied;
    *out_.srcRef = static_cast<uint16_t>(src_);
    *out_.dstRef = static_cast<uint16_t>(dst_);
    return true;
  }

  bool finish() {
    if (!completeDestination()) return false;
    closeDestination();
    *out_.dstRef = 0;
    return true;
  }

  // The status counts as the caller left it: a progress function that stores 100 keeps the file.
  bool emptiesDestination() override { return *out_.status != PackOutputs::kKept; }

  // The only failure after which the caller's destination number is 0: the others leave it.
  void failedWithBuffer() override { *out_.dstRef = 0; }

  PackOutputs out_;
};

}  // namespace qvdbase::maintenance
