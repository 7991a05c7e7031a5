// A folder of its own for every test.
#include "kit/temp_folder.h"

#include <gtest/gtest.h>
#include <stdlib.h>
#include <unistd.h>

#include <cstdlib>
#include <iostream>
#include <stdexcept>
#include <system_error>

namespace qvdbase::test {
namespace fs = std::filesystem;
namespace {

// Folders that a test has closed to everybody are opened again, else they could not be removed.
void openAllFolders(const fs::path& root) {
  std::error_code ignored;
  fs::permissions(root, fs::perms::owner_all, fs::perm_options::add, ignored);
  for (const fs::directory_entry& entry : fs::directory_iterator(root, ignored)) {
    if (entry.is_directory(ignored) && !entry.is_symlink(ignored)) openAllFolders(entry.path());
  }
}

}  // namespace

TempFolder::TempFolder() : TempFolder(fs::temp_directory_path()) {}

fs::path TempFolder::inMemory() {
  constexpr const char* kSharedMemory = "/dev/shm";
  return ::access(kSharedMemory, W_OK) == 0 ? fs::path(kSharedMemory) : fs::temp_directory_path();
}

TempFolder::TempFolder(const fs::path& under) {
  std::string name = (fs::canonical(under) / "qvdbase-test-XXXXXX").string();
  if (mkdtemp(name.data()) == nullptr) throw std::runtime_error("cannot make " + name);
  path_ = name;
}

TempFolder::~TempFolder() {
  if (testing::Test::HasFailure() && std::getenv("QVDBASE_KEEP_FOLDERS") != nullptr) {
    std::cerr << "kept: " << path_.string() << '\n';
    return;
  }
  std::error_code ignored;
  openAllFolders(path_);
  fs::remove_all(path_, ignored);
}

const QVWCHAR* TempFolder::wide(const fs::path& name) {
  return handedOut_.emplace_back(u16(name));
}

}  // namespace qvdbase::test
