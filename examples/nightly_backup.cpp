// Backs up a database each night, also while other programs write to it, and keeps the last
// backups.
//
// Usage: nightly_backup FILE FOLDER [KEPT]
//   KEPT  how many backups stay, 7 unless said otherwise
#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <ctime>
#include <exception>
#include <filesystem>
#include <iostream>
#include <qvdbase/qvdb.hpp>
#include <string>
#include <vector>

namespace {

namespace fs = std::filesystem;

// "notes-20261122T200102Z.qvd": in the order of the names, which is that of the times.
std::string backup_name(const fs::path& file) {
  const std::time_t now = std::time(nullptr);
  char time[32];
  std::strftime(time, sizeof time, "-%Y%m%dT%H%M%SZ", std::gmtime(&now));
  return file.stem().string() + time + file.extension().string();
}

bool is_backup_of(const fs::path& file, const fs::path& found) {
  const std::string name = found.filename().string();
  return name.size() == backup_name(file).size() && name.starts_with(file.stem().string() + '-') &&
         found.extension() == file.extension();
}

void remove_old(const fs::path& file, const fs::path& folder, size_t kept) {
  std::vector<fs::path> backups;
  for (const fs::directory_entry& entry : fs::directory_iterator(folder)) {
    if (entry.is_regular_file() && is_backup_of(file, entry.path()))
      backups.push_back(entry.path());
  }
  std::sort(backups.begin(), backups.end());
  for (size_t i = 0; i + kept < backups.size(); ++i) fs::remove(backups[i]);
}

}  // namespace

int main(int argc, char** argv) try {
  const int kept = argc == 4 ? std::atoi(argv[3]) : 7;
  if (argc < 3 || argc > 4 || kept < 1) {
    std::cerr << "usage: nightly_backup FILE FOLDER [KEPT]\n";
    return 2;
  }
  const fs::path file = argv[1];
  const fs::path folder = argv[2];
  const fs::path target = folder / backup_name(file);

  const auto database = qvdb::Database::open(file, {.wait = std::chrono::minutes(1)});
  const qvdb::BackupReport report = database.backup(target, {.create_folders = true});
  // Only now: when there is a new one that was checked.
  remove_old(file, folder, static_cast<size_t>(kept));
  std::cout << target.string() << ": " << report.size << " bytes\n";
} catch (const std::exception& error) {
  std::cerr << "nightly_backup: " << error.what() << '\n';
  return 1;
}
