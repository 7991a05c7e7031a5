// qvdb patch: applies what 'qvdb diff --patch' has written.
#include "command_line/commands.h"
#include "commands/locate.h"
#include "content/json_line.h"
#include "content/line_reader.h"
#include "content/loader.h"
#include "content/patcher.h"
#include "streams/failure.h"
#include "streams/interrupt.h"
#include "streams/output.h"
#include "streams/text.h"

namespace qvdb::tool {
namespace {

struct Options {
  std::string file;
  std::optional<std::string> input;
  bool noSync = false;
};

void applyLines(LineReader& reader, Patcher& patcher) {
  std::string_view line;
  while (reader.next(&line)) {
    throwIfInterrupted();
    patcher.take(line);
  }
  patcher.finish();
}

int run(const Options& options) {
  LineReader reader(options.input.value_or("-"));
  Patcher patcher(options.file, !options.noSync);
  try {
    applyLines(reader, patcher);
  } catch (const BadLine& bad) {
    throw Failure(reader.about(bad.what()) + std::string("; nothing was changed"));
  } catch (const Error& error) {
    if (!isAboutTheInput(error.reason())) throw;
    throw Failure(reader.about(error.what()) + std::string("; nothing was changed"));
  }
  printLine(counted(patcher.operations(), "record", "records") +
            " added, changed, removed or moved");
  return kDone;
}

Action define(Arguments& arguments) {
  const auto options = std::make_shared<Options>();
  arguments.argument("FILE", options->file, "The database file, which is replaced.");
  arguments.optionalArgument("PATCH", options->input,
                             "What 'qvdb diff --patch' has written; '-', or no PATCH, is standard "
                             "input.");
  arguments.noSync(options->noSync);
  return actionOf(options, run);
}

}  // namespace

extern const Command kPatchCommand = {
    "patch",
    "apply what 'qvdb diff --patch' has written",
    R"(Makes the changes of a patch: records are added, changed, removed and moved, tables are added and
removed. Each line must fit the database: a record to be changed or removed must have the payload that it
had when the patch was made, one to be added must not be there, and what it follows must be. Records that
the patch does not name are kept, so that it can be applied to a database that has changed elsewhere.

All of it is applied, or nothing: the patched database is written beside the file, and takes its name in
one step. So it needs as much space again, and takes as long as compacting, which it does, too. Memory is
needed for the identifiers of the largest table, about 150 bytes for each record.)",
    R"(qvdb diff --patch before.qvd after.qvd | qvdb patch copy-of-before.qvd
qvdb patch notes.qvd changes.jsonl)",
    define,
};

}  // namespace qvdb::tool
