// qvdb dump: writes a database as text.
#include "command_line/commands.h"
#include "commands/locate.h"
#include "content/dump_writer.h"
#include "content/steady_file.h"
#include "content/text_output.h"
#include "formats/export_rows.h"
#include "streams/given_time.h"

namespace qvdb::tool {
namespace {

struct Options {
  std::string file;
  std::optional<std::string> table;
  std::optional<std::string> after;
  std::optional<std::string> since;
  bool copy = false;
  TextOutputOptions output;
};

DumpSelection selectionOf(const Options& options) {
  DumpSelection selection;
  selection.table = options.table;
  if (options.after) {
    if (!options.table) throw wrongUsage("--after needs --table");
    selection.after = parse_id(*options.after);
    if (!selection.after) {
      throw wrongUsage("--after: '" + *options.after +
                       "' is not an identifier: write 0x and hexadecimal digits");
    }
  }
  if (!options.since) return selection;
  selection.since = timeOfOption("--since", *options.since);
  return selection;
}

// As text for PostgreSQL's COPY.
int runCopy(const Options& options, const DumpSelection& selection) {
  const TextOutputOptions& output = options.output;
  exportRows({.file = options.file,
              .table = options.table,
              .after = options.after,
              .since = selection.since},
             {.copy = output.output.value_or("-")},
             {.overwrite = output.force, .create_folders = output.parents, .sync = !output.noSync});
  return kDone;
}

int run(const Options& options) {
  const DumpSelection selection = selectionOf(options);
  if (options.copy) return runCopy(options, selection);
  const Database database = openToRead(options.file);
  const auto dump = [&] {
    writeText(options.output, options.file,
              [&](JsonLines& lines) { dumpDatabase(database, selection, lines); });
  };
  options.output.isFile() ? whileChanging(dump) : dump();
  return kDone;
}

Action define(Arguments& arguments) {
  const auto options = std::make_shared<Options>();
  arguments.argument("FILE", options->file, kFileHelp);
  arguments.option("--table", "TABLE", options->table, "Dump only this table.");
  arguments.option("--after", "ID", options->after,
                   "Dump only the records that were added after this one; needs --table.");
  arguments.option("--since", "TIME", options->since,
                   "Dump only records that were added or modified at this time (UTC) or later: "
                   "2024-05-01T12:34:56, 2024-05-01 or @SECONDS since 1970.");
  arguments.flag("--copy", options->copy,
                 "Write the records as text for PostgreSQL's COPY instead of JSON Lines, as "
                 "'qvdb export --copy' does.");
  defineTextOutput(arguments, options->output);
  return actionOf(options, run);
}

}  // namespace

extern const Command kDumpCommand = {
    "dump",
    "write a database as text (JSON Lines)",
    R"(Writes everything that a database holds as JSON Lines, one JSON object on each line: a header,
each table with its data, and its records in their order, with identifiers, times, capacities,
flags and counters. A payload is text where it is UTF-8 that prints, and base64 otherwise; one of
more than 1 MiB takes several lines. Lists of imported files and categories are decoded. 'qvdb load'
makes a database of it of which the dump is the same, byte for byte. Where things are in the file, and
what was deleted, is not dumped.

The file is only read, in constant memory but for a table's list of imported files. A dump that fails
lacks its last line, so that it cannot be loaded. It fails, with status 3, when another program writes
to the file meanwhile, because its records could be of no single moment: try again, or dump a copy that
'qvdb backup' makes. With --output, --wait SECONDS tries again. --after, --since and --copy take the
records that they find.

With --table, --after or --since the dump holds a part of the database, which can be loaded, too.

With --copy the records become rows with the columns place (in the order of the table, from 1),
table_name, id, created, modified and payload, for PostgreSQL. Such rows cannot be loaded again.

docs/text.md describes the lines. To let 'git diff' show changes of databases, write "*.qvd diff=qvdb"
into .gitattributes and run: git config diff.qvdb.textconv "qvdb dump")",
    R"(qvdb dump notes.qvd
qvdb dump notes.qvd | gzip > notes.jsonl.gz
qvdb dump --table letters --since 2024-05-01 notes.qvd
qvdb dump notes.qvd | grep '"text"' | jq -r .text
qvdb dump --copy notes.qvd | psql -c 'COPY records FROM STDIN')",
    define,
};

}  // namespace qvdb::tool
