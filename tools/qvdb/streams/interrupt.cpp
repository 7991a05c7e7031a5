// Ctrl-C, and the other signals that ask a process to end.
#include "streams/interrupt.h"

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>

#include "command_line/command.h"
#include "streams/output.h"

namespace qvdb::tool {
namespace {

constexpr int kEndingSignals[] = {SIGINT, SIGTERM, SIGHUP};

sigset_t endingSignals() {
  sigset_t signals;
  sigemptyset(&signals);
  for (const int signal : kEndingSignals) sigaddset(&signals, signal);
  return signals;
}

volatile std::sig_atomic_t interrupted = 0;
volatile std::sig_atomic_t endsAtOnce = 0;  // how many of these objects there are

// A signal that comes just before a read would be noted, and the read would wait nevertheless. So
// the handler writes into a pipe, and waiting for input waits for the pipe too.
int notice[2] = {-1, -1};

void noteInterrupt(int) {
  if (endsAtOnce != 0) {
    constexpr char kMessage[] = "qvdb: interrupted\n";
    static_cast<void>(!::write(STDERR_FILENO, kMessage, sizeof kMessage - 1));
    ::_exit(kFailed);
  }
  const int error = errno;
  interrupted = 1;
  static_cast<void>(!::write(notice[1], "", 1));
  errno = error;
}

}  // namespace

void holdInterrupts() {
  const sigset_t held = endingSignals();
  ::sigprocmask(SIG_BLOCK, &held, nullptr);
}

void catchInterrupts() {
  // Without the pipe a signal is still noted.
  static_cast<void>(!::pipe2(notice, O_CLOEXEC | O_NONBLOCK));
  struct sigaction action = {};
  action.sa_handler = noteInterrupt;
  action.sa_flags = static_cast<int>(SA_RESETHAND);  // and without SA_RESTART: waiting reads return
  sigemptyset(&action.sa_mask);
  for (const int signal : kEndingSignals) {
    struct sigaction before = {};
    // One that the caller ignores, as nohup does, stays ignored.
    if (::sigaction(signal, nullptr, &before) == 0 && before.sa_handler == SIG_IGN) continue;
    ::sigaction(signal, &action, nullptr);
  }
  const sigset_t noted = endingSignals();
  ::sigprocmask(SIG_UNBLOCK, &noted, nullptr);
  std::signal(SIGPIPE, SIG_IGN);
  std::signal(SIGXFSZ, SIG_IGN);
}

namespace {

void waitFor(int descriptor, short event) {
  pollfd sources[2] = {{descriptor, event, 0}, {notice[0], POLLIN, 0}};
  do {
    throwIfInterrupted();
  } while (::poll(sources, 2, -1) < 0 && errno == EINTR);
  throwIfInterrupted();
}

}  // namespace

void waitForInput(int descriptor) {
  waitFor(descriptor, POLLIN);
}

// A pipe without a reader is reported whatever is asked for.
void waitForNews(int descriptor, int milliseconds) {
  throwIfInterrupted();
  pollfd sources[3] = {{descriptor, POLLIN, 0}, {notice[0], POLLIN, 0}, {STDOUT_FILENO, 0, 0}};
  const int found = ::poll(sources, 3, milliseconds);
  throwIfInterrupted();
  if (found > 0 && (sources[2].revents & (POLLERR | POLLHUP)) != 0) throw OutputClosed();
}

bool canContinueWriting(int descriptor) {
  if (errno != EINTR && errno != EAGAIN) return false;
  waitFor(descriptor, POLLOUT);
  return true;
}

bool isInterrupted() {
  return interrupted != 0;
}

void throwIfInterrupted() {
  if (isInterrupted()) throw Interrupted();
}

EndsAtOnce::EndsAtOnce() {
  throwIfInterrupted();
  endsAtOnce = endsAtOnce + 1;
  if (!isInterrupted()) return;  // it came before the line above
  endsAtOnce = endsAtOnce - 1;
  throw Interrupted();
}

EndsAtOnce::~EndsAtOnce() {
  endsAtOnce = endsAtOnce - 1;
}

}  // namespace qvdb::tool
