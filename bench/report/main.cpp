// Turns files of results, of runs on one machine, into tables and a picture; see --help.
#include <CLI/CLI.hpp>
#include <cstdio>

#include "report/picture.h"
#include "report/tables.h"

namespace {

bench::Results loadAll(const std::vector<std::string>& files) {
  bench::Results all;
  for (const std::string& file : files) {
    bench::Results results = bench::load(file);
    if (!all.figures.empty() && results.machine != all.machine) {
      throw std::runtime_error(file + " is of another machine than the files before it");
    }
    all.machine = results.machine;
    for (bench::Figure& figure : results.figures) all.put(std::move(figure));
  }
  return all;
}

}  // namespace

int main(int argc, char** argv) {
  CLI::App app("Turns results of qvdbase_bench into Markdown tables, or into a picture in SVG.");
  std::vector<std::string> files;
  bench::Size size{100, 100'000};
  std::string what;
  app.add_option("what", what, "machine, tables, summary, growth, or picture")
      ->required()
      ->check(CLI::IsMember({"machine", "tables", "summary", "growth", "picture"}));
  app.add_option("files", files, "files of results")->required()->check(CLI::ExistingFile);
  app.add_option("--value", size.value, "of summary and picture: bytes of each value");
  app.add_option("--records", size.records, "of summary and picture: number of records");
  CLI11_PARSE(app, argc, argv);
  try {
    const bench::Results results = loadAll(files);
    const std::string text = what == "machine"   ? bench::describe(results.machine) + "\n"
                             : what == "tables"  ? bench::tablesOf(results)
                             : what == "summary" ? bench::summaryOf(results, size)
                             : what == "growth"  ? bench::growthOf(results)
                                                 : bench::pictureOf(results, size);
    std::fputs(text.c_str(), stdout);
  } catch (const std::exception& error) {
    std::fprintf(stderr, "bench: %s\n", error.what());
    return 1;
  }
  return 0;
}
