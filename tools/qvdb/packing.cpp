#include "packing.h"

#include "failure.h"
#include "output.h"
#include "percent_progress.h"
#include "text.h"
#include "waiting.h"

namespace qvdb::tool {

std::shared_ptr<PackOptions> definePacking(Arguments& arguments) {
  auto options = std::make_shared<PackOptions>();
  arguments.argument("SOURCE", options->source, "The database file. It is not changed.");
  arguments.argument("TARGET", options->target, "The file to create.");
  arguments.force(options->force,
                  "Replace a target that exists, and pack even if records would be lost.");
  arguments.parents(options->parents);
  return options;
}

int runPacking(const Packing& packing, const PackOptions& options) {
  PackReport report;
  {
    Progress progress(packing.doing, 100, nullptr);
    report = whileInUse([&] {
      return packing.operation(
          options.source, options.target, percentOn(progress),
          {.overwrite = options.force, .force = options.force, .create_folders = options.parents});
    });
  }
  if (report.records_lost > 0) {
    complain(options.source + ": " + counted(report.records_lost, "record", "records") +
             " that 'qvdb salvage' finds " + (report.records_lost == 1 ? "is" : "are") +
             " not in the new file");
  }
  for (const std::string& table : report.tables_without_data) {
    complain(options.target + ": table '" + table + "' has records, and therefore lost its data" +
             packing.lostData);
  }
  printLine(std::string(packing.done) + " " + counted(report.size_before, "byte", "bytes") +
            " into " + std::to_string(report.size_after));
  return kDone;
}

}  // namespace qvdb::tool
