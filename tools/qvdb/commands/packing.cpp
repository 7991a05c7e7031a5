// What the commands pack and renumber have in common.
#include "commands/packing.h"

#include "streams/failure.h"
#include "streams/output.h"
#include "streams/percent_progress.h"
#include "streams/text.h"

namespace qvdb::tool {

std::shared_ptr<PackOptions> definePacking(Arguments& arguments) {
  auto options = std::make_shared<PackOptions>();
  arguments.argument("SOURCE", options->source, "The database file. It is not changed.");
  arguments.argument("TARGET", options->target, "The file to create.");
  arguments.force(options->force,
                  "Replace a target that exists, and copy even if records would be lost.");
  arguments.parents(options->parents);
  return options;
}

void complainOfLosses(const std::string& source, uint64_t count) {
  if (count == 0) return;
  complain(source + ": " + counted(count, "record", "records") + " that 'qvdb salvage' finds " +
           (count == 1 ? "is" : "are") + " not in the new file");
}

int runPacking(const Packing& packing, const PackOptions& options) {
  const PackReport report = withPercent(packing.doing, [&](const ProgressFunction& progress) {
    return packing.operation(
        options.source, options.target, progress,
        {.overwrite = options.force, .force = options.force, .create_folders = options.parents});
  });
  complainOfLosses(options.source, report.records_lost);
  for (const std::string& table : report.tables_without_data) {
    complain(options.target + ": table '" + table + "' has records, and therefore lost its data" +
             packing.lostData);
  }
  if (report.checksums_lost > 0) {
    complain(options.target + ": " + counted(report.checksums_lost, "record", "records") +
             " lost " + (report.checksums_lost == 1 ? "its checksum" : "their checksums") +
             packing.lostChecksums);
  }
  printLine(std::string(packing.done) + " " + counted(report.size_before, "byte", "bytes") +
            " into " + std::to_string(report.size_after));
  return kDone;
}

}  // namespace qvdb::tool
