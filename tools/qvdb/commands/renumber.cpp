// qvdb renumber: the library's pack under new identifiers.
#include "command_line/commands.h"
#include "commands/packing.h"

namespace qvdb::tool {
namespace {

int run(const PackOptions& options) {
  return runPacking({renumber, "renumbering", "renumbered", "", "; 'qvdb protect' makes new ones"},
                    options);
}

Action define(Arguments& arguments) {
  return actionOf(definePacking(arguments), run);
}

}  // namespace

extern const Command kRenumberCommand = {
    "renumber",
    "copy a database under new identifiers",
    R"(Writes every table to a new file, which gets an identifier of its own, and gives its records new
identifiers and times. The records of the tables QVrz_Info and QVrz_Category keep theirs. Those of
QVrz_Category are categories: the identifiers of records of QVrz_Record that they list are
replaced by the new ones. A database without a table QVrz_Category cannot be renumbered.

If no table follows QVrz_Record, a category that lists the last record of QVrz_Record makes the
operation fail. A table that has records loses its table data, and records lose checksums of their
payloads. This operation has always done so.

The target appears under its name only when it is complete. Ctrl-C leaves nothing.)",
    R"(qvdb renumber notes.qvd twin.qvd)",
    define,
};

}  // namespace qvdb::tool
