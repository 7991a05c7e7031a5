// qvdb::Database: creating, opening, closing, and the header.
#include <qvdbase/qvdbase.h>
#include <qvdbase/qvdb/database.hpp>
#include <qvdbase/qvdb/error.hpp>

#include <algorithm>
#include <utility>

#include "QVDbase/header.h"
#include "QVDbase/lifecycle.h"
#include "failure/failure.h"
#include "failure/native_path.h"
#include "format/fields.h"
#include "format/identifiers.h"
#include "format/layout.h"
#include "handle/database_handle.h"
#include "handle/open_intents.h"
#include "objects/cache.h"
#include "objects/indexes/table_index.h"
#include "objects/indexes/table_keys.h"
#include "objects/kept/kept_indexes.h"
#include "objects/open_database.h"
#include "objects/sharing/looks.h"
#include "objects/sharing/turns.h"
#include "objects/sharing/waiting.h"
#include "objects/space/compact_when.h"
#include "objects/transactions/held_commits.h"
#include "objects/transactions/transaction_steps.h"
#include "objects/walks/chain_ends.h"
#include "platform/handles/current_name.h"
#include "platform/handles/file_views.h"
#include "platform/handles/lock_bytes.h"
#include "platform/handles/open_files.h"
#include "platform/handles/sync.h"
#include "platform/host/cancellation.h"
#include "platform/host/host_failure.h"
#include "products/target_file.h"

using namespace qvdbase;

namespace qvdb {

using detail::OpenDatabase;
using detail::Operation;
using engine::SavedPosition;

namespace {

// Where the current folder is not known, the path stays what it is.
std::shared_ptr<OpenDatabase> stateOf(const std::filesystem::path& path, Mode mode) {
  auto state = std::make_shared<OpenDatabase>();
  state->path = path;
  state->mode = mode;
  std::error_code unknown;
  state->place = std::filesystem::absolute(path, unknown);
  if (unknown) state->place = path;
  return state;
}

void openFileOf(OpenDatabase& database, const std::filesystem::path& place, const char* operation) {
  const int permission = static_cast<int>(database.mode);
  database.handle = handle::openFile(database.path, place, permission, operation);
  detail::announce(database);
}

std::shared_ptr<OpenDatabase> openState(const std::filesystem::path& path, Mode mode,
                                        const char* operation) {
  std::shared_ptr<OpenDatabase> state = stateOf(path, mode);
  openFileOf(*state, path, operation);
  return state;
}

constexpr const char* kCreate = "create the database";
constexpr const char* kOpen = "open the database";
constexpr const char* kUse = "use the database";

void requireDirectory(const std::shared_ptr<OpenDatabase>& database) {
  const Operation operation(database, kOpen);
  static_cast<void>(detail::look(operation, [&] { return operation.directory(); }));
}

// A writer that a crash has ended can have left transactions that are committed but not in place.
// Another writer that shares the file may have completed them when the turn comes: then nothing is
// left to be done. Those of a writer in this process are its own affair.
void completeTransactions(const std::shared_ptr<OpenDatabase>& database) {
  if (database->mode == Mode::read_only) return;
  const Operation operation(database, kOpen);
  if (!handle::hasOpenIntents(operation.db()) || platform::writersOf(operation.db()) > 1) return;
  const detail::ChangeTurn turn(operation);
  handle::completeIntents(operation.db(), database->path, kOpen);
}

// Also its first look at the file waits no longer than that.
std::shared_ptr<OpenDatabase> openWhole(const std::filesystem::path& path, Mode mode,
                                        std::chrono::milliseconds wait) {
  std::shared_ptr<OpenDatabase> state = openState(path, mode, kOpen);
  state->wait = wait;
  requireDirectory(state);
  completeTransactions(state);
  return state;
}

// Keeps what a database has announced to writers while it is closed and opened again. Where its
// name still leads to the same file, these know of it all the time.
class KeptAnnouncement {
 public:
  void keep(const OpenDatabase& database) {
    if (!database.isAnnounced || database.forkDepth != platform::forkDepth()) return;
    if (!platform::openView(database.handle, &view_)) return;
    isAnnounced_ = platform::announceReader(view_);
    announcedAt_ = database.announcedAt;
    mayMissChanges_ = database.mayMissChanges;
  }
  ~KeptAnnouncement() {
    if (isAnnounced_) platform::withdrawReader(view_);
    if (view_ != 0) platform::closeFile(view_);
  }
  KeptAnnouncement() = default;
  KeptAnnouncement(const KeptAnnouncement&) = delete;
  KeptAnnouncement& operator=(const KeptAnnouncement&) = delete;

  void passTo(OpenDatabase& database) const {
    if (!isAnnounced_ || !database.isAnnounced) return;
    const platform::Turn turn(database.handle);
    const auto* kept = platform::findOpenFile(view_)->entry;
    if (platform::findOpenFile(database.handle)->entry != kept->source) return;
    database.announcedAt = announcedAt_;
    database.mayMissChanges = mayMissChanges_;
  }

 private:
  int16_t view_ = 0;
  bool isAnnounced_ = false;
  uint64_t announcedAt_ = 0;
  bool mayMissChanges_ = false;
};

// The file that has the name of this one now, which may be closed.
std::shared_ptr<OpenDatabase> openAgain(const OpenDatabase& database,
                                        const KeptAnnouncement& announcement) {
  auto state = std::make_shared<OpenDatabase>();
  state->path = database.path;
  state->place = database.place;
  state->mode = database.mode;
  state->wait = database.wait;
  openFileOf(*state, database.place, kOpen);
  announcement.passTo(*state);
  requireDirectory(state);
  completeTransactions(state);
  return state;
}

bool isBadSignature(const std::array<char, 4>& signature) {
  return (signature[0] != 'Q' && signature[0] != 'q') ||
         (signature[1] != 'V' && signature[1] != 'v');
}

bool isUsableVersion(uint16_t version) {
  return version >= format::kFirstVersion && version <= format::kLastVersion;
}

DatabaseInfo readHeader(const Operation& operation) {
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

DatabaseInfo readInfo(const Operation& operation) {
  return detail::look(operation, [&] { return readHeader(operation); });
}

}  // namespace

Database::Database(std::shared_ptr<OpenDatabase> state) noexcept : state_(std::move(state)) {}

Database::~Database() {
  if (state_ == nullptr) return;
  detail::writeKeptBeforeClose(state_);
  const detail::KeptHeld held(*state_);
  const detail::DatabaseTurn turn(*state_);
  if (state_->handle == 0) return;
  state_->takeBackOpen();
  state_->close();
}

// What this object held is closed here, not when the other object is destroyed.
Database& Database::operator=(Database&& other) noexcept {
  Database taken(std::move(other));
  state_.swap(taken.state_);
  return *this;
}

Database Database::create(const std::filesystem::path& path, const CreateOptions& options) {
  const platform::Uncancelled uncancelled;
  if (isBadSignature(options.signature)) {
    failure::throwError(path, kCreate, Reason::bad_argument,
                        "a signature begins with the letters Q and V, in either case");
  }
  if (!isUsableVersion(options.version)) {
    failure::throwError(path, kCreate, Reason::bad_argument, "a version lies between 100 and 199");
  }
  static_cast<void>(failure::nativePath(path, kCreate));
  using products::Existing;
  // It outlives the target, whose file it closes.
  std::shared_ptr<OpenDatabase> state = stateOf(path, Mode::exclusive);
  const products::TargetRules rules = {
      .existing = options.overwrite ? Existing::isReplaced : Existing::isReplacedIfEmpty,
      .createFolders = options.create_folders,
      .waits = options.sync ? platform::Waits::forName : platform::Waits::no};
  auto target = std::make_unique<products::TargetFile>(path, kCreate, rules);
  // What has no name yet may be made from the file that it will replace.
  if (target->isReadHere() && options.place) {
    failure::throwError(path, kCreate, Reason::in_use, "this program has it open");
  }
  platform::NewFile& file = target->create(nullptr);
  if (const char* fileSystem = file.fileSystemWithoutLocks()) {
    failure::throwOpenFailure(path, kCreate, platform::lockWithoutEffect(fileSystem));
  }
  int16_t handle = 0;
  if (!file.handOver(&handle)) {
    failure::throwError(path, kCreate, Reason::cannot_open, "too many files are open");
  }
  state->handle = handle;
  unsigned char databaseID[format::kIdentifierSize];
  if (options.id) internal_ConvertInt64_2UuID(options.id->value, databaseID);
  if (!engine::writeNewDatabase(state->handle, options.signature.data(), options.version,
                                options.id ? databaseID : nullptr)) {
    target->failWriting(platform::findWriteFailure(uint64_t{format::kNewFileSize}));
  }
  state->deadBytes = 0;
  if (options.place) {
    target->place();
  } else {
    state->unplaced = std::move(target);
  }
  return Database(std::move(state));
}

void Database::place() {
  const Operation operation(state_, kCreate);
  OpenDatabase& database = operation.database();
  if (database.unplaced == nullptr) return;
  operation.requireOwn();
  operation.requireNoBulk();
  database.unplaced->place();
  database.unplaced.reset();
}

Database Database::open(const std::filesystem::path& path, Mode mode) {
  const platform::Uncancelled uncancelled;
  return Database(openWhole(path, mode, {}));
}

// A file that appears between looking and creating was created by another process, and is opened.
// If it cannot be opened then, it was removed again, and that is the error.
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
                        "a file that does not exist cannot be created for reading only");
  }
  if (options.cache != 0 && options.mode != Mode::exclusive) {
    failure::throwError(path, kOpen, Reason::bad_argument,
                        "only a database that is opened exclusively can have a cache");
  }
  if (options.durability != Durability::process && options.mode != Mode::exclusive) {
    failure::throwError(path, kOpen, Reason::bad_argument,
                        "only a database that is opened exclusively can have another durability "
                        "than process");
  }
  // Also refuses what is not a number.
  const bool isPart = options.compact_when.dead_part >= 0 && options.compact_when.dead_part <= 1;
  if (!isPart) {
    failure::throwError(path, kOpen, Reason::bad_argument,
                        "the dead part from which on it is to be compacted is between 0 and 1");
  }
  if (options.compact_when.dead_part > 0 && options.mode != Mode::exclusive) {
    failure::throwError(path, kOpen, Reason::bad_argument,
                        "only a database that is opened exclusively can be compacted");
  }
  const platform::Uncancelled uncancelled;
  return detail::whileInUse(options.wait, [&] {
    Database database = [&] {
      try {
        return Database(openWhole(path, options.mode, options.wait));
      } catch (const Error& error) {
        if (!options.create || error.reason() != Reason::no_such_file) throw;
      }
      return openOrCreate(path, options.mode);
    }();
    database.state_->wait = options.wait;
    database.state_->checksums = options.checksums;
    database.state_->transactions.choose(options.durability);
    if (options.cache != 0) detail::holdCache(Operation(database.state_, kOpen), options.cache);
    if (options.check) {
      const Operation operation(database.state_, kOpen);
      detail::look(operation, [&] { detail::checkEnds(operation); });
    }
    database.state_->compactWhen = options.compact_when;
    detail::compactIfDue(database, *database.state_);
    return database;
  });
}

Database Database::adopt(int16_t handle, const std::filesystem::path& path, Mode mode) {
  std::shared_ptr<OpenDatabase> state = stateOf(path, mode);
  state->handle = handle;
  detail::announce(*state);
  return Database(std::move(state));
}

DatabaseInfo Database::inspect(const std::filesystem::path& path) {
  constexpr const char* kOperation = "look at the database";
  const platform::Uncancelled uncancelled;
  return readInfo(Operation(openState(path, Mode::read_only, kOperation), kOperation));
}

std::u16string Database::native_path(const std::filesystem::path& path) {
  const std::vector<QVWCHAR> wide = failure::nativePath(path, "use this path");
  return {wide.begin(), wide.end() - 1};
}

void Database::close() {
  if (state_ == nullptr) return;
  detail::compactIfDue(*this, *state_);
  detail::writeKeptBeforeClose(state_);
  const detail::KeptHeld held(*state_);
  const detail::DatabaseTurn turn(*state_);
  if (state_->handle == 0) return;
  state_->takeBackOpen();
  if (state_->close() != 0) return;
  constexpr const char* kOperation = "close the database";
  failure::throwError(state_->path, kOperation, Reason::cannot_write,
                      "the system reports a failure");
}

bool Database::is_current() const {
  const Operation operation(state_, "look at the path");
  const platform::NameOf found =
      platform::lookAtPath(operation.db(), operation.database().place.native());
  if (found != platform::NameOf::unknown) return found == platform::NameOf::thisFile;
  failure::throwOpenFailure(operation.database().path, operation.name(),
                            platform::createFailureOf(platform::lastHostFailure()));
}

// What was read of the file that was open before is forgotten before anything can fail.
void Database::reopen() {
  OpenDatabase& reopened = state();
  const platform::Uncancelled uncancelled;
  detail::writeKeptBeforeClose(state_);
  KeptAnnouncement announcement;
  {
    const detail::DatabaseTurn turn(reopened);
    reopened.takeBackOpen();
    reopened.opened = ++reopened.opening;
    reopened.moves = {};
    reopened.deadBytes.reset();
    ++reopened.changes;
    detail::markIndexesStale(reopened);
    detail::forgetKeys(reopened);
    if (reopened.handle != 0) {
      announcement.keep(reopened);
      reopened.close();
    }
  }
  const std::shared_ptr<OpenDatabase> opened =
      detail::whileInUse(reopened.wait, [&] { return openAgain(reopened, announcement); });
  reopened.takeOver(*opened);
  const detail::DatabaseTurn turn(reopened);
  detail::attachCache(reopened);
}

bool Database::is_open() const noexcept {
  return state_ != nullptr && state_->handle != 0;
}

OpenDatabase& Database::state() const {
  if (state_ == nullptr) failure::throwError(kUse, Reason::not_open, "none is open");
  return *state_;
}

int16_t Database::handle() const {
  const int16_t handle = state().handle;
  if (handle == 0) failure::throwError(state_->path, kUse, Reason::not_open, "it was closed");
  return handle;
}

const std::filesystem::path& Database::path() const {
  static_cast<void>(handle());
  return state_->path;
}

Mode Database::mode() const {
  static_cast<void>(handle());
  return state_->mode;
}

DatabaseInfo Database::info() const {
  return readInfo(Operation(state_, "read the header"));
}

void Database::set_version(uint16_t version) {
  constexpr const char* kSetVersion = "set the version";
  const Operation operation(state_, kSetVersion);
  if (!isUsableVersion(version)) {
    operation.fail(Reason::bad_argument, "a version lies between 100 and 199");
  }
  operation.requireWritable();
  operation.requireNoTransaction();
  const detail::ChangeTurn turn(operation);
  if (SetDBaseVersion(operation.db(), version) != 1) operation.failedWrite(0);
  if (state_->transactions.durability == intents::Durability::process) return;
  if (!platform::syncFile(operation.db())) {
    operation.fail(Reason::cannot_write, "the system reports a failure");
  }
}

void Database::keep_indexes() {
  static_cast<void>(state());
  detail::writeKept(state_);
}

void Database::sync() {
  const Operation operation(state_, "wait for the device");
  if (operation.stage() == nullptr && detail::putInPlace(operation)) return;
  if (!platform::syncFile(operation.db())) {
    operation.fail(Reason::cannot_write, "the system reports a failure");
  }
}

}  // namespace qvdb
