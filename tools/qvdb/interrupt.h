// Ctrl-C, and the other polite signals: a command stops where it can, between two records, and
// leaves a sound file.
#ifndef QVDB_TOOL_INTERRUPT_H
#define QVDB_TOOL_INTERRUPT_H

namespace qvdb::tool {

// Thrown by throwIfInterrupted; main says "interrupted".
struct Interrupted {};

// From now on SIGINT, SIGTERM and SIGHUP are only noted; a second one of a kind ends the process at
// once. Signals that come because something cannot be written are ignored: the write fails, too.
void catchInterrupts();

// Waits until the descriptor has something to read, or is at its end. Throws Interrupted when a
// signal comes meanwhile, or has come before.
void waitForInput(int descriptor);

bool isInterrupted();
void throwIfInterrupted();

}  // namespace qvdb::tool

#endif
