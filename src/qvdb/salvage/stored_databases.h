// Salvaging the databases that are stored in payloads of another one.
#pragma once

#include <qvdbase/qvdb/salvage.hpp>

#include <vector>

#include "qvdb/raw/byte_source.h"
#include "qvdb/raw/survey.h"

namespace qvdbase::salvage {

class StoredDatabases {
 public:
  // Those that a deep survey of the source has found. Source, survey and options must outlive this.
  // Throws qvdb::Error (file_exists) when one of the files to be made is there already, so that a
  // salvage can be refused before anything is written.
  StoredDatabases(const raw::ByteSource& source, const raw::Survey& survey,
                  const qvdb::SalvageOptions& options);

  // Salvages each into a file of its own, and tells of it in the report. Throws qvdb::Error.
  void salvage(qvdb::SalvageReport* report) const;

 private:
  std::filesystem::path fileOf(int64_t origin) const;

  const raw::ByteSource& source_;
  const qvdb::SalvageOptions& options_;
  std::vector<raw::Range> places_;
  uint64_t leftOut_ = 0;
};

}  // namespace qvdbase::salvage
