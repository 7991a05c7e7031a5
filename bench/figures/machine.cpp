#include "figures/machine.h"

#include <mntent.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <regex>

namespace bench {
namespace {

std::string processorModel() {
  std::ifstream file("/proc/cpuinfo");
  for (std::string line; std::getline(file, line);) {
    const size_t colon = line.find(": ");
    if (line.starts_with("model name") && colon != std::string::npos) return line.substr(colon + 2);
  }
  utsname system;
  return uname(&system) == 0 ? system.machine : "unknown";
}

// "Linux 6.18": what follows the second number of the version is the distribution's.
std::string kernelName() {
  utsname system;
  if (uname(&system) != 0) return "unknown";
  const std::string release = system.release;
  const size_t second = release.find('.', release.find('.') + 1);
  return std::string(system.sysname) + " " + release.substr(0, second);
}

bool isBelow(const std::filesystem::path& path, const std::filesystem::path& folder) {
  const std::filesystem::path relative = path.lexically_relative(folder);
  return !relative.empty() && *relative.begin() != "..";
}

// That of the longest mount point above the folder; of two at the same place, the later one.
std::string fileSystemOf(const std::filesystem::path& folder) {
  const std::filesystem::path path = std::filesystem::canonical(folder);
  FILE* mounts = setmntent("/proc/self/mounts", "r");
  if (mounts == nullptr) return "unknown";
  std::string type = "unknown";
  size_t longest = 0;
  while (const mntent* entry = getmntent(mounts)) {
    const std::string point = entry->mnt_dir;
    if (point.size() < longest || !isBelow(path, point)) continue;
    longest = point.size();
    type = entry->mnt_type;
  }
  endmntent(mounts);
  return type;
}

std::string compilerName() {
#ifdef __clang__
  return "clang++ " + std::to_string(__clang_major__) + "." + std::to_string(__clang_minor__);
#else
  return "g++ " + std::to_string(__GNUC__) + "." + std::to_string(__GNUC_MINOR__);
#endif
}

}  // namespace

std::string shortModel(std::string model) {
  model = std::regex_replace(model, std::regex("\\((R|TM)\\)"), "");
  return std::regex_replace(model, std::regex(" +(CPU|Processor)( .*)?$"), "");
}

Machine machineOf(const std::filesystem::path& folder) {
  const double bytes =
      static_cast<double>(sysconf(_SC_PHYS_PAGES)) * static_cast<double>(sysconf(_SC_PAGESIZE));
  Machine machine;
  machine.processor = shortModel(processorModel());
  machine.cores = static_cast<size_t>(sysconf(_SC_NPROCESSORS_ONLN));
  machine.memory = static_cast<size_t>(bytes / (1 << 30));
  machine.kernel = kernelName();
  machine.fileSystem = fileSystemOf(folder);
  machine.compiler = compilerName();
  return machine;
}

std::string describe(const Machine& machine) {
  return std::to_string(machine.cores) + " cores (" + machine.processor + "), " +
         std::to_string(machine.memory) + " GiB of memory, " + machine.fileSystem + ", " +
         machine.kernel + ", " + machine.compiler;
}

}  // namespace bench
