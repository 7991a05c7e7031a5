// Ctrl-C and its kind.
#include "qvdb/interrupt.h"

#include <csignal>
#include <initializer_list>

namespace qvdb::tool {
namespace {

volatile std::sig_atomic_t interrupted = 0;

void noteInterrupt(int) {
  interrupted = 1;
}

}  // namespace

void catchInterrupts() {
  struct sigaction action = {};
  action.sa_handler = noteInterrupt;
  action.sa_flags = static_cast<int>(SA_RESETHAND);  // and without SA_RESTART: waiting reads return
  sigemptyset(&action.sa_mask);
  for (const int signal : {SIGINT, SIGTERM, SIGHUP}) {
    struct sigaction before = {};
    // One that the caller ignores, as nohup does, stays ignored.
    if (::sigaction(signal, nullptr, &before) == 0 && before.sa_handler == SIG_IGN) continue;
    ::sigaction(signal, &action, nullptr);
  }
  std::signal(SIGPIPE, SIG_IGN);
}

bool isInterrupted() {
  return interrupted != 0;
}

void throwIfInterrupted() {
  if (isInterrupted()) throw Interrupted();
}

}  // namespace qvdb::tool
