// Writes the manual pages and the completion files of shells into a folder. Run by the build.
//
//   qvdb_manual FOLDER SOURCES
#include <cstdio>
#include <exception>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>

#include "command_line/command_line.h"
#include "command_line/commands.h"
#include "completion.h"
#include "header_page.h"
#include "man_pages.h"
#include "markdown.h"

namespace {

using namespace qvdb;

void write(const std::filesystem::path& path, const std::string& text) {
  std::filesystem::create_directories(path.parent_path());
  std::ofstream file(path);
  file << text;
  if (!file.flush()) throw std::runtime_error("cannot write " + path.string());
}

std::string read(const std::filesystem::path& path) {
  std::ifstream file(path);
  if (!file) throw std::runtime_error("cannot open " + path.string());
  return {std::istreambuf_iterator<char>(file), {}};
}

void writeFrom(const std::filesystem::path& sources, const std::filesystem::path& folder) {
  write(folder / "man3/qvdbase.3", manual::headerPage(read(sources / "include/qvdbase/qvdbase.h")));
  write(folder / "man5/qvdbase.5",
        manual::pageOf({"qvdbase", "5", "the file of a QVDbase database"},
                       read(sources / "docs/format.md")));
  write(folder / "man7/qvdbase-recovery.7",
        manual::pageOf({"qvdbase-recovery", "7", "when something is wrong with a database"},
                       read(sources / "docs/recovery.md")));
}

void writeFromCommands(const std::filesystem::path& folder) {
  write(folder / "man1/qvdb.1", manual::toolPage());
  for (const tool::Command* command : tool::allCommands()) {
    write(folder / "man1" / (std::string("qvdb-") + command->name + ".1"),
          manual::commandPage(tool::helpOf(*command)));
  }
  write(folder / "bash/qvdb", manual::bashCompletion());
  write(folder / "zsh/_qvdb", manual::zshCompletion());
  write(folder / "fish/qvdb.fish", manual::fishCompletion());
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 3) {
    std::fprintf(stderr, "usage: qvdb_manual FOLDER SOURCES\n");
    return 2;
  }
  try {
    writeFromCommands(argv[1]);
    writeFrom(argv[2], argv[1]);
  } catch (const std::exception& error) {
    std::fprintf(stderr, "qvdb_manual: %s\n", error.what());
    return 1;
  }
  return 0;
}
