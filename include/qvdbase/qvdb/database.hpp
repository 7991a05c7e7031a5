// qvdb::Database: an open database file.
#pragma once

#include <qvdbase/base.h>
#include <qvdbase/qvdb/backup.hpp>
#include <qvdbase/qvdb/cache.hpp>
#include <qvdbase/qvdb/id.hpp>
#include <qvdbase/qvdb/maintenance.hpp>
#include <qvdbase/qvdb/table.hpp>
#include <qvdbase/qvdb/transaction.hpp>

#include <array>
#include <chrono>
#include <concepts>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>
#include <vector>

namespace qvdb {

namespace detail {
struct Transactions;
}

// How a database is opened. The values are the permissions of OpenDBaseW.
//
// Processes that use this layer work beside each other in every combination that can be opened:
//
//   - `exclusive` is the mode for one writer. Readers may come and go meanwhile.
//   - In `shared`, several processes write: every operation that writes waits for its turn, and
//     sees all that the others have written before; an appender or a writer has the turn from its
//     beginning until it is finished or discarded. Waiting lasts as long as OpenOptions::wait says,
//     or five seconds; then the operation throws in_use, and has changed nothing.
//   - A reader (`read_only`, and every opener that is not exclusive when it reads) sees each
//     addition, change, deletion and batch whole or not at all, and all that were finished before
//     its own operation began. It never sees a mixture of two versions, and a sound file is never
//     reported as damaged. A walk delivers every record that is there from its beginning to its
//     end, in order and once. Records that are added, changed or deleted meanwhile may be delivered
//     as they were before, or as they are now; deleted ones may be missing. A compaction puts a new
//     file in the place of the old one, which readers see until reopen(). A reader waits for a
//     writer only for a moment; where that does not end, after the same time, it throws in_use.
//
// This does not hold beside programs that write by the C functions: they take no turns. With mode
// `shared` they must take turns by other means, and a reader can then meet half of a change. It
// looks again before it reports damage, and throws changed_meanwhile where that does not end; a
// payload that is being written over may be half old and half new. docs/together.md has it all.
enum class Mode : int {
  any = 0,        // shared, or read_only where that is not allowed
  read_only = 1,  // never writes a byte; allowed beside every other opener
  exclusive = 3,  // reads and writes, and excludes every other writer
  shared = 4,     // reads and writes beside other shared openers; the operations take turns
};

// When what an operation has written is safe.
class Durability {
 public:
  // When it has returned, whatever happens to the process. A power failure, or the end of the
  // operating system, can lose what the system has not written yet, and parts of it: sync() waits
  // for that.
  static const Durability process;

  // When it has returned, also from a power failure: every commit of a transaction is on the device
  // then, and every single operation that writes is a transaction of its own, with what
  // Transaction::commit() throws. That is one wait for the device for each, so that many operations
  // are better made in one transaction; and while an appender or a writer is open, only that can be
  // worked with. The file grows by the note that makes each of them whole:
  // some 350 bytes for an operation on one table.
  // Commits of several threads wait for the device together, with one sync for all that were
  // written while the sync before it lasted. Other threads and readers see a commit already while
  // its thread waits.
  static const Durability power;

  // At most so long after it has returned, as long as the program goes on using the database: the
  // first operation after that time waits for the device, for everything before it, and so do
  // sync() and close(), and at the latest every 64th commit. After a power failure the file is as
  // one of the commits has left it: all before that one are there, and nothing of those after it.
  // As with power, each single operation is a transaction of its own, and the file grows by its
  // note. What was committed is put into its place when it is on the device; until then it is read
  // from memory, and programs that use the C functions see the state before. There is no thread
  // that would sync while the program does nothing: call sync() before a long rest. A negative time
  // is as 0, with which each commit waits.
  static constexpr Durability interval(std::chrono::milliseconds time) noexcept {
    return Durability(Kind::interval, time);
  }

  // Whether both are the same.
  friend constexpr bool operator==(Durability, Durability) = default;

 private:
  friend struct detail::Transactions;
  enum class Kind : uint8_t { process, power, interval };
  constexpr explicit Durability(Kind kind, std::chrono::milliseconds time = {}) noexcept
      : kind_(kind), time_(time) {}

  Kind kind_;
  std::chrono::milliseconds time_;
};

inline constexpr Durability Durability::process{Kind::process};  // as declared above
inline constexpr Durability Durability::power{Kind::power};      // as declared above

// How a database is opened, with everything that can be asked for.
struct OpenOptions {
  Mode mode = Mode::read_only;  // read, or write, and which other openers are allowed

  // Whether a file that does not exist is created, with the default CreateOptions. One that exists
  // is opened, whatever it holds. Not with read_only.
  bool create = false;

  // Whether the ends of every table's chain are looked at, as open_checked() does.
  bool check = false;

  // How long opening is tried again while the database is in use, and how long each operation waits
  // for its turn beside other openers; for the latter, 0 means five seconds. The error that ends
  // opening names the process that has it open, where the system reports that.
  std::chrono::milliseconds wait{0};

  // The budget of a cache that the database has from its opening to its closing, in bytes; 0 for
  // none. Only with exclusive: see Database::cache().
  size_t cache = 0;

  // Whether records that are added get a checksum of their payload, where neither their table's
  // default nor the call that adds them says otherwise: see Table::set_checksum().
  bool checksums = false;

  // When what operations have written is safe. Only with exclusive, unless it is process. It does
  // not concern the C functions.
  Durability durability = Durability::process;

  // How much of the file has to be dead before it is compacted, such as {.dead_part = 0.5}; it
  // never is unless something is said. Only with exclusive. Dead bytes are counted as
  // Database::reclaimable_estimate() does, at two moments: at the end of opening, before the
  // database is returned, and in close(). Opening a file of at least so many bytes walks over the
  // headers of its records for that. close() counts again only where the number is not known; the
  // end of the object, reopen() and every other operation compact nothing.
  //
  // The compaction is Database::compact(), takes as long, and needs the same space for a second
  // file. Where it is not possible (the file is damaged or has several hard links, the disk is
  // full, ...) the database is opened, or closed, with the file as it was, and nothing is reported:
  // a program that wants to know the reason calls compact() while reclaimable_estimate() is large.
  CompactWhen compact_when = {};
};

// What the header of a database file holds, and the size of the file.
struct DatabaseInfo {
  std::array<char, 4> signature{};  // of usable databases "QV" or "qv", and two free bytes
  uint16_t version = 0;             // of usable databases 100 to 199
  Id id;                            // the database's identifier
  int table_count = 0;              // 0 to 31
  int slot_count = 0;               // slots of the directory, the last one always free
  int slot_size = 0;                // in bytes
  uint64_t file_size = 0;           // in bytes

  // Whether tables and records can be used: the library takes versions 100 to 199.
  bool version_is_usable() const noexcept { return version >= 100 && version <= 199; }
};

// What a new database is like, and where it may go.
struct CreateOptions {
  // The first byte must be 'Q' or 'q', the second 'V' or 'v'; the others are free.
  std::array<char, 4> signature{'Q', 'V', 'd', 'b'};
  uint16_t version = 100;  // 100 to 199
  // Whether a file that exists, and is not empty, is replaced. The new one then gets its
  // owner, group and permissions.
  bool overwrite = false;
  bool create_folders = false;  // whether missing folders in the path are created
  // Whether create() waits until the device has the file before it gets its name, and then until
  // the device has the name.
  bool sync = true;
  std::optional<Id> id = {};  // the database's identifier; nothing: a new one. 0 is stored as it is
  // Whether the file gets its name at once. If not, it is under a temporary name until
  // Database::place() is called, so that it appears with everything that is in it by then, or not
  // at all.
  bool place = true;
};

class Reader;

// An open database. It can be moved, not copied, and closes itself.
//
// Paths are those of the system; a relative one starts at the current folder. The library cannot
// reach every path. Refused with path_not_reachable are: a folder in the path whose name holds a
// tab, a double quote, a backslash or two blanks in a row, or begins or ends with a blank, because
// it would be taken for another one; a file name with a backslash; a path that is not UTF-8; and
// one of more than 2,047 characters (UTF-16 units).
//
// Threads. All member functions but the move operations and the destructor may be called by several
// threads at once, and so may those of the database's tables, records and indexes. Operations on
// one database take turns; those on different files run side by side. An object of which the one is
// assigned to, moved or destroyed is used by no other thread meanwhile, as everywhere. Walks
// (RecordRange and its iterators), appenders and writers belong to one thread at a time; another
// thread may close the database meanwhile, and they then throw not_open.
//
// Fork. A child process that got the database by fork can read, beside its parent as beside any
// other process that writes, and refuses to write with opened_elsewhere; reopen() opens the file
// for the child itself. Where the path no longer leads to the file that the parent opened, reading
// throws opened_elsewhere, too. What the child closes or destroys has no effect on the parent.
class QVDBASE_API Database {
 public:
  // Creates an empty database and leaves it open exclusively. It is made under a temporary name,
  // and gets its own when it is complete: a file that it replaces is there, unchanged, until then.
  //
  // Throws Error: path_not_reachable; file_exists; not_a_file; access_denied;
  // in_use (nothing in the file has changed then); bad_argument for a signature or a version that
  // the library itself would refuse later, and for a file to be replaced that has several hard
  // links; disk_full; cannot_read; cannot_write; cannot_open.
  static Database create(const std::filesystem::path& path, const CreateOptions& options = {});

  // Gives a database that was created without its name (CreateOptions::place) that name, in one
  // step: everything that was added is then in the file of that name, or, when this throws, the
  // name is as it was before. A database that is closed or destroyed before is removed. No
  // effect on one that has its name.
  //
  // Throws Error: file_exists when the name was taken meanwhile; in_use when the file to be
  // replaced was replaced by others; appender_open; disk_full; cannot_write; opened_elsewhere in a
  // child process that got the database by fork; not_open.
  void place();

  // Opens a database and looks at its header.
  //
  // Throws Error: path_not_reachable; no_such_file; not_a_file; access_denied; in_use, after
  // waiting where that is asked for; cannot_lock; read_only_file_system; not_a_database;
  // version_out_of_range; cannot_read; cannot_open. With `create` also what create() throws, and
  // bad_argument with read_only; with `check` also what open_checked() throws; with `cache`,
  // another durability than process, and `compact_when`, bad_argument unless the mode is exclusive,
  // and for a part that is not between 0 and 1.
  static Database open(const std::filesystem::path& path, Mode mode = Mode::read_only);

  // The same with everything that can be asked for.
  static Database open(const std::filesystem::path& path, const OpenOptions& options);

  // Takes over a handle that the C functions opened; the object closes it.
  //
  // path  for messages
  // mode  how the handle was opened; not verified
  static Database adopt(int16_t handle, const std::filesystem::path& path, Mode mode);

  // Reads the header of a file whatever its version is. The file is opened for reading only.
  // Throws as open() does, without version_out_of_range.
  static DatabaseInfo inspect(const std::filesystem::path& path);

  // The path in the form in which the C functions take it: absolute, UTF-16. Throws
  // path_not_reachable as described above.
  static std::u16string native_path(const std::filesystem::path& path);

  Database() noexcept = default;            // closed: to be assigned to
  Database(Database&&) noexcept = default;  // the other one is closed then
  // Closes what this one had open, ignoring a failure; the other one is closed then.
  Database& operator=(Database&& other) noexcept;
  ~Database();  // closes, and ignores a failure

  // Closes the database; its tables and records cannot be used any more. Without effect on a closed
  // one. May compact it before: see OpenOptions::compact_when. Throws Error: cannot_write when the
  // system reports a failure; the database is closed then too.
  void close();

  // Whether there is an open database: not after close(), nor after a move from it.
  bool is_open() const noexcept;

  // Whether the path still leads to the file that is open: not after another process has replaced
  // it, as compact() does, or removed it. Nothing says that by itself, since the old file can be
  // read for as long as it is open. A relative path is followed from the folder that was the
  // current one when the database was opened. Throws Error: not_open; access_denied and cannot_open
  // when the system does not say what the path leads to.
  bool is_current() const;

  // Opens the path again, in the same mode and with the same waiting time, and closes the file that
  // was open; one that was closed by close() is opened again. An open appender or writer is
  // discarded first.
  //
  // Tables of this database stay usable, and indexes: both find their table in the new file by its
  // identifier, which a compaction keeps; an operation on a table that is not there throws
  // table_missing. Records hold positions, which a compaction changes. So one that was found before
  // is refused with changed_meanwhile by its own functions, and operations that take a Record look
  // for it by its identifier. A walk that has begun ends with changed_meanwhile. One thread at a
  // time calls it; to others the database is closed while it lasts.
  //
  // Throws not_open without a database that was ever open, and as open() does; the database is
  // closed then, and reopen() can be called again.
  void reopen();

  // The handle for the C functions, another one after reopen(). It stays this object's: do not
  // close it. Throws not_open.
  int16_t handle() const;

  // The path as it was given to create(), open() or adopt(). Throws not_open.
  const std::filesystem::path& path() const;

  // The mode as it was given to open() or adopt(). Throws not_open.
  Mode mode() const;

  // Reads the header from the file. Throws not_open; not_a_database; cannot_read.
  DatabaseInfo info() const;

  // Stores a version, any from 100 to 199. Throws bad_argument; read_only; cannot_write.
  void set_version(uint16_t version);

  // All tables, in the order in which they were added. Throws directory_damaged.
  std::vector<Table> tables() const;

  // A table by its name; nothing when there is none. Throws directory_damaged when the
  // table is not found before the damage.
  std::optional<Table> find_table(std::string_view name) const;

  // The same by its identifier.
  std::optional<Table> find_table(Id table) const;

  // Whether there is a table of that name. Throws as find_table().
  bool contains(std::string_view name) const;

  // Whether there is a table with that identifier. Throws as find_table().
  bool contains(Id table) const;

  // The table of that name, which must exist. Throws table_missing; directory_damaged.
  Table table(std::string_view name) const;

  // Adds a table. The name has 1 to 32 bytes, none of them zero.
  // Throws Error: bad_name; name_too_long; table_exists; directory_full; directory_damaged, also
  // when the header counts too few tables, so that one with records or data would be overwritten;
  // read_only; cannot_write.
  Table add_table(std::string_view name);

  // Adds a table with identifier, version, flags and counters as the NewTable says. Throws the
  // same; and table_exists for an identifier that a table has already, and bad_argument for
  // identifier 0, with nothing written. To look for it costs a look at the directory.
  template <typename New>
  requires std::same_as<std::remove_cvref_t<New>, NewTable> Table add_table(New&& table) {
    return addNew(table);
  }

  // The table of that name, which is added when there is none. Throws as find_table() and
  // add_table(); never table_exists.
  Table find_or_add_table(std::string_view name);

  // A reader of this database, for a thread that reads beside others: see Reader. Throws not_open;
  // cannot_open when no further handle is free; and as open() does.
  Reader reader() const;

  // Keeps what is read of the file in memory for as long as the object, or another one, is held:
  // see Cache. The budget is that of the latest call.
  //
  // bytes  the budget, at most so much memory; 64 MiB unless said otherwise. Best is more than the
  //        file has
  //
  // Throws bad_argument unless the database is open exclusively; opened_elsewhere; not_open.
  [[nodiscard]] Cache cache(size_t bytes = size_t{64} << 20) const;

  // Copies the open file to `target`, as it is at one moment: from an exclusive database between
  // two of its operations, from every other one beside writers, of which those of this layer wait
  // for the last moments of it. What is written meanwhile is copied again; beside a program that
  // writes by the C functions, which do not wait, all of it begins again a few times. The copy is
  // checked before it gets its name; a damaged source is refused unless `force` is set. The target
  // gets permissions, access list, attributes and group of the source, and its owner where the
  // system allows that, unless it replaces a file. A relative path starts at the current folder.
  //
  // progress  called without a lock of the database; other threads may work with it meanwhile
  //
  // Throws Error: not_open; appender_open, since a copy would have half a batch;
  // path_not_reachable; file_exists; not_a_file; access_denied; in_use, also where another program
  // changes the source again and again; bad_argument when the target is the file itself, or has
  // several hard links; damaged; disk_full; size_limit; cannot_read; cannot_write; cancelled. The
  // target is as it was then.
  BackupReport backup(const std::filesystem::path& target, const BackupOptions& options = {},
                      const ProgressFunction& progress = {}) const;

  // Compacts the open file, as qvdb::compact() does one by its path, and continues with the new
  // one, which has the name and the exclusive lock of the old one. A failure, or a process that is
  // killed, leaves the old file in its place, or the new one. Only a database that is open
  // exclusively, and whose path still leads to its file.
  //
  // Tables stay usable, and so do records and indexes: records are found at their new places, those
  // that were found before the last compaction but one, by their identifiers. A walk that has begun
  // ends with changed_meanwhile. Readers keep the old file, and is_current() returns false to them.
  // The handle for the C functions is another one afterwards.
  //
  // Other threads wait for it. While `progress` or `options.keep` runs they may work with the
  // database; what they change then makes it fail with in_use, and nothing has happened.
  //
  // Throws Error as qvdb::compact(); read_only; bad_argument unless the database is open
  // exclusively; appender_open; in_use, also where this process has it open for writing elsewhere;
  // changed_meanwhile when its path leads elsewhere; cannot_open when too many files are open.
  // After cannot_write with the words that the new file is in its place, it is the open one.
  CompactReport compact(const ProgressFunction& progress = {}, const CompactOptions& options = {});

  // About how many bytes a compaction would gain: those of the file that belong neither to its
  // directory nor to a record or the data of a table. The first call walks over the headers of all
  // records, without their payloads. An exclusive database then keeps count of what its operations
  // add to it, so that later calls take no time; after create() and compact() it begins at 0. Of
  // every other database each call walks.
  //
  // It is an estimate: what the C functions delete through handle(), and what failed operations
  // leave, is not counted before reopen(). CompactReport of a compaction with
  // CompactOptions::dry_run is exact, and `qvdb check` lists every dead block.
  //
  // Throws, where it walks: appender_open, since the records of a batch are in no table yet;
  // directory_damaged; chain_damaged; data_damaged; cannot_read; in_use and changed_meanwhile
  // beside writers. Always: not_open.
  uint64_t reclaimable_estimate() const;

  // Writes the indexes that are kept in a file beside the database: those that were asked for with
  // RecordIndexOptions::kept, or with a name in KeyIndexOptions::kept_as. close(), reopen() and the
  // end of the object do so too, where something has changed, but for indexes that would have to be
  // built again first; and when that fails, they report nothing and remove nothing: an application
  // that wants to know calls this before.
  //
  // The file of NAME.qvd is NAME.qvdx, of any other NAME it is NAME.qvdx too. It is written by
  // openers with Mode::exclusive only, under a temporary name and with the access that the database
  // has, and then gets its name; the device is not waited for. Whoever opens the database may use
  // it. It may be removed at any time. Each index in it carries what the database was like: an
  // index of another file, of an older state or with a damaged page is not believed, and the table
  // is walked as if there were none. docs/kept-indexes.md says what is believed when, and what it
  // costs. Where the database was written to in the last 12 milliseconds, so much time passes
  // first.
  //
  // Throws, beside what the functions of key indexes throw: read_only; bad_argument unless the
  // database is open exclusively; appender_open; chain_damaged; key_exists; file_exists when a file
  // that is no such index has its name; no_such_file when the path of the database leads to another
  // file by now; disk_full, cannot_write, and the others of a file that cannot be written;
  // changed_meanwhile when the C functions of this process write at the same time. The file that
  // was there stays then.
  void keep_indexes();

  // Begins a transaction, to which all operations of this thread on this database belong until it
  // ends: see Transaction. Waits while another thread has one open.
  //
  // Throws bad_argument when this thread has one open on it already, unless it is open with
  // Mode::exclusive, and for a file whose directory has another size than that of a new one
  // (compact it first); appender_open while an appender or a writer is open; read_only;
  // not_a_database; cannot_read; cannot_write when an earlier commit has left it unknown what the
  // file holds; opened_elsewhere in a child process that got the database by fork; not_open.
  [[nodiscard]] Transaction begin();

  // Calls function(transaction) in a transaction, commits it, and returns what the function
  // returns. Where the function throws the transaction is rolled back, and the exception goes on to
  // the caller. One that the function has ended itself is not committed again. Throws as begin()
  // and Transaction::commit().
  template <std::invocable<Transaction&> Function>
  auto transaction(Function&& function) {
    Transaction transaction = begin();
    if constexpr (std::is_void_v<std::invoke_result_t<Function, Transaction&>>) {
      std::invoke(std::forward<Function>(function), transaction);
      if (transaction.is_active()) transaction.commit();
    } else {
      auto result = std::invoke(std::forward<Function>(function), transaction);
      if (transaction.is_active()) transaction.commit();
      return result;
    }
  }

  // Waits until the device has everything that was written. Without it a power failure can lose
  // what the system has not written yet. Throws Error: cannot_write; and in_use with
  // Durability::interval, where a reader does not finish.
  void sync();

 private:
  friend class Transaction;
  explicit Database(std::shared_ptr<detail::OpenDatabase> state) noexcept;
  static Database openOrCreate(const std::filesystem::path& path, Mode mode);
  Table addNew(const NewTable& table);
  detail::OpenDatabase& state() const;
  Table addTable(const NewTable& table);
  friend QVDBASE_API void check_ends(const Database& database, Id table);

  std::shared_ptr<detail::OpenDatabase> state_;
};

}  // namespace qvdb
