// Making an open file shorter.
#include "platform/handles/cutting.h"

#include "platform/host/system_calls.h"
#include "platform/transfer/mirror.h"
#include "platform/transfer/stage.h"
#include "platform/transfer/transfer.h"

namespace qvdbase::platform {

bool cutFile(const OpenFile& file, int64_t length) {
  if (file.sharing != Sharing::exclusive || length < 0) return false;
  flushTransfers();  // a refused write fails the scope: it is cut off, or lies before
  if (file.stage != nullptr) return file.stage->cut(file, length);
  const int64_t present = systemCalls().lengthOf(file.descriptor);
  if (present < length) return false;
  if (present == length) return true;
  const bool isCut =
      uninterrupted([&] { return systemCalls().truncate(file.descriptor, length); }) == 0;
  noteCut(file.entry, isCut ? length : -1);
  return isCut;
}

}  // namespace qvdbase::platform
