// qvdb history: the versions of a record that are still in the file.
#include <nlohmann/json.hpp>

#include <algorithm>

#include "command_line/commands.h"
#include "commands/locate.h"
#include "selection/version_at.h"
#include "streams/delivery.h"
#include "streams/interrupt.h"
#include "streams/output.h"
#include "streams/text.h"

namespace qvdb::tool {
namespace {

struct Options {
  std::string file;
  std::string table;
  std::string record;
  std::optional<uint64_t> at;
  DeliveryOptions delivery;
  bool json = false;
};

void printVersion(const FoundBlock& version) {
  printLine(timeText(version.modify_time) + column(std::to_string(version.offset), 12) +
            column(std::to_string(version.there), 12) + "  " +
            std::string(to_string(version.label)) +
            (version.there < version.length ? ", cut short" : "") +
            (version.is_trimmed ? ", trimmed" : ""));
}

Json jsonOf(const FoundBlock& version) {
  Json json;
  json["offset"] = version.offset;
  json["label"] = to_string(version.label);
  json["grade"] = letterOf(version.grade);
  json["created"] = timeText(version.create_time);
  json["modified"] = timeText(version.modify_time);
  json["length"] = version.length;
  json["there"] = version.there;
  json["capacity"] = version.capacity;
  if (version.is_trimmed) json["trimmed"] = true;
  return json;
}

int deliverAt(const Options& options, const std::vector<FoundBlock>& versions) {
  const auto wanted = std::find_if(versions.begin(), versions.end(), [&](const FoundBlock& each) {
    return static_cast<uint64_t>(each.offset) == *options.at;
  });
  if (wanted == versions.end()) {
    throw Failure(options.file + ": there is no version of the record at " +
                  std::to_string(*options.at) + "; 'qvdb history' without --at lists them");
  }
  deliverVersion(options.file, options.table, *wanted, options.delivery);
  return kDone;
}

std::vector<FoundBlock> versionsOf(const Options& options) {
  const Id record = recordIdInUseOrNot(options.file, options.table, options.record, Prefer::inUse);
  const EndsAtOnce atOnce;
  return history(options.file, options.table, record);
}

int run(const Options& options) {
  const std::vector<FoundBlock> versions = versionsOf(options);
  if (versions.empty()) {
    throw Failure(options.file + ": there is no version of the record " + options.record +
                  "; 'qvdb records' lists the records, with --deleted the deleted ones");
  }
  if (options.at) return deliverAt(options, versions);
  if (options.json) {
    Json json;
    addText(&json, "file", options.file);
    json["record"] = to_string(versions.front().record);
    json["versions"] = Json::array();
    for (const FoundBlock& version : versions) json["versions"].push_back(jsonOf(version));
    printJson(json);
    return kDone;
  }
  printLine("MODIFIED                  OFFSET        SIZE  STATE");
  for (const FoundBlock& version : versions) printVersion(version);
  return kDone;
}

Action define(Arguments& arguments) {
  const auto options = std::make_shared<Options>();
  arguments.argument("FILE", options->file, kFileHelp);
  arguments.argument("TABLE", options->table, kTableHelp);
  arguments.argument("RECORD", options->record, kRecordInUseOrNotHelp);
  arguments.option("--at", "OFFSET", options->at,
                   "Write the payload of the version at this offset to standard output.");
  defineDelivery(
      arguments, options->delivery,
      {.output = "With --at: write to this file; '-' is standard output.",
       .force = "With -o: replace the file if it exists.",
       .raw = "With --at: show the payload on a terminal even if it is not plain text."});
  arguments.json(options->json);
  return actionOf(options, run);
}

}  // namespace

extern const Command kHistoryCommand = {
    "history",
    "show the versions of a record",
    R"(Shows every version of a record that is still in the file, oldest first: when it was written, its
position, its size, and what became of it. Deleting a record leaves its bytes in the file until it
is compacted, and so does a change that needs more than the record's capacity; a change that fitted
left no version of its own. The file is only read.)",
    R"(qvdb history notes.qvd letters 0x1f5e2d3c4b5a6978
qvdb history photos.qvd holiday beach/IMG1.jpg
qvdb history --at 5082 -o old.txt notes.qvd letters 0x1f5e2d3c4b5a6978)",
    define,
};

}  // namespace qvdb::tool
