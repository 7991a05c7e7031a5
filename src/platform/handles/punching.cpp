// Giving parts of an open file back to the file system.
#include "platform/handles/punching.h"

#include "platform/host/host_failure.h"
#include "platform/host/system_calls.h"
#include "platform/transfer/mirror.h"
#include "platform/transfer/transfer.h"

namespace qvdbase::platform {
namespace {

bool punch(const OpenFile& file, int64_t position, int64_t length) {
  const bool isPunched = uninterrupted([&] {
                           return systemCalls().punchHole(file.descriptor, position, length);
                         }) == 0;
  if (!isPunched) noteHostFailure();
  return isPunched;
}

}  // namespace

bool canPunch(const OpenFile& file) {
  constexpr int64_t kPage = 4096;
  const int64_t length = systemCalls().lengthOf(file.descriptor);
  if (length < 0) return false;
  return punch(file, (length + 2 * kPage) / kPage * kPage, kPage);
}

bool punchFile(const OpenFile& file, int64_t position, int64_t length) {
  if (file.sharing != Sharing::exclusive || !flushTransfers()) return false;
  const bool isPunched = punch(file, position, length);
  noteCut(file.entry, -1);
  return isPunched;
}

}  // namespace qvdbase::platform
