// Noticing that this process is a child made by fork.
#include "platform/host/process_mark.h"

#include <pthread.h>

namespace qvdbase::platform {

constinit uint32_t detail::forkDepth = 0;

namespace {

void descend() {
  ++detail::forkDepth;
}

[[maybe_unused]] const int isCounted = ::pthread_atfork(nullptr, nullptr, descend);

}  // namespace
}  // namespace qvdbase::platform
