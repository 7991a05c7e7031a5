// Runs a program as a process of its own.
#include "kit/process.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <stdlib.h>
#include <sys/ioctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <ostream>
#include <stdexcept>
#include <utility>

namespace qvdbase::test {
namespace {

class End {
 public:
  explicit End(int descriptor = -1) : descriptor_(descriptor) {}
  ~End() { close(); }
  End(End&& other) noexcept : descriptor_(std::exchange(other.descriptor_, -1)) {}
  End& operator=(End&& other) noexcept {
    std::swap(descriptor_, other.descriptor_);
    return *this;
  }
  int get() const { return descriptor_; }
  void close() {
    if (descriptor_ >= 0) ::close(std::exchange(descriptor_, -1));
  }

 private:
  int descriptor_;
};

struct Channel {
  End ours;
  End theirs;
};

[[noreturn]] void failed(const char* what) {
  throw std::runtime_error(std::string("runProgram: cannot ") + what);
}

Channel pipeChannel(bool weRead) {
  int ends[2];
  if (::pipe2(ends, O_CLOEXEC) != 0) failed("make a pipe");
  return {End(ends[weRead ? 0 : 1]), End(ends[weRead ? 1 : 0])};
}

Channel terminalChannel(unsigned short columns) {
  End ours(::posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC));
  if (ours.get() < 0 || ::grantpt(ours.get()) != 0 || ::unlockpt(ours.get()) != 0) {
    failed("make a terminal");
  }
  End theirs(::open(::ptsname(ours.get()), O_RDWR | O_NOCTTY | O_CLOEXEC));
  if (theirs.get() < 0) failed("open a terminal");
  winsize size = {};
  size.ws_col = columns;
  if (columns != 0 && ::ioctl(theirs.get(), TIOCSWINSZ, &size) != 0) failed("set its width");
  return {std::move(ours), std::move(theirs)};
}

// How the child begins. A copy of this process would be large: with a sanitizer, making one takes
// longer than most programs run.
class Beginning {
 public:
  Beginning() {
    ::posix_spawn_file_actions_init(&actions_);
    ::posix_spawnattr_init(&attributes_);
    // A suite that a script began in the background would hand down that Ctrl-C is ignored.
    sigset_t signals;
    ::sigemptyset(&signals);
    for (const int signal : {SIGINT, SIGQUIT, SIGPIPE}) ::sigaddset(&signals, signal);
    ::posix_spawnattr_setsigdefault(&attributes_, &signals);
    ::posix_spawnattr_setflags(&attributes_, POSIX_SPAWN_SETSIGDEF);
  }
  ~Beginning() {
    ::posix_spawnattr_destroy(&attributes_);
    ::posix_spawn_file_actions_destroy(&actions_);
  }
  Beginning(const Beginning&) = delete;
  Beginning& operator=(const Beginning&) = delete;

  void setStream(int stream, int descriptor) {
    ::posix_spawn_file_actions_adddup2(&actions_, descriptor, stream);
  }
  void closeStream(int stream) { ::posix_spawn_file_actions_addclose(&actions_, stream); }
  void setFolder(const std::string& folder) {
    ::posix_spawn_file_actions_addchdir_np(&actions_, folder.c_str());
  }

  pid_t start(const std::string& program, char* const* words) const {
    pid_t child = -1;
    if (::posix_spawn(&child, program.c_str(), &actions_, &attributes_, words, environ) != 0) {
      failed("start the program");
    }
    return child;
  }

 private:
  posix_spawn_file_actions_t actions_;
  posix_spawnattr_t attributes_;
};

// Takes what is there. False at the end (which a terminal tells by an error).
bool take(int from, std::string* to) {
  char buffer[65536];
  const ssize_t got = ::read(from, buffer, sizeof buffer);
  if (got < 0 && errno == EINTR) return true;
  if (got <= 0) return false;
  to->append(buffer, static_cast<size_t>(got));
  return true;
}

// Feeds the input and collects both outputs until all streams have ended.
void converse(const std::string& input, End* in, End* out, End* err, Outcome* outcome) {
  size_t fed = 0;
  if (input.empty()) in->close();
  while (in->get() >= 0 || out->get() >= 0 || err->get() >= 0) {
    pollfd streams[3] = {{in->get(), POLLOUT, 0}, {out->get(), POLLIN, 0}, {err->get(), POLLIN, 0}};
    if (::poll(streams, 3, -1) < 0) continue;
    if (streams[0].revents != 0) {
      const ssize_t put = ::write(in->get(), input.data() + fed, input.size() - fed);
      if (put > 0) fed += static_cast<size_t>(put);
      if ((put < 0 && errno != EINTR) || fed == input.size()) in->close();
    }
    if (streams[1].revents != 0 && !take(out->get(), &outcome->out)) out->close();
    if (streams[2].revents != 0 && !take(err->get(), &outcome->err)) err->close();
  }
}

}  // namespace

Outcome runProgram(const ProgramCall& call) {
  Channel in = pipeChannel(false);
  const auto channel = [&call](Terminal stream) {
    return call.terminal == stream ? terminalChannel(call.terminalColumns) : pipeChannel(true);
  };
  Channel out = channel(Terminal::output);
  Channel err = channel(Terminal::error);
  if (!call.inputFile.empty()) {
    in.theirs = End(::open(call.inputFile.c_str(), O_RDONLY | O_CLOEXEC));
    if (in.theirs.get() < 0) failed("open the input file");
  }
  if (!call.outputFile.empty()) {
    out.theirs = End(::open(call.outputFile.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0666));
    if (out.theirs.get() < 0) failed("open the output file");
  }

  std::string name = call.program.native();
  std::vector<std::string> arguments = call.arguments;
  std::vector<char*> words = {name.data()};
  for (std::string& argument : arguments) words.push_back(argument.data());
  words.push_back(nullptr);

  const std::array<int, 3> streams = {in.theirs.get(), out.theirs.get(), err.theirs.get()};
  Beginning beginning;
  for (int i = 0; i < 3; ++i) {
    if (call.closedStreams.contains(i)) {
      beginning.closeStream(i);
    } else {
      beginning.setStream(i, streams[static_cast<size_t>(i)]);
    }
  }
  if (!call.folder.empty()) beginning.setFolder(call.folder);
  const pid_t child = beginning.start(call.program, words.data());
  in.theirs.close();
  out.theirs.close();
  err.theirs.close();
  if (call.closesOutput) out.ours.close();

  const auto ignored = ::signal(SIGPIPE, SIG_IGN);
  if (call.meanwhile) call.meanwhile(child);
  Outcome outcome;
  converse(call.input, &in.ours, &out.ours, &err.ours, &outcome);
  int status = 0;
  while (::waitpid(child, &status, 0) < 0 && errno == EINTR) {
  }
  ::signal(SIGPIPE, ignored);
  if (WIFEXITED(status)) outcome.status = WEXITSTATUS(status);
  if (WIFSIGNALED(status)) outcome.signal = WTERMSIG(status);
  return outcome;
}

std::ostream& operator<<(std::ostream& out, const Outcome& outcome) {
  return out << "status " << outcome.status << ", signal " << outcome.signal
             << "\nout: " << outcome.out << "\nerr: " << outcome.err;
}

}  // namespace qvdbase::test
