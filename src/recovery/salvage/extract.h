// Writing the payloads of a salvage into a folder, each to a file of its own.
#pragma once

#include <optional>
#include <vector>

#include "recovery/salvage/new_folder.h"
#include "recovery/salvage/plan.h"

namespace qvdbase::salvage {

class Extraction {
 public:
  // Prepares to write the payload of every planned block, and "manifest.jsonl" with a line of JSON
  // for each. The plan must outlive this. Throws qvdb::Error (file_exists) when one of the files is
  // there already, so that a salvage can be refused before anything is written.
  Extraction(const Job& job, const Plan& plan);

  // Writes the files. Unless keep() is called, the destructor removes them. Throws qvdb::Error.
  void write();
  void keep() { folder_.keep(); }

 private:
  class Output;

  const Job job_;
  const Plan& plan_;
  std::optional<platform::FileAccess> access_;  // for every file
  NewFolder folder_;
  std::vector<uint32_t> blocks_;  // those to be written, in file order
};

}  // namespace qvdbase::salvage
