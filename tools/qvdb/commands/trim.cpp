// qvdb trim: gives the space of dead payloads back to the file system, in place.
#include <qvdbase/qvdb/trim.hpp>

#include "command_line/commands.h"
#include "streams/interrupt.h"
#include "streams/output.h"
#include "streams/text.h"
#include "streams/waiting.h"

namespace qvdb::tool {
namespace {

struct Options {
  std::string file;
  bool dryRun = false;
};

int run(const Options& options) {
  const EndsAtOnce atOnce;
  const TrimReport report =
      whileInUse([&] { return trim(options.file, {.dry_run = options.dryRun}); });
  printLine(counted(report.bytes, "byte", "bytes") +
            (options.dryRun ? " would be given back, of " : " given back, of ") +
            counted(report.payloads, "dead payload", "dead payloads"));
  return kDone;
}

Action define(Arguments& arguments) {
  const auto options = std::make_shared<Options>();
  arguments.argument("FILE", options->file, "The database file.");
  arguments.flag("-n,--dry-run", options->dryRun,
                 "Report what would be given back, and write nothing.");
  return actionOf(options, run);
}

}  // namespace

extern const Command kTrimCommand = {
    "trim",
    "give the space of dead payloads back, in place",
    R"(Deleted records, and older versions of changed ones, stay in the file. This command gives the whole
pages of 4096 bytes inside their payloads back to the file system, which makes holes of them: the
file keeps its length and takes less space, as 'du' shows. Nothing that is in use is touched, and no
second file is needed. 'qvdb compact' gains more, and needs the space for a second file.

'qvdb undelete', 'qvdb history --at' and 'qvdb salvage --deleted' do not bring these payloads back
any more, and say so. What 'qvdb salvage' saves without being asked stays.

No other process may have the file open for writing, or for reading through the layer that this tool
uses. A process that is killed leaves a sound database; the same command continues. Where the file
system has no holes, nothing is changed.)",
    R"(qvdb trim --dry-run notes.qvd
qvdb trim notes.qvd)",
    define,
    R"(0  done, or nothing to give back
1  failed, or refused
2  wrong usage
3  another process has the database open)",
};

}  // namespace qvdb::tool
