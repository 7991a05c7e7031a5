// qvdb::Database: creating, opening, closing, tables by name.
#include <qvdbase/qvdbase.h>
#include <qvdbase/qvdb/database.hpp>
#include <qvdbase/qvdb/error.hpp>

#include <algorithm>
#include <utility>

#include "QVDbase/header.h"
#include "QVDbase/lifecycle.h"
#include "failure/database_handle.h"
#include "failure/failure.h"
#include "failure/native_path.h"
#include "format/Aliment8.h"
#include "format/fields.h"
#include "format/identifiers.h"
#include "format/layout.h"
#include "objects/chain_ends.h"
#include "objects/open_database.h"
#include "objects/waiting.h"
#include "platform/handles/sync.h"
#include "platform/host/host_failure.h"
#include "products/target_file.h"

using namespace qvdbase;

namespace qvdb {

using detail::OpenDatabase;
using detail::Operation;

namespace {

std::shared_ptr<OpenDatabase> openState(const std::filesystem::path& path, Mode mode,
                                        const char* operation) {
  auto state = std::make_shared<OpenDatabase>();
  state->path = path;
  state->mode = mode;
  state->handle = failure::openFile(path, static_cast<int>(mode), operation);
  return state;
}

constexpr const char* kOpen = "open the database";

bool isBadSignature(const std::array<char, 4>& signature) {
  return (signature[0] != 'Q' && signature[0] != 'q') ||
         (signature[1] != 'V' && signature[1] != 'v');
}

bool isUsableVersion(uint16_t version) {
  return version >= format::kFirstVersion && version <= format::kLastVersion;
}

DatabaseInfo readInfo(const Operation& operation) {
  engine::SavedPosition scope(operation.db());
  internal_Head1 head;
  if (internal_GetDBHead1(operation.db(), &head) != 1) {
    static_cast<void>(operation.directory());
    operation.fail(Reason::not_a_database, "the file is not a database");
  }
  uint16_t tables = 0;
  uint16_t slots = 0;
  uint16_t slotSize = 0;
  if (!format::readUint16(operation.db(), &tables) || !format::readUint16(operation.db(), &slots) ||
      !format::readUint16(operation.db(), &slotSize)) {
    operation.fail(Reason::not_a_database, "the file is cut off inside its header");
  }
  DatabaseInfo info;
  std::copy_n(reinterpret_cast<const char*>(head.signature), 4, info.signature.begin());
  info.version = head.version;
  info.id = Id{format::identifierNumber(head.databaseID)};
  info.table_count = static_cast<int16_t>(tables);
  info.slot_count = static_cast<int16_t>(slots);
  info.slot_size = slotSize;
  info.file_size = operation.fileLength();
  return info;
}

}  // namespace

Database::Database(std::shared_ptr<OpenDatabase> state) noexcept : state_(std::move(state)) {}

Database::~Database() {
  if (state_ == nullptr || state_->handle == 0) return;
  state_->discardBulk();
  CloseDBase(std::exchange(state_->handle, 0));
}

// What this object held closes here, not when the other one happens to go.
Database& Database::operator=(Database&& other) noexcept {
  Database taken(std::move(other));
  state_.swap(taken.state_);
  return *this;
}

Database Database::create(const std::filesystem::path& path, const CreateOptions& options) {
  constexpr const char* kOperation = "create the database";
  if (isBadSignature(options.signature)) {
    failure::throwError(path, kOperation, Reason::bad_argument,
                        "a signature begins with the letters Q and V, in either case");
  }
  if (!isUsableVersion(options.version)) {
    failure::throwError(path, kOperation, Reason::bad_argument,
                        "a version lies between 100 and 199");
  }
  static_cast<void>(failure::nativePath(path, kOperation));
  using products::Existing;
  auto state = std::make_shared<OpenDatabase>();  // outlives the target, whose file it closes
  products::TargetFile target(
      path, kOperation,
      {.existing = options.overwrite ? Existing::isReplaced : Existing::isReplacedIfEmpty,
       .createFolders = options.create_folders,
       .waits = options.sync ? platform::Waits::forName : platform::Waits::no});
  if (target.isReadHere()) {
    failure::throwError(path, kOperation, Reason::in_use, "this program has it open");
  }
  state->path = path;
  state->mode = Mode::exclusive;
  if (!target.create(nullptr).handOver(&state->handle)) {
    failure::throwError(path, kOperation, Reason::cannot_open, "too many files are open");
  }
  if (!engine::writeNewDatabase(state->handle, options.signature.data(), options.version)) {
    target.failWriting(platform::findWriteFailure(uint64_t{format::kNewFileSize}));
  }
  target.place();
  return Database(std::move(state));
}

Database Database::open(const std::filesystem::path& path, Mode mode) {
  Database database(openState(path, mode, kOpen));
  engine::SavedPosition scope(database.handle());
  static_cast<void>(Operation(database.state_, kOpen).directory());
  return database;
}

// A file that appears between looking and creating was created by another process, and is opened;
// one that cannot be opened then has been removed again, which is an answer, too.
Database Database::openOrCreate(const std::filesystem::path& path, Mode mode) {
  try {
    return open(path, mode);
  } catch (const Error& error) {
    if (error.reason() != Reason::no_such_file) throw;
  }
  try {
    Database created = create(path);
    if (mode == Mode::exclusive) return created;
  } catch (const Error& error) {
    if (error.reason() != Reason::file_exists) throw;
  }
  return open(path, mode);
}

Database Database::open(const std::filesystem::path& path, const OpenOptions& options) {
  if (options.create && options.mode == Mode::read_only) {
    failure::throwError(path, kOpen, Reason::bad_argument,
                        "a file that is not there cannot be created for reading only");
  }
  return detail::whileInUse(options.wait, [&] {
    Database database =
        options.create ? openOrCreate(path, options.mode) : open(path, options.mode);
    if (options.check) detail::checkEnds(database);
    return database;
  });
}

Database Database::adopt(int16_t handle, const std::filesystem::path& path, Mode mode) {
  auto state = std::make_shared<OpenDatabase>();
  state->path = path;
  state->mode = mode;
  state->handle = handle;
  return Database(std::move(state));
}

DatabaseInfo Database::inspect(const std::filesystem::path& path) {
  constexpr const char* kOperation = "look at the database";
  return readInfo(Operation(openState(path, Mode::read_only, kOperation), kOperation));
}

std::u16string Database::native_path(const std::filesystem::path& path) {
  const std::vector<QVWCHAR> wide = failure::nativePath(path, "use this path");
  return {wide.begin(), wide.end() - 1};
}

void Database::close() {
  if (!is_open()) return;
  state_->discardBulk();
  const int16_t handle = std::exchange(state_->handle, 0);
  if (CloseDBase(handle) != 0) return;
  constexpr const char* kOperation = "close the database";
  failure::throwError(state_->path, kOperation, Reason::cannot_write,
                      "the system reports a failure");
}

bool Database::is_open() const noexcept {
  return state_ != nullptr && state_->handle != 0;
}

OpenDatabase& Database::state() const {
  if (state_ == nullptr) {
    failure::throwError("use the database", Reason::not_open, "none is open");
  }
  return *state_;
}

int16_t Database::handle() const {
  return state().handle;
}

const std::filesystem::path& Database::path() const {
  return state().path;
}

Mode Database::mode() const {
  return state().mode;
}

DatabaseInfo Database::info() const {
  static_cast<void>(state());
  return readInfo(Operation(state_, "read the header"));
}

void Database::set_version(uint16_t version) {
  static_cast<void>(state());
  const Operation operation(state_, "set the version");
  if (!isUsableVersion(version)) {
    operation.fail(Reason::bad_argument, "a version lies between 100 and 199");
  }
  operation.requireWritable();
  if (SetDBaseVersion(operation.db(), version) != 1) operation.failedWrite(0);
}

std::vector<Table> Database::tables() const {
  static_cast<void>(state());
  const Operation operation(state_, "list the tables");
  engine::SavedPosition scope(operation.db());
  std::vector<Table> tables;
  tablePart1 slot;
  static_cast<void>(operation.findSlot(&slot, [&](const tablePart1& used) {
    const Id id{format::identifierNumber(used.tableID)};
    tables.push_back(Table(state_, id, format::storedName(used)));
    return false;
  }));
  return tables;
}

std::optional<Table> Database::find_table(std::string_view name) const {
  static_cast<void>(state());
  const Operation operation(state_, "find the table");
  engine::SavedPosition scope(operation.db());
  tablePart1 slot;
  if (!operation.findSlot(
          &slot, [name](const tablePart1& used) { return format::storedName(used) == name; })) {
    return std::nullopt;
  }
  return Table(state_, Id{format::identifierNumber(slot.tableID)}, std::string(name));
}

std::optional<Table> Database::find_table(Id table) const {
  static_cast<void>(state());
  const Operation operation(state_, "find the table");
  engine::SavedPosition scope(operation.db());
  tablePart1 slot;
  if (!operation.findSlot(&slot, [table](const tablePart1& used) {
        return format::identifierNumber(used.tableID) == table.value;
      })) {
    return std::nullopt;
  }
  return Table(state_, table, format::storedName(slot));
}

bool Database::contains(std::string_view name) const {
  return find_table(name).has_value();
}

bool Database::contains(Id table) const {
  return find_table(table).has_value();
}

Table Database::table(std::string_view name) const {
  std::optional<Table> found = find_table(name);
  if (found) return *std::move(found);
  Operation(state_, "find the table")
      .failMissingTable(std::string(name), "it has no table named '" + std::string(name) + "'");
}

Table Database::add_table(std::string_view name) {
  static_cast<void>(state());
  const Operation operation(state_, "add the table");
  if (name.empty() || name.find('\0') != std::string_view::npos) {
    operation.fail(Reason::bad_name, "a table name has at least one byte, and no zero bytes");
  }
  if (name.size() > format::kTableNameSize) {
    operation.fail(Reason::name_too_long, "a table name has at most 32 bytes, and this one has " +
                                              std::to_string(name.size()));
  }
  operation.about(name);
  operation.requireWritable();
  const uint64_t id = AddTable(operation.db(), std::string(name).c_str());
  if (id != 0) return Table(state_, Id{id}, std::string(name));

  operation.failIfWriteWasRefused(0);
  engine::SavedPosition scope(operation.db());
  tablePart1 slot;
  if (operation.findSlot(
          &slot, [name](const tablePart1& used) { return format::storedName(used) == name; })) {
    operation.fail(Reason::table_exists,
                   "a table named '" + std::string(name) + "' exists already");
  }
  const engine::DirectoryNumbers numbers = operation.directory();
  if (numbers.tableCount >= numbers.slotCount - 1) {
    operation.fail(Reason::directory_full, "it has " + std::to_string(numbers.tableCount) +
                                               " tables, and no room for more");
  }
  operation.failedWrite(0);
}

Table Database::find_or_add_table(std::string_view name) {
  std::optional<Table> found = find_table(name);
  return found ? *std::move(found) : add_table(name);
}

void Database::sync() {
  static_cast<void>(state());
  const Operation operation(state_, "wait for the device");
  if (!platform::syncFile(operation.db())) {
    operation.fail(Reason::cannot_write, "the system reports a failure");
  }
}

}  // namespace qvdb
