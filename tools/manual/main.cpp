// Writes the manual pages of the tool and the completion files of shells into a folder. Run by the
// build.
//
//   qvdb_manual FOLDER
#include <cstdio>
#include <exception>
#include <filesystem>
#include <fstream>
#include <stdexcept>

#include "command_line.h"
#include "commands.h"
#include "completion.h"
#include "man_pages.h"

namespace {

using namespace qvdb;

void write(const std::filesystem::path& path, const std::string& text) {
  std::filesystem::create_directories(path.parent_path());
  std::ofstream file(path);
  file << text;
  if (!file.flush()) throw std::runtime_error("cannot write " + path.string());
}

void writeAll(const std::filesystem::path& folder) {
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
  if (argc != 2) {
    std::fprintf(stderr, "usage: qvdb_manual FOLDER\n");
    return 2;
  }
  try {
    writeAll(argv[1]);
  } catch (const std::exception& error) {
    std::fprintf(stderr, "qvdb_manual: %s\n", error.what());
    return 1;
  }
  return 0;
}
