// One salvage from survey to verified file: what qvdb::salvage and qvdb::undelete share.
#pragma once

#include <qvdbase/qvdb/salvage.hpp>

#include <optional>

#include "products/target_file.h"
#include "recovery/salvage/extract.h"
#include "recovery/salvage/plan.h"
#include "recovery/salvage/writer.h"
#include "recovery/survey/byte_source.h"
#include "recovery/survey/open_file.h"

namespace qvdbase::salvage {

// Everything is written and verified when the object is made, but the new file has not got its name
// yet. Unless place() is called, the object leaves no file.
class Run {
 public:
  // `access` is that of the source, for the new files; null for the usual one. All but `wanted`
  // must outlive the run. Throws qvdb::Error, and what the visitor throws.
  Run(const survey::ByteSource& source, const survey::Survey& survey,
      const std::filesystem::path& target, const qvdb::BlockVisitor& visitor,
      const qvdb::SalvageOptions& options, const platform::FileAccess* access,
      const Wanted& wanted = {});

  qvdb::SalvageReport& report() { return report_; }

  // Gives the new file its name. Throws qvdb::Error.
  void place();

 private:
  void report(const survey::Survey& survey, const qvdb::BlockVisitor& visitor);
  void note(const survey::Survey& survey, const Written& written);
  bool verify() const;

  const Plan plan_;
  products::TargetFile target_;
  std::optional<Extraction> extraction_;
  qvdb::SalvageReport report_;
};

// A run that is placed at once.
qvdb::SalvageReport run(const survey::ByteSource& source, const survey::Survey& survey,
                        const std::filesystem::path& target, const qvdb::BlockVisitor& visitor,
                        const qvdb::SalvageOptions& options, const platform::FileAccess* access);

// What is known of the source when all of it was read. Says in the report whether another process
// has it open for writing. Throws in_use, in the name of `operation`, when it was changed
// meanwhile.
void lookAtSourceAgain(const survey::OpenedFile& source, const std::filesystem::path& path,
                       const char* operation, qvdb::SalvageReport* report);

}  // namespace qvdbase::salvage
