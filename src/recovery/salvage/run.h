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

// Everything is written and verified when the object is made, but the new file has not got its name
// yet. Unless place() is called, the object leaves no file.
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
  void noteUnreadable(int64_t inPayloads);
  bool verify() const;

  const Job job_;
  const Plan plan_;
  products::TargetFile target_;
  std::optional<Extraction> extraction_;
  qvdb::SalvageReport report_;
};

// What is known of the source when all of it was read. Says in the report whether another process
// has it open for writing. Throws in_use, in the name of `operation`, when it was changed
// meanwhile.
void lookAtSourceAgain(const survey::OpenedFile& source, const std::filesystem::path& path,
                       const char* operation, qvdb::SalvageReport* report);

}  // namespace qvdbase::salvage
