// qvdb check: is this file sound?
#include <nlohmann/json.hpp>

#include <set>

#include "command_line/commands.h"
#include "commands/locate.h"
#include "streams/interrupt.h"
#include "streams/output.h"
#include "streams/text.h"
#include "streams/waiting.h"

namespace qvdb::tool {
namespace {

struct Options {
  std::string file;
  bool categories = false;
  bool deep = false;
  bool payloads = false;
  bool strict = false;
  bool verbose = false;
  bool json = false;
};

const char* nameOf(CheckState state) {
  switch (state) {
    case CheckState::sound:
      return "sound";
    case CheckState::unusual:
      return "unusual";
    case CheckState::damaged:
      return "damaged";
    case CheckState::in_use:
      break;
  }
  return "in use";
}

int statusOf(const CheckReport& report, const Options& options) {
  if (report.state == CheckState::in_use) return kWorkInProgress;
  if (report.state == CheckState::damaged) return kFailed;
  return report.state == CheckState::unusual && options.strict ? kFailed : kDone;
}

// ---- for people

std::string placeOf(const Finding& finding) {
  std::string place;
  const bool isNamed = !finding.table.empty();
  if (finding.slot >= 0 && isNamed) place += " table '" + escaped(finding.table) + "'";
  if (finding.slot >= 0 && !isNamed) place += " table " + to_string(finding.table_id);
  if (finding.record.value != 0) place += " record " + to_string(finding.record);
  if (finding.offset >= 0) place += " at " + std::to_string(finding.offset);
  return place;
}

// What a code means is printed with its first finding.
void printFinding(const Finding& finding, std::set<std::string>* explained) {
  printLine(std::string(to_string(finding.severity)) + " " + finding.code + placeOf(finding));
  printLine("  " + escaped(finding.message));
  if (finding.more > 0) {
    printLine("  " + counted(finding.more, "more finding", "more findings") + " like this.");
  }
  if (finding.code == "W1" || !explained->insert(finding.code).second) return;
  const FindingCode& code = finding_code(finding.code);
  printLine("  meaning  " + std::string(code.meaning));
  printLine("  fails    " + std::string(code.fails));
  printLine("  do       " + std::string(code.advice));
}

void printSpace(const SpaceUse& space) {
  const auto line = [](const char* what, uint64_t bytes) {
    if (bytes == 0) return;
    printLine(column(std::to_string(bytes), 16) + "  " + what);
  };
  printLine("bytes:");
  line("header and directory", space.directory);
  line("records", space.records);
  line("table data", space.table_data);
  line("older versions", space.superseded);
  line("deleted records", space.deleted);
  line("blocks that were never linked", space.unlinked);
  line("blocks of broken chains", space.lost);
  line("blocks of unknown tables", space.orphans);
  line("bytes that are no block", space.unknown);
}

std::string summaryOf(const CheckReport& report) {
  if (report.state == CheckState::in_use) {
    const uint64_t findings = report.errors + report.warnings;
    const std::string what = findings == 0 ? "it changed while it was read"
                                           : counted(findings, "finding", "findings") +
                                                 ", shown with -v, can be work in progress";
    return "in use: " + escaped(to_string(report.writer)) + "; " + what +
           "; wait, or use --wait 10";
  }
  std::string text =
      std::string(nameOf(report.state)) + ": " + counted(report.errors, "error", "errors") + ", " +
      counted(report.warnings, "warning", "warnings") + "; " +
      counted(report.blocks, "block", "blocks") + ", " + counted(report.file_size, "byte", "bytes");
  return text;
}

// ---- for programs

Json jsonOf(const Finding& finding) {
  const FindingCode& code = finding_code(finding.code);
  Json json;
  json["severity"] = to_string(finding.severity);
  json["code"] = finding.code;
  if (finding.slot >= 0) {
    json["slot"] = finding.slot;
    addText(&json, "table", finding.table);
    json["table_id"] = to_string(finding.table_id);
  }
  if (finding.record.value != 0) json["record"] = to_string(finding.record);
  if (finding.offset >= 0) json["offset"] = finding.offset;
  json["message"] = escaped(finding.message);
  if (finding.more > 0) json["more"] = finding.more;
  json["meaning"] = code.meaning;
  json["fails"] = code.fails;
  json["advice"] = code.advice;
  return json;
}

Json jsonOf(const TableOutlook& table) {
  Json json;
  json["slot"] = table.slot;
  addText(&json, "name", table.name);
  json["id"] = to_string(table.id);
  json["counted"] = table.counted;
  json["walked"] = table.walked;
  json["found_elsewhere"] = table.found_elsewhere;
  json["works"] = {{"reach", table.reachable},
                   {"append", table.append},
                   {"list", table.list},
                   {"find_all", table.find_all},
                   {"delete_all", table.delete_all},
                   {"enlarge_all", table.enlarge_all},
                   {"get_data", table.get_data},
                   {"set_data", table.set_data}};
  return json;
}

Json jsonOf(const SpaceUse& space) {
  return {{"directory", space.directory},
          {"records", space.records},
          {"table_data", space.table_data},
          {"superseded", space.superseded},
          {"deleted", space.deleted},
          {"unlinked", space.unlinked},
          {"lost", space.lost},
          {"orphans", space.orphans},
          {"unknown", space.unknown}};
}

void printJsonReport(const Options& options, const CheckReport& report,
                     const std::vector<Finding>& findings) {
  Json json;
  addText(&json, "file", options.file);
  json["state"] = nameOf(report.state);
  if (report.state == CheckState::in_use) addWriter(&json, "writer", report.writer);
  json["errors"] = report.errors;
  json["warnings"] = report.warnings;
  json["informations"] = report.informations;
  json["size"] = report.file_size;
  json["blocks"] = report.blocks;
  json["space"] = jsonOf(report.space);
  json["spare_room"] = {{"bytes", report.space.reserve}, {"stale", report.space.stale}};
  json["pack_works"] = report.pack;
  json["repair_result"] = report.repair;
  if (options.payloads) {
    json["payloads"] = {{"verified", report.payloads.verified},
                        {"unprotected", report.payloads.unprotected},
                        {"changed_elsewhere", report.payloads.changed_elsewhere},
                        {"rotten", report.payloads.rotten}};
  }
  json["tables"] = Json::array();
  for (const TableOutlook& table : report.tables) json["tables"].push_back(jsonOf(table));
  json["findings"] = Json::array();
  for (const Finding& finding : findings) json["findings"].push_back(jsonOf(finding));
  printJson(json);
}

// Beside errors W1 is shown without -v too: it says which calls fail.
bool isShown(const Finding& finding, const Options& options, const CheckReport& report) {
  if (options.verbose) return true;
  if (report.state == CheckState::in_use) return false;  // it may be no damage
  if (finding.severity != Severity::information) return true;
  return finding.code == "W1" && report.errors > 0;
}

// With --wait the check is repeated until no process writes to the file.
CheckReport checkAtRest(const Options& options, std::vector<Finding>* findings) {
  const Patience patience;
  const EndsAtOnce atOnce;
  for (;;) {
    findings->clear();
    const CheckReport report = check(
        options.file, [&](const Finding& finding) { findings->push_back(finding); },
        {.categories = options.categories, .deep = options.deep, .payloads = options.payloads});
    if (report.state != CheckState::in_use || !patience.waitForNextAttempt()) return report;
  }
}

int run(const Options& options) {
  std::vector<Finding> findings;
  const CheckReport report = checkAtRest(options, &findings);
  if (options.json) {
    printJsonReport(options, report, findings);
    return statusOf(report, options);
  }
  std::set<std::string> explained;
  for (const Finding& finding : findings) {
    if (isShown(finding, options, report)) printFinding(finding, &explained);
  }
  if (options.verbose) printSpace(report.space);
  if (options.payloads && report.state != CheckState::in_use) {
    printLine("payloads: " + std::to_string(report.payloads.verified) + " verified, " +
              std::to_string(report.payloads.unprotected) + " without a checksum, " +
              std::to_string(report.payloads.changed_elsewhere) + " changed elsewhere, " +
              std::to_string(report.payloads.rotten) + " rotten");
  }
  printLine(escaped(options.file) + ": " + summaryOf(report));
  return statusOf(report, options);
}

Action define(Arguments& arguments) {
  const auto options = std::make_shared<Options>();
  arguments.argument("FILE", options->file, kFileHelp);
  arguments.flag("--categories", options->categories,
                 "Also check the records of QVrz_Category, which 'qvdb renumber' decodes.");
  arguments.flag("--deep", options->deep,
                 "Also search the payloads of records for databases. This reads the whole file.");
  arguments.flag("--payloads", options->payloads,
                 "Also compare payloads with their checksums. This reads all that have one.");
  arguments.flag("--strict", options->strict, "Exit with status 1 for warnings too.");
  arguments.flag(
      "-v,--verbose", options->verbose,
      "Also show information about what is not wrong, and what every byte of the file is.");
  arguments.json(options->json);
  return actionOf(options, run);
}

}  // namespace

extern const Command kCheckCommand = {
    "check",
    "look for damage",
    R"(Reads a whole database by its format and reports everything that is wrong with it: header,
directory, the chain of every table from both ends, table data, and every byte that no chain
covers. Each finding has a severity (error: damage; warning: legal but dangerous or unusual;
information, with -v), a code, a place, the library calls that fail because of it, and what to do.
The file is only read, and any file can be checked.

A file that another process writes to meanwhile is read again, up to three times in all. Programs
that use the C++ layer make no changes while it is read again, unless that takes more than two
seconds. Findings may be work in progress if it is still being changed then, or if another process has it open for
writing. Such findings are shown only with -v or --json, and the exit status is 4.

docs/recovery.md says what to do about damage, symptom by symptom.)",
    R"(qvdb check notes.qvd
qvdb check --json --strict notes.qvd
qvdb check -v --categories photos.qvd)",
    define,
    R"(0  no errors (with --strict: no warnings either)
1  errors were found, or the file cannot be read
2  wrong usage
4  the file is in use: what was found may be work in progress)",
};

}  // namespace qvdb::tool
