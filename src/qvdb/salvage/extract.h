// Writing the payloads of a salvage into a folder, each to a file of its own.
#pragma once

#include <filesystem>
#include <vector>

#include "qvdb/raw/byte_source.h"
#include "qvdb/salvage/plan.h"

namespace qvdbase::salvage {

class Extraction {
 public:
  // The payload of every planned block, and "manifest.jsonl" with a line of JSON for each. Survey
  // and plan must outlive this. Throws qvdb::Error (file_exists) when one of the files to be made
  // is there already, so that a salvage can be refused before anything is written.
  Extraction(const raw::Survey& survey, const Plan& plan, const std::filesystem::path& folder);

  // Removes what was written, unless it is to be kept.
  ~Extraction();
  Extraction(const Extraction&) = delete;
  Extraction& operator=(const Extraction&) = delete;

  // Throws qvdb::Error.
  void write(const raw::ByteSource& source);
  void keep() { isKept_ = true; }

 private:
  class Output;

  void makeFolder();

  const raw::Survey& survey_;
  const Plan& plan_;
  const std::filesystem::path folder_;
  std::vector<uint32_t> blocks_;                    // those to be written, in file order
  std::vector<std::filesystem::path> foldersMade_;  // outermost first
  size_t filesMade_ = 0;                            // of the blocks' files
  bool manifestMade_ = false;
  bool isKept_ = false;
};

}  // namespace qvdbase::salvage
