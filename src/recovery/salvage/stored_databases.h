// Salvaging the databases that are stored in payloads of another one.
#pragma once

#include <qvdbase/qvdb/salvage.hpp>

#include <vector>

#include "recovery/salvage/new_folder.h"
#include "recovery/salvage/plan.h"
#include "recovery/survey/survey.h"

namespace qvdbase::salvage {

class StoredDatabases {
 public:
  // Takes those that a deep survey of the source has found. Throws qvdb::Error (file_exists) when
  // one of the files to be made is there already, so that a salvage can be refused before anything
  // is written.
  explicit StoredDatabases(const Job& job);

  bool isEmpty() const { return places_.empty(); }

  // Salvages each into a file of its own, and describes it in the report. Unless keep() is called,
  // the destructor removes the files. Throws qvdb::Error.
  void salvage(qvdb::SalvageReport* report);
  void keep() { folder_.keep(); }

 private:
  const Job job_;
  NewFolder folder_;
  std::vector<survey::Range> places_;
  uint64_t leftOut_ = 0;
};

}  // namespace qvdbase::salvage
