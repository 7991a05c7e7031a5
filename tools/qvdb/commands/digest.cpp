// qvdb digest: SHA-256 of what a database holds.
#include <nlohmann/json.hpp>

#include "command_line/commands.h"
#include "commands/locate.h"
#include "content/digests.h"
#include "content/saved_digests.h"
#include "content/steady_file.h"
#include "streams/output.h"
#include "streams/text.h"

namespace qvdb::tool {
namespace {

struct Options {
  std::string file;
  bool tables = false;
  bool records = false;
  bool save = false;
  bool verify = false;
  bool noSync = false;
  bool json = false;
};

void requireMeaning(const Options& options) {
  if (options.save && options.verify) throw wrongUsage("--save and --verify exclude each other");
  if ((options.save || options.verify) && (options.tables || options.records || options.json)) {
    throw wrongUsage("--save and --verify cannot be combined with --tables, --records or --json");
  }
}

int verify(const Options& options, const Database& database) {
  const uint64_t differences = verifyDigests(database, pathOfDigests(options.file));
  if (differences == 0) printLine("nothing changed");
  return differences == 0 ? kDone : kFailed;
}

void printAll(const Options& options, const Database& database) {
  std::string table;
  DigestListener listener;
  listener.table = [&](const TableInfo& info, const auto&) { table = escaped(info.name); };
  if (options.records) {
    listener.record = [&](const RecordDigest& record) {
      printLine(hexOf(record.payload) + "  " + table + " " + to_string(record.id));
    };
  }
  if (options.tables || options.records) {
    listener.endOfTable = [&](const Sha256Digest& digest) {
      printLine(hexOf(digest) + "  " + table);
    };
  }
  const auto all = [&] { return digestOf(database, listener); };
  const bool printsBefore = options.tables || options.records;
  const Sha256Digest digest = printsBefore ? all() : whileChanging(all);
  printLine(hexOf(digest) + "  " + escaped(options.file));
}

void printAllAsJson(const Options& options, const Database& database) {
  Json tables;
  Json table;
  DigestListener listener;
  listener.table = [&](const TableInfo& info, const auto&) {
    table = Json::object();
    addText(&table, "name", info.name);
    table["id"] = to_string(info.id);
    if (options.records) table["records"] = Json::array();
  };
  if (options.records) {
    listener.record = [&](const RecordDigest& record) {
      Json row;
      row["id"] = to_string(record.id);
      row["sha256"] = hexOf(record.payload);
      table["records"].push_back(std::move(row));
    };
  }
  listener.endOfTable = [&](const Sha256Digest& digest) {
    table["sha256"] = hexOf(digest);
    tables.push_back(std::move(table));
  };
  const Sha256Digest digest = whileChanging([&] {
    tables = Json::array();
    return digestOf(database, listener);
  });
  Json json;
  addText(&json, "file", options.file);
  json["sha256"] = hexOf(digest);
  json["tables"] = std::move(tables);
  printJson(json);
}

int run(const Options& options) {
  requireMeaning(options);
  const Database database = openToRead(options.file);
  if (options.verify) return verify(options, database);
  if (options.save) {
    whileChanging([&] { saveDigests(database, pathOfDigests(options.file), options.noSync); });
  } else if (options.json) {
    printAllAsJson(options, database);
  } else {
    printAll(options, database);
  }
  return kDone;
}

Action define(Arguments& arguments) {
  const auto options = std::make_shared<Options>();
  arguments.argument("FILE", options->file, kFileHelp);
  arguments.flag("--tables", options->tables, "Print the digest of each table, too.");
  arguments.flag("--records", options->records, "Print the digests of tables and payloads, too.");
  arguments.flag("--save", options->save,
                 "Save all digests in FILE.sha256, instead of those that were saved before.");
  arguments.flag("--verify", options->verify,
                 "Compare with FILE.sha256, and name what changed since it was saved.");
  arguments.noSync(options->noSync);
  arguments.json(options->json);
  return actionOf(options, run);
}

}  // namespace

extern const Command kDigestCommand = {
    "digest",
    "print or verify SHA-256 sums of the content",
    R"(Prints a SHA-256 digest of everything that a database holds: its header, its tables with their data,
and its records in their order with identifiers, times and payloads. It does not depend on where things
are in the file, nor on spare capacity or counters: compacting does not change it. The digest of a
record is that of its payload, as 'sha256sum' prints it for the output of 'qvdb get'.

With --save the digests of all records are kept beside the file, in FILE.sha256, which is replaced;
--verify then names the table and the record of each payload that changed, of each record that is new or
missing, and whatever else differs. Its status is 1 where something does.

When another program writes to the file meanwhile, no digest of the whole is printed or saved, and the
status is 3: try again, with --wait SECONDS, or take a copy that 'qvdb backup' makes.

The file is only read, in constant memory; --verify needs about 150 bytes for each record that was
saved. docs/text.md says what exactly is hashed.)",
    R"(qvdb digest notes.qvd
qvdb digest --records notes.qvd
qvdb digest --save notes.qvd
qvdb digest --verify notes.qvd)",
    define,
};

}  // namespace qvdb::tool
