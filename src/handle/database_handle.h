// A database that is held open under a file reference number. Where it cannot be opened, or its
// directory cannot be read, errors say why.
#pragma once

#include <qvdbase/qvdb/error.hpp>

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "QVDbase/header.h"
#include "format/layout.h"

namespace qvdbase::handle {

struct Fault {
  qvdb::Reason reason;
  std::string why;
};

// Reads the directory numbers of an open database, or says why they cannot be used:
// not_a_database, version_out_of_range, directory_damaged, cannot_read, not_open.
std::optional<Fault> readDirectory(int16_t db, engine::DirectoryNumbers* numbers);

// Reads the slot at the file's position. That must be the position of entry `index` of the
// directory.
std::optional<Fault> readSlot(int16_t db, const engine::DirectoryNumbers& numbers, int index,
                              tablePart1* slot);

// Opens the file at `place` and returns its number. Throws Error of this operation, which names the
// file by `path`: the same, as the caller has given it. For writing also cannot_lock where the lock
// would have no effect; `any` is readOnly there.
int16_t openFile(const std::filesystem::path& path, const std::filesystem::path& place,
                 int permission, const char* operation);

class DatabaseHandle {
 public:
  // The permission codes of OpenDBaseW.
  enum Permission : int { any = 0, readOnly = 1, exclusive = 3, shared = 4 };

  // What becomes of transactions that a crash has left in a file that is opened exclusively.
  enum class Intents : uint8_t { areCompleted, stay };

  // Throws Error of the operation "open the database", also for a file that is no database.
  DatabaseHandle(const std::filesystem::path& path, Permission permission,
                 Intents intents = Intents::areCompleted);
  ~DatabaseHandle();
  DatabaseHandle(const DatabaseHandle&) = delete;
  DatabaseHandle& operator=(const DatabaseHandle&) = delete;

  int16_t number() const { return number_; }

  // The file's length now. Throws cannot_read.
  uint64_t fileLength(const char* operation) const;

  // The slots of all tables. Throws directory_damaged.
  std::vector<tablePart1> tables(const char* operation) const;

  // Throws in_use when another opener in this process writes to the file, too.
  void requireAlone(const char* operation) const;

  // Waits until the device has everything that was written. Throws cannot_write.
  void sync(const char* operation) const;

 private:
  DatabaseHandle(const std::filesystem::path& path, int16_t number);
  engine::DirectoryNumbers directory(const char* operation) const;
  [[noreturn]] void fail(const char* operation, const Fault& fault) const;

  const std::filesystem::path path_;
  const int16_t number_;
};

}  // namespace qvdbase::handle
