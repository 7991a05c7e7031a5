// qvdb salvage: saves what can be saved from a damaged file.
#include <nlohmann/json.hpp>

#include <algorithm>
#include <charconv>
#include <map>
#include <utility>

#include "command_line/commands.h"
#include "commands/locate.h"
#include "streams/input.h"
#include "streams/interrupt.h"
#include "streams/output.h"
#include "streams/text.h"
#include "streams/waiting.h"

namespace qvdb::tool {
namespace {

struct Options {
  std::string source;
  std::string target;
  SalvageOptions salvage;
  std::optional<std::string> grade;
  std::optional<std::string> from;
  std::optional<std::string> extract;
  std::optional<std::string> deep;
  bool verbose = false;
  bool json = false;
};

BlockGrade gradeOf(const std::string& text) {
  if (text == "A" || text == "a") return BlockGrade::a;
  if (text == "B" || text == "b") return BlockGrade::b;
  if (text == "C" || text == "c") return BlockGrade::c;
  throw wrongUsage("--grade takes A, B or C, not '" + text + "'");
}

int64_t offsetOf(const std::string& text) {
  int64_t offset = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), offset);
  if (error != std::errc() || end != text.data() + text.size()) {
    throw wrongUsage("--from takes a number of bytes, not '" + text + "'");
  }
  return offset;
}

SalvageOptions optionsOf(const Options& options) {
  SalvageOptions salvage = options.salvage;
  if (options.grade) salvage.lowest_grade = gradeOf(*options.grade);
  if (options.from) salvage.from = offsetOf(*options.from);
  if (options.extract) salvage.extract_to = *options.extract;
  if (options.deep) salvage.deep_to = *options.deep;
  return salvage;
}

std::string keyOf(const FoundBlock& block) {
  std::string key = std::string(to_string(block.label));
  if (block.is_orphan) key += ", of an unknown table";
  if (block.is_table_data) key += ", table data";
  return key;
}

struct Tally {
  uint64_t found = 0;
  uint64_t written = 0;
};

bool hasChecksum(const FoundBlock& block) {
  return block.payload && *block.payload != PayloadState::unprotected;
}

std::string lineOf(const FoundBlock& block) {
  return std::to_string(block.offset) + "  " + letterOf(block.grade) + "  " +
         (block.is_table_data ? "table data        " : to_string(block.record)) + "  " +
         (block.table_name.empty() ? to_string(block.table) : escaped(block.table_name)) + "  " +
         std::to_string(block.there) + " bytes  " + keyOf(block) +
         (block.written_to.empty() ? "  left out" : "  -> " + escaped(block.written_to)) +
         (hasChecksum(block) ? "  " + std::string(to_string(*block.payload)) : "");
}

Json jsonOf(const SalvageReport& report) {
  Json json;
  json["verified"] = report.verified;
  json["tables_written"] = report.tables_written;
  json["records_written"] = report.records_written;
  json["table_data_written"] = report.data_written;
  json["payload_bytes"] = report.payload_bytes;
  json["records_cut"] = report.records_cut;
  json["payloads"] = {{"verified", report.payloads.verified},
                      {"unprotected", report.payloads.unprotected},
                      {"changed_elsewhere", report.payloads.changed_elsewhere},
                      {"rotten", report.payloads.rotten}};
  json["bytes_unreadable"] = report.bytes_unreadable;
  json["blocks_found"] = report.blocks_found;
  json["blocks_left_out"] = report.blocks_left_out;
  json["tables_left_out"] = report.tables_left_out;
  json["bytes_unknown"] = report.bytes_unknown;
  json["unknown"] = Json::array();
  for (const ByteRange& range : report.unknown) {
    json["unknown"].push_back({{"offset", range.offset}, {"size", range.size}});
  }
  json["notes"] = Json::array();
  for (const std::string& note : report.notes) json["notes"].push_back(escaped(note));
  return json;
}

Json jsonOf(const StoredDatabase& stored) {
  Json json = jsonOf(stored.report);
  json["offset"] = stored.offset;
  addText(&json, "file", stored.file.native());
  return json;
}

Json jsonOf(const SalvageReport& report, const std::map<std::string, Tally>& tallies) {
  Json json = jsonOf(report);
  json["source_in_use"] = report.source_in_use;
  addWriter(&json, "source_writer", report.source_writer);
  json["blocks"] = Json::array();
  for (const auto& [label, tally] : tallies) {
    json["blocks"].push_back(
        {{"label", label}, {"found", tally.found}, {"written", tally.written}});
  }
  json["stored"] = Json::array();
  for (const StoredDatabase& each : report.stored) json["stored"].push_back(jsonOf(each));
  return json;
}

std::string cutRecords(const SalvageReport& report) {
  return counted(report.records_cut, "record has", "records have") + " lost a part of the payload";
}

void printStored(const StoredDatabase& stored) {
  const SalvageReport& report = stored.report;
  printLine("A database stored at " + std::to_string(stored.offset) + ": " +
            counted(report.tables_written, "table", "tables") + ", " +
            counted(report.records_written, "record", "records") + " written to " +
            escaped(stored.file.native()) +
            (report.verified ? "" : ", which is DAMAGED: 'qvdb check' reports how"));
  for (const std::string& note : report.notes) printLine("  " + escaped(note));
  if (report.records_cut > 0) printLine("  " + cutRecords(report));
}

// Where payloads have checksums.
void printPayloads(const PayloadCounts& counts) {
  if (counts.verified + counts.changed_elsewhere + counts.rotten == 0) return;
  printLine("payloads: " + std::to_string(counts.verified) + " verified, " +
            std::to_string(counts.unprotected) + " without a checksum, " +
            std::to_string(counts.changed_elsewhere) + " changed elsewhere, " +
            std::to_string(counts.rotten) + " rotten" +
            (counts.rotten > 0 ? "; 'qvdb check --payloads' on the new file names them" : ""));
}

void printReport(const SalvageReport& report, const std::map<std::string, Tally>& tallies) {
  for (const auto& [label, tally] : tallies) {
    printLine(counted(tally.found, "block", "blocks") + " " + label + ": " +
              std::to_string(tally.written) + " written");
  }
  for (const ByteRange& range : report.unknown) {
    printLine(counted(static_cast<uint64_t>(range.size), "byte", "bytes") + " at " +
              std::to_string(range.offset) + " are not part of a block: not recovered");
  }
  for (const std::string& note : report.notes) printLine(escaped(note));
  for (const StoredDatabase& each : report.stored) printStored(each);
  if (report.records_cut > 0) printLine(cutRecords(report));
  printPayloads(report.payloads);
  if (report.source_in_use) printSourceInUse(report.source_writer);
  printLine(
      counted(report.tables_written, "table", "tables") + ", " +
      counted(report.records_written, "record", "records") + ", " +
      counted(report.payload_bytes, "byte", "bytes") + " of payload written" +
      (report.verified ? " and checked" : "; the new file is DAMAGED: 'qvdb check' reports how"));
}

// Standard input is read in place where possible: an image need not fit into memory.
SalvageReport salvageSource(const Options& options, const BlockVisitor& visit) {
  const SalvageOptions how = optionsOf(options);
  if (options.source != "-") return salvage(options.source, options.target, visit, how);
  const auto path = pathOfStandardInput();
  if (path) return salvage(*path, options.target, visit, how);
  return salvage_image(readStandardInput(), options.target, visit, how);
}

int run(const Options& options) {
  std::map<std::string, Tally> tallies;
  std::string lines;
  // An attempt that may be repeated lists its blocks only when it is done.
  const auto list = [&](const FoundBlock& block) {
    lines += lineOf(block) + "\n";
    if (!waitSeconds) print(std::exchange(lines, {}));
  };
  const BlockVisitor visit = [&](const FoundBlock& block) {
    throwIfInterrupted();
    Tally& tally = tallies[keyOf(block)];
    ++tally.found;
    if (!block.written_to.empty()) ++tally.written;
    if (options.verbose && !options.json) list(block);
  };
  const SalvageReport report = whileInUse([&] {
    tallies.clear();
    lines.clear();
    return salvageSource(options, visit);
  });
  print(lines);
  if (options.json) {
    printJson(jsonOf(report, tallies));
  } else {
    printReport(report, tallies);
  }
  const bool isVerified = report.verified && std::all_of(report.stored.begin(), report.stored.end(),
                                                         [](const StoredDatabase& each) {
                                                           return each.report.verified;
                                                         });
  return isVerified ? kDone : kFailed;
}

Action define(Arguments& arguments) {
  const auto options = std::make_shared<Options>();
  SalvageOptions& salvage = options->salvage;
  arguments.argument("SRC", options->source,
                     "The damaged file, or a device or an image of one; '-' is standard input.");
  arguments.argument("DST", options->target, kNewFileHelp);
  arguments.flag("--deleted", salvage.deleted,
                 "Also save deleted records, into the table lost-and-found.");
  arguments.flag("--versions", salvage.versions,
                 "Also save older versions of records, into the table lost-and-found.");
  arguments.flag(
      "--orphans", salvage.orphans,
      "Also save blocks of unknown tables that may be something else: pieces of a torn "
      "block's payload or, with --from, of another database. All other blocks of unknown "
      "tables are saved in any case, into tables named after their identifiers. When "
      "the directory is damaged, so are these.");
  arguments.option(
      "--grade", "GRADE", options->grade,
      "Save blocks of this grade and better: A, all of the block is valid (the default); "
      "B, all except one of end mark, identifier and capacity, and the payload may be cut "
      "short; C, only the header is valid.");
  arguments.flag("--in-place-tables", salvage.in_place_tables,
                 "Put deleted records back into their own tables, after the others.");
  arguments.option("--extract", "DIR", options->extract,
                   "Also write every payload to a file of its own in this folder, and a line of "
                   "JSON for each to DIR/manifest.jsonl. None of these may exist yet.");
  arguments.option(
      "--deep", "DIR", options->deep,
      "Also search for databases that are stored in payloads, or one after the other in an "
      "image of a device, and salvage each into DIR/at-OFFSET.qvd. Together these files are at "
      "most four times as large as SRC; databases that are left out are listed.");
  arguments.option(
      "--from", "OFFSET", options->from,
      "Where the database begins in SRC, in bytes. If OFFSET is negative, that many bytes are "
      "missing at its beginning.");
  arguments.flag("--ignore-directory", salvage.ignore_directory,
                 "Ignore the directory, and rely on the blocks alone.");
  arguments.parents(salvage.create_folders);
  arguments.flag("-v,--verbose", options->verbose, "List every block that was found.");
  arguments.json(options->json);
  return actionOf(options, run);
}

}  // namespace

extern const Command kSalvageCommand = {
    "salvage",
    "save what can be saved into a new file",
    R"(Finds the records and the table data of a damaged database, by following the chains from both ends
and by searching all other bytes for blocks, and writes a new database with what was in use or
lost. Records keep their identifiers, times and spare capacity. SRC is only read.

Deleted records and older versions are left out unless they are asked for. When the move of a
record was interrupted, the version in use stays in its table and the newer one is written to the
table lost-and-found.

At the end the new file is checked. What could not be recovered is reported with its position in
the file. Payload that the system cannot read is replaced by zeros, which are counted.

The new file appears under its name only when it is complete, and a salvage that fails leaves
nothing. Only a process that is killed leaves something: a file .qvdb-....tmp in the folder of DST,
and what it has written to DIR.)",
    R"(qvdb salvage damaged.qvd saved.qvd
qvdb salvage --deleted --extract payloads damaged.qvd saved.qvd
qvdb salvage --grade B cut-short.qvd saved.qvd
qvdb salvage --from 1048576 disk.img saved.qvd
qvdb salvage --deep inside disk.img all.qvd)",
    define,
    R"(0  done, and the new files are sound
1  failed
2  wrong usage
3  another process has the database open)",
};

}  // namespace qvdb::tool
