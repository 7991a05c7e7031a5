// qvdb pack: the library's pack.
#include "command_line/commands.h"
#include "commands/packing.h"

namespace qvdb::tool {
namespace {

int run(const PackOptions& options) {
  return runPacking({pack, "packing", "packed", "; 'qvdb compact' keeps it",
                     "; 'qvdb compact' keeps them, and 'qvdb protect' makes new ones"},
                    options);
}

Action define(Arguments& arguments) {
  return actionOf(definePacking(arguments), run);
}

}  // namespace

extern const Command kPackCommand = {
    "pack",
    "copy a database as PackOneDB2NewW does",
    R"(Writes every table and its records to a new file: same identifiers, times, payloads and capacities.
Deleted records and the old places of changed ones are left out. The version becomes 100.

A table that has records loses its table data, and records lose checksums of their payloads: this
operation has always done so. 'qvdb compact' keeps everything that is live; use it unless you need
exactly this.

SOURCE is not changed. But it is opened exclusively, which works only with a file that can be
written. 'qvdb compact' only reads it.

The target appears under its name only when it is complete. Ctrl-C leaves nothing.)",
    R"(qvdb pack notes.qvd packed.qvd
qvdb pack --force notes.qvd packed.qvd)",
    define,
};

}  // namespace qvdb::tool
