// What a run has measured, and the file that keeps it.
#pragma once

#include <compare>
#include <filesystem>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "figures/machine.h"

namespace bench {

// How large the stores of a run are.
struct Size {
  size_t value = 0;    // bytes of each value
  size_t records = 0;  // how many there are

  friend auto operator<=>(const Size&, const Size&) = default;
};

// What one workload has cost on one store.
struct Figure {
  std::string workload;
  std::string store;  // those of raw limits begin with "raw-"
  Size size;
  std::vector<double> processor;        // nanoseconds for one operation, one number for each turn
  std::vector<double> wall;             // the same of the time that passed
  size_t attempts = 1;                  // how many times it was measured
  std::map<std::string, double> notes;  // what else was seen, by its name
};

bool isOurs(const Figure& figure);
bool isRaw(const Figure& figure);

// The time that counts: where operations wait for the device, that which passed; else processor
// time.
const std::vector<double>& countedOf(const Figure& figure);

struct Results {
  Machine machine;
  std::vector<Figure> figures;

  // The figure of this workload, store and size, if it is there.
  const Figure* find(const std::string& workload, const std::string& store, Size size) const;
  // Adds a figure, or puts it in the place of the one there.
  void put(Figure figure);
};

// Reads a file of results. Throws std::runtime_error when it is not one.
Results load(const std::filesystem::path& path);
// Replaces the file in one step: one that is there is never lost.
void save(const Results& results, const std::filesystem::path& path);

}  // namespace bench
