#include "report/tables.h"

#include <map>
#include <set>

#include "figures/statistics.h"
#include "report/comparison.h"
#include "report/remarks.h"
#include "report/text.h"

namespace bench {
namespace {

std::string row(std::initializer_list<std::string> cells) {
  std::string text;
  for (const std::string& cell : cells) text += "| " + cell + " ";
  return text + "|\n";
}

std::string header(std::initializer_list<std::string> cells) {
  std::string line;
  for (size_t i = 0; i < cells.size(); ++i) line += "|---";
  return row(cells) + line + "|\n";
}

// A spread, with a mark where it is too large to believe the figure.
std::string spreadCell(const std::vector<double>& values) {
  return share(spreadOf(values)) + (isSteady(values) ? "" : " (!)");
}

std::string noteCell(const Figure& figure, const std::string& name) {
  const auto found = figure.notes.find(name);
  return found == figure.notes.end() ? "" : grouped(static_cast<size_t>(found->second));
}

std::string figureRow(const Comparison& comparison, const Figure& figure) {
  const std::string mark = isOurs(figure) ? "**" : "";
  return row({comparison.workload, mark + figure.store + mark, duration(costOf(figure)),
              spreadCell(figure.processor), duration(medianOf(figure.wall)),
              spreadCell(figure.wall), ratio(timesOf(figure, comparison.peer)),
              ratio(timesOf(figure, comparison.limit)), noteCell(figure, "disk_per_record"),
              noteCell(figure, "memory_per_record")});
}

// Another figure beside ours: its time, its name, and how ours compares.
std::string besideOurs(const Figure& ours, const Figure* other) {
  if (other == nullptr) return "";
  return duration(costOf(*other)) + " " + other->store + " (" + ratio(timesOf(ours, other)) + ")";
}

}  // namespace

std::string tablesOf(const Results& results) {
  std::string text;
  Size size;
  for (const Comparison& comparison : compare(results)) {
    if (comparison.size != size) {
      size = comparison.size;
      text += "\n### " + describe(size) + "\n\n";
      text += header({"workload", "store", "processor time", "spread", "wall time", "spread",
                      "to the best peer", "to the limit", "bytes on disk per record",
                      "bytes of memory per record"});
    }
    for (const Figure* figure : comparison.figures) text += figureRow(comparison, *figure);
  }
  return text;
}

std::string summaryOf(const Results& results, Size size) {
  std::string text = header({"workload", "we", "best peer", "limit", "if not ahead, why"});
  for (const Comparison& comparison : compare(results)) {
    if (comparison.size != size || comparison.ours == nullptr) continue;
    const Figure& ours = *comparison.ours;
    const bool isBehind = timesOf(ours, comparison.peer) > 1;
    text += row({comparison.workload, duration(costOf(ours)) + " " + ours.store,
                 besideOurs(ours, comparison.peer), besideOurs(ours, comparison.limit),
                 isBehind ? whyBehind(comparison.workload) : ""});
  }
  return text;
}

std::string growthOf(const Results& results) {
  std::set<Size> sizes;
  std::map<std::pair<std::string, std::string>, std::map<Size, const Figure*>> rows;
  for (const Figure& figure : results.figures) {
    if (!isOurs(figure)) continue;
    sizes.insert(figure.size);
    rows[{figure.workload, figure.store}][figure.size] = &figure;
  }
  std::string text = "| workload | store ";
  std::string line = "|---|---";
  for (const Size& size : sizes) {
    text += "| " + describe(size) + " ";
    line += "|---";
  }
  text += "|\n" + line + "|\n";
  for (const auto& [names, figures] : rows) {
    text += "| " + names.first + " | " + names.second + " ";
    for (const Size& size : sizes) {
      const auto found = figures.find(size);
      text += "| " + (found == figures.end() ? "" : duration(costOf(*found->second))) + " ";
    }
    text += "|\n";
  }
  return text;
}

}  // namespace bench
