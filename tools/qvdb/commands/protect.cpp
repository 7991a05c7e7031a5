// qvdb protect: gives the records of a file checksums of their payloads.
#include "command_line/commands.h"
#include "commands/packing.h"
#include "streams/output.h"
#include "streams/percent_progress.h"
#include "streams/text.h"

namespace qvdb::tool {
namespace {

struct Options {
  std::string file;
  bool changed = false;
};

int run(const Options& options) {
  CompactOptions how;
  how.protect = true;
  how.accept_changes = options.changed;
  const CompactReport report = withPercent("protecting", [&](const ProgressFunction& progress) {
    return compact(options.file, progress, how);
  });
  printLine(counted(report.checksums_made, "checksum", "checksums") + " made for " +
            counted(report.records, "record", "records"));
  return kDone;
}

Action define(Arguments& arguments) {
  const auto options = std::make_shared<Options>();
  arguments.argument("FILE", options->file, "The database file.");
  arguments.flag("--changed", options->changed,
                 "Also make new ones for records that a program has changed that does not know "
                 "checksums: what they hold now counts as right.");
  return actionOf(options, run);
}

}  // namespace

extern const Command kProtectCommand = {
    "protect",
    "give every record a checksum of its payload",
    R"(Gives every record that has none a checksum of its payload, by which readers notice that its bytes
have changed although nothing wrote to them. 'qvdb check --payloads' compares all of them.

The file is written anew as 'qvdb compact' does it, with 32 bytes more capacity where a record lacks
the space, and the new file takes the place of the old one when it is complete: until then nothing
has changed, whatever happens. What is dead in the file is left out, so that 'qvdb undelete' and
'qvdb history' have nothing older. No other process may have the file open for writing.

Records that have a checksum keep it as it is, also one that says that the payload is damaged. New
records get one only where the program that adds them asks for it: 'qvdb put --checksum'.)",
    R"(qvdb protect notes.qvd
qvdb check --payloads notes.qvd)",
    define,
};

}  // namespace qvdb::tool
