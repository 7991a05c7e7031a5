// One salvage from survey to verified file: what qvdb::salvage and qvdb::undelete share.
#pragma once

#include <qvdbase/qvdb/salvage.hpp>

#include <optional>

#include "products/target_file.h"
#include "recovery/salvage/extract.h"
#include "recovery/salvage/plan.h"
#include "recovery/salvage/writer.h"
#include "recovery/survey/open_file.h"

namespace qvdbase::salvage {

// The constructor writes and verifies everything, but the new file does not have its name yet.
// Unless place() is called, no file is left.
class Run {
 public:
  // `wanted` as for makePlan(). Throws qvdb::Error, and what the visitor throws.
  Run(const Job& job, const std::filesystem::path& target, const qvdb::BlockVisitor& visitor = {},
      uint32_t wanted = survey::kNoBlock);

  qvdb::SalvageReport& report() { return report_; }

  // Gives the new file its name. Throws qvdb::Error.
  void place();

 private:
  void report(const qvdb::BlockVisitor& visitor);
  qvdb::PayloadState stateOf(uint32_t number) const;
  void noteUnreadable(int64_t inPayloads);
  bool verify() const;

  const Job job_;
  const Plan plan_;
  products::TargetFile target_;
  std::optional<Extraction> extraction_;
  PayloadStates states_;
  qvdb::SalvageReport report_;
};

// To be called when all of the source has been read. Notes in the report whether another process
// has it open for writing. Throws in_use, in the name of `operation`, when the source has changed
// since it was opened.
void lookAtSourceAgain(const survey::OpenedFile& source, const std::filesystem::path& path,
                       const char* operation, qvdb::SalvageReport* report);

}  // namespace qvdbase::salvage
