// qvdb pack: the library's pack, as it is.
#include "commands.h"
#include "packing.h"

namespace qvdb::tool {
namespace {

int run(const PackOptions& options) {
  return runPacking({pack, "packing", "packed", "; 'qvdb compact' keeps it"}, options);
}

Action define(Arguments& arguments) {
  return actionOf(definePacking(arguments), run);
}

}  // namespace

extern const Command kPackCommand = {
    "pack", "copy a database without its dead parts, as the library packs",
    "Writes every table and its records to a new file: same identifiers, times, payloads and room. "
    "Deleted records and the old places of changed ones stay behind. The version becomes 100.\n\n"
    "A table that has records loses its table data: that is how this operation has always been. "
    "'qvdb compact' keeps all that is live, and is what you want unless you need exactly this.\n\n"
    "The target appears under its name only when it is finished. Ctrl-C leaves nothing behind.",
    "qvdb pack notes.qvd packed.qvd\n"
    "qvdb pack --force notes.qvd packed.qvd",
    define};

}  // namespace qvdb::tool
