// Ctrl-C, and the other signals that ask a process to end: a command stops between two records and
// leaves a sound file.
#pragma once

namespace qvdb::tool {

// Thrown by throwIfInterrupted; main prints "interrupted".
struct Interrupted {};

// Keeps the signals that ask a process to end waiting until catchInterrupts(). The first thing that
// main() does: before that, they end the process as they end any other.
void holdInterrupts();

// From now on SIGINT, SIGTERM and SIGHUP are only noted; a second one of a kind ends the process at
// once. One that was blocked until now, and sent, is noted too, whether this process has blocked it
// or the one that has started it. Signals about failed writes are ignored: the write itself reports
// the failure.
void catchInterrupts();

// Waits until the descriptor has something to read, or is at its end. Throws Interrupted when a
// signal comes meanwhile, or has come before.
void waitForInput(int descriptor);

// Waits until the descriptor has something to read, or the time is over; -1 is no descriptor.
// Throws Interrupted likewise, and OutputClosed when standard output has no reader any more.
void waitForNews(int descriptor, int milliseconds);

// After a write that failed with errno: whether to try again. A descriptor that does not block is
// waited for. Throws Interrupted as waitForInput() does.
bool canContinueWriting(int descriptor);

bool isInterrupted();
void throwIfInterrupted();

// While one of these exists, the first signal ends the process at once, with the message and the
// status of one that was interrupted: for operations of the library that look at a whole file, and
// can be cut off at any moment. What was printed and not flushed is lost.
class EndsAtOnce {
 public:
  EndsAtOnce();  // throws Interrupted when a signal has come before
  ~EndsAtOnce();
  EndsAtOnce(const EndsAtOnce&) = delete;
  EndsAtOnce& operator=(const EndsAtOnce&) = delete;
};

}  // namespace qvdb::tool
