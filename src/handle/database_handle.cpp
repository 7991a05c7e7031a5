#include "handle/database_handle.h"

#include <qvdbase/qvdbase.h>

#include <utility>

#include "QVDbase/tables.h"
#include "failure/failure.h"
#include "failure/native_path.h"
#include "handle/open_intents.h"
#include "platform/handles/lock_trial.h"
#include "platform/handles/open_failure.h"
#include "platform/handles/open_files.h"
#include "platform/handles/sync.h"
#include "platform/host/host_failure.h"
#include "platform/transfer/transfer.h"

using namespace qvdb;

namespace qvdbase::handle {
namespace {

constexpr const char* kOpen = "open the database";

std::optional<int64_t> lengthOf(int16_t db) {
  const auto* file = platform::findOpenFile(db);
  int64_t length = 0;
  if (file == nullptr || !platform::fileLength(*file, &length)) return std::nullopt;
  return length;
}

Fault noLength() {
  return {Reason::cannot_read, "the system does not report the file's length"};
}

// Why the engine does not read the directory numbers.
Fault faultOfHeader(int16_t db) {
  if (platform::findOpenFile(db) == nullptr) {
    return {Reason::not_open, "its handle was closed by other means"};
  }
  internal_Head1 head;
  if (internal_GetDBHead1(db, &head) != 1) {
    const std::optional<int64_t> length = lengthOf(db);
    if (!length) return noLength();
    return {Reason::not_a_database,
            *length == 0 ? "the file is empty, not a database" : "the file is not a database"};
  }
  if (head.version < format::kFirstVersion || head.version > format::kLastVersion) {
    return {Reason::version_out_of_range,
            "its version is " + std::to_string(head.version) + ", and only 100 to 199 can be used"};
  }
  return {Reason::not_a_database, "the file is cut off inside its header"};
}

}  // namespace

std::optional<Fault> readDirectory(int16_t db, engine::DirectoryNumbers* numbers) {
  if (!engine::readDirectoryNumbers(db, numbers)) return faultOfHeader(db);
  if (numbers->tableCount >= 0) return std::nullopt;
  return Fault{Reason::directory_damaged, "its number of tables is damaged"};
}

std::optional<Fault> readSlot(int16_t db, const engine::DirectoryNumbers& numbers, int index,
                              tablePart1* slot) {
  if (engine::readUsedSlot(db, numbers.slotSize, slot)) return std::nullopt;
  return Fault{Reason::directory_damaged,
               "entry " + std::to_string(index + 1) + " of its table directory is damaged"};
}

namespace {

// The kind of file system where a lock keeps no other process out, or null.
const char* withoutLocks(int16_t number, const std::filesystem::path& place) {
  std::error_code unknown;
  const std::filesystem::path absolute = std::filesystem::absolute(place, unknown);
  return unknown ? nullptr : platform::fileSystemWithoutLocks(number, absolute.native());
}

int16_t openWith(const std::filesystem::path& path, const std::filesystem::path& place,
                 int permission, const char* operation) {
  const std::vector<QVWCHAR> wide = failure::nativePath(place, operation);
  // The obstacle may be gone by the time it is looked for: then opening is tried again.
  for (int tries = 3;; --tries) {
    const int16_t number = OpenDBaseW(wide.data(), permission);
    if (number != 0) return number;
    const auto found = platform::findOpenFailure(wide.data(), permission);
    if (tries > 1 && found.failure == platform::OpenFailure::none) continue;
    failure::throwOpenFailure(path, operation, found);
  }
}

}  // namespace

int16_t openFile(const std::filesystem::path& path, const std::filesystem::path& place,
                 int permission, const char* operation) {
  const int16_t number = openWith(path, place, permission, operation);
  const char* fileSystem = withoutLocks(number, place);
  if (fileSystem == nullptr) return number;
  CloseDBase(number);
  if (permission == DatabaseHandle::any) {
    return openWith(path, place, DatabaseHandle::readOnly, operation);
  }
  failure::throwOpenFailure(path, operation, platform::lockWithoutEffect(fileSystem));
}

DatabaseHandle::DatabaseHandle(const std::filesystem::path& path, Permission permission,
                               Intents intents)
    : DatabaseHandle(path, openFile(path, path, permission, kOpen)) {
  static_cast<void>(directory(kOpen));
  const bool completes = permission == exclusive && intents == Intents::areCompleted;
  if (completes) completeIntents(number_, path_, kOpen);
}

DatabaseHandle::DatabaseHandle(const std::filesystem::path& path, int16_t number)
    : path_(path), number_(number) {}

DatabaseHandle::~DatabaseHandle() {
  CloseDBase(number_);
}

void DatabaseHandle::fail(const char* operation, const Fault& fault) const {
  ErrorDetails details;
  details.system_code = platform::lastHostFailure();
  failure::throwError(path_, operation, fault.reason, fault.why, std::move(details));
}

engine::DirectoryNumbers DatabaseHandle::directory(const char* operation) const {
  const platform::Turn turn(number_);
  platform::forgetHostFailure();
  engine::DirectoryNumbers numbers;
  if (const auto fault = readDirectory(number_, &numbers)) fail(operation, *fault);
  return numbers;
}

std::vector<tablePart1> DatabaseHandle::tables(const char* operation) const {
  const platform::Turn turn(number_);
  const engine::DirectoryNumbers numbers = directory(operation);
  std::vector<tablePart1> slots(static_cast<size_t>(numbers.tableCount));
  for (size_t i = 0; i < slots.size(); ++i) {
    const auto fault = readSlot(number_, numbers, static_cast<int>(i), &slots[i]);
    if (fault) fail(operation, *fault);
  }
  return slots;
}

uint64_t DatabaseHandle::fileLength(const char* operation) const {
  const platform::Turn turn(number_);
  if (const std::optional<int64_t> length = lengthOf(number_)) {
    return static_cast<uint64_t>(*length);
  }
  fail(operation, noLength());
}

void DatabaseHandle::requireAlone(const char* operation) const {
  if (platform::writersOf(number_) <= 1) return;
  failure::throwError(path_, operation, Reason::in_use,
                      "this program has it open in another place");
}

void DatabaseHandle::sync(const char* operation) const {
  platform::forgetHostFailure();
  if (platform::syncFile(number_)) return;
  fail(operation, {Reason::cannot_write, "the system reports a failure"});
}

}  // namespace qvdbase::handle
