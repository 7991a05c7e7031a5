// What the commands pack and renumber have in common.
#pragma once

#include <qvdbase/qvdb.hpp>

#include <string>

#include "command_line/command.h"

namespace qvdb::tool {

// How a command packs, and its words for that.
struct Packing {
  PackReport (*operation)(const std::filesystem::path& source, const std::filesystem::path& target,
                          const ProgressFunction& progress, const TargetOptions& options);
  const char* doing;          // "packing"
  const char* done;           // "packed"
  const char* lostData;       // ends the complaint about a table whose data was lost
  const char* lostChecksums;  // and about records that lost their checksums
};

struct PackOptions {
  std::string source;
  std::string target;
  bool force = false;
  bool parents = false;
};

// Complains when `count` records of the source are not in the new file.
void complainOfLosses(const std::string& source, uint64_t count);

// Binds the arguments of such a command.
std::shared_ptr<PackOptions> definePacking(Arguments& arguments);

// Packs, and returns the exit status.
int runPacking(const Packing& packing, const PackOptions& options);

}  // namespace qvdb::tool
