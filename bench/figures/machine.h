// The machine of a run, as far as figures depend on it: no names of hosts, users or paths.
#pragma once

#include <filesystem>
#include <string>

namespace bench {

struct Machine {
  std::string processor;  // its model
  size_t cores = 0;
  size_t memory = 0;  // GiB
  std::string kernel;
  std::string fileSystem;  // of the folder of the databases
  std::string compiler;

  friend bool operator==(const Machine&, const Machine&) = default;
};

Machine machineOf(const std::filesystem::path& folder);

// "2 cores (AMD EPYC), 23 GiB of memory, ext4, Linux 6.18, g++ 12.2".
std::string describe(const Machine& machine);

// A processor's model without trade marks and the words that all have.
std::string shortModel(std::string model);

}  // namespace bench
