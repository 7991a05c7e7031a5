// Ctrl-C, and the other polite signals: a command stops where it can, between two records, and
// leaves a sound file.
#ifndef QVDB_TOOL_INTERRUPT_H
#define QVDB_TOOL_INTERRUPT_H

namespace qvdb::tool {

// Thrown by throwIfInterrupted; main says "interrupted".
struct Interrupted {};

// From now on SIGINT, SIGTERM and SIGHUP are only noted, and SIGPIPE is ignored. A second signal
// of the first three ends the process at once.
void catchInterrupts();

bool isInterrupted();
void throwIfInterrupted();

}  // namespace qvdb::tool

#endif
