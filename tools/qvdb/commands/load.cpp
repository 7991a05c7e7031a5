// qvdb load: makes a database of a dump.
#include "command_line/commands.h"
#include "content/line_reader.h"
#include "content/loader.h"
#include "streams/failure.h"
#include "streams/interrupt.h"
#include "streams/output.h"
#include "streams/text.h"

namespace qvdb::tool {
namespace {

struct Options {
  std::string file;
  std::optional<std::string> input;
  bool parents = false;
  bool noSync = false;
};

void loadLines(LineReader& reader, Loader& loader) {
  std::string_view line;
  while (reader.next(&line)) {
    throwIfInterrupted();
    loader.take(line);
  }
  loader.finish();
}

int run(const Options& options) {
  LineReader reader(options.input.value_or("-"));
  CreateOptions create;
  create.create_folders = options.parents;
  create.sync = !options.noSync;
  Loader loader(options.file, create);
  try {
    loadLines(reader, loader);
  } catch (const BadLine& bad) {
    throw Failure(reader.about(bad.what()) + std::string("; nothing was loaded"));
  } catch (const Error& error) {
    if (error.reason() == Reason::file_exists) {
      throw Failure(options.file + ": exists already; choose another name, or remove it first");
    }
    if (!isAboutTheInput(error.reason())) throw;
    throw Failure(reader.about(error.what()) + std::string("; nothing was loaded"));
  }
  printLine(counted(loader.records(), "record", "records") + " in " +
            counted(loader.tables(), "table", "tables"));
  return kDone;
}

Action define(Arguments& arguments) {
  const auto options = std::make_shared<Options>();
  arguments.argument("FILE", options->file, "The new database file, which must not exist yet.");
  arguments.optionalArgument("DUMP", options->input,
                             "What 'qvdb dump' has written; '-', or no DUMP, is standard input.");
  arguments.parents(options->parents);
  arguments.noSync(options->noSync);
  return actionOf(options, run);
}

}  // namespace

extern const Command kLoadCommand = {
    "load",
    "make a database of a dump",
    R"(Makes a new database of what 'qvdb dump' has written. Everything in it is restored: identifiers,
times, capacities, flags, counters and the order of the records; a dump of the new database is the
same, byte for byte, unless it is one of a part of a database. Each line is checked, and a message
about one names its number. The file appears under its name when it is complete, or not at all; a file
that exists is never replaced, unless it is empty.

Memory does not depend on the number of records, nor on their size; the data of one table is held in
memory. Identifiers that a dump has several times in one table are restored like all others.)",
    R"(qvdb load notes.qvd notes.jsonl
gunzip -c notes.jsonl.gz | qvdb load notes.qvd
qvdb dump old.qvd | qvdb load new.qvd)",
    define,
};

}  // namespace qvdb::tool
