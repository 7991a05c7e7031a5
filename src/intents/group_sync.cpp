// Waiting for the device without the turn of the file.
#include "intents/group_sync.h"

#include "platform/host/host_failure.h"

namespace qvdbase::intents {

void GroupSync::run() noexcept {
  const bool isSynced = outside_.run();
  if (!isSynced) host_ = platform::lastHostFailure();
  state_ = isSynced ? State::succeeded : State::failed;
  state_.notify_all();
}

void GroupSync::wait() const noexcept {
  state_.wait(State::begun);
}

}  // namespace qvdbase::intents
