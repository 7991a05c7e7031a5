#include "figures/figure.h"

#include <algorithm>
#include <fstream>
#include <nlohmann/json.hpp>
#include <stdexcept>

namespace bench {

NLOHMANN_DEFINE_TYPE_NON_INTRUSIVE(Machine, processor, cores, memory, kernel, fileSystem, compiler)
NLOHMANN_DEFINE_TYPE_NON_INTRUSIVE(Size, value, records)
NLOHMANN_DEFINE_TYPE_NON_INTRUSIVE(Figure, workload, store, size, processor, wall, attempts, notes)
NLOHMANN_DEFINE_TYPE_NON_INTRUSIVE(Results, machine, figures)

namespace {

auto isFigure(const std::string& workload, const std::string& store, Size size) {
  return [&workload, &store, size](const Figure& figure) {
    return figure.workload == workload && figure.store == store && figure.size == size;
  };
}

}  // namespace

bool isOurs(const Figure& figure) {
  return figure.store.starts_with("qvdbase");
}

bool isRaw(const Figure& figure) {
  return figure.store.starts_with("raw-");
}

const std::vector<double>& countedOf(const Figure& figure) {
  return figure.workload.starts_with("commit") ? figure.wall : figure.processor;
}

const Figure* Results::find(const std::string& workload, const std::string& store,
                            Size size) const {
  const auto found = std::find_if(figures.begin(), figures.end(), isFigure(workload, store, size));
  return found == figures.end() ? nullptr : &*found;
}

void Results::put(Figure figure) {
  const auto found = std::find_if(figures.begin(), figures.end(),
                                  isFigure(figure.workload, figure.store, figure.size));
  if (found == figures.end()) {
    figures.push_back(std::move(figure));
  } else {
    *found = std::move(figure);
  }
}

Results load(const std::filesystem::path& path) {
  std::ifstream file(path);
  if (!file) throw std::runtime_error("cannot open " + path.string());
  try {
    return nlohmann::json::parse(file).get<Results>();
  } catch (const nlohmann::json::exception& error) {
    throw std::runtime_error(path.string() + " is not a file of results: " + error.what());
  }
}

void save(const Results& results, const std::filesystem::path& path) {
  std::filesystem::path temporary = path;
  temporary += ".new";
  {
    std::ofstream file(temporary);
    file << nlohmann::json(results).dump(1) << '\n';
    if (!file.flush()) throw std::runtime_error("cannot write " + temporary.string());
  }
  std::filesystem::rename(temporary, path);
}

}  // namespace bench
