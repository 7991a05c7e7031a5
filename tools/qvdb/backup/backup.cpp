// qvdb backup: copies a database that may be in use.
#include <fcntl.h>
#include <sys/stat.h>

#include <chrono>
#include <set>
#include <string_view>

#include "backup/folder_calls.h"
#include "backup/piece_folder.h"
#include "command_line/commands.h"
#include "commands/locate.h"
#include "streams/failure.h"
#include "streams/output.h"
#include "streams/percent_progress.h"
#include "streams/sha256.h"
#include "streams/text.h"

namespace qvdb::tool {
namespace {

struct Options {
  std::string file;
  std::string target;
  bool pieces = false;
  std::optional<uint64_t> prune;
  bool force = false;
  bool parents = false;
  bool noSync = false;
};

BackupReport copy(const std::string& file, const std::string& target, const BackupOptions& how) {
  return withPercent("copying", [&](const ProgressFunction& progress) {
    return Database::open(file).backup(target, how, progress);
  });
}

int backUpWhole(const Options& options) {
  const BackupReport report = copy(
      options.file, options.target,
      {.overwrite = options.force, .create_folders = options.parents, .sync = !options.noSync});
  printLine(escaped(options.target) + ": " + counted(report.size, "byte", "bytes") +
            ", checked: sound");
  return kDone;
}

// ---- in pieces

int64_t now() {
  using namespace std::chrono;
  return duration_cast<seconds>(system_clock::now().time_since_epoch()).count();
}

uint32_t modeOf(const std::string& file) {
  struct stat status = {};
  if (::stat(file.c_str(), &status) != 0) throw systemFailure(file, "look at");
  return status.st_mode & 0777;
}

// A copy of the database as it is at one moment, which has no name.
Descriptor snapshot(const PieceFolder& folder, const std::string& file, uint64_t* length) {
  *length = static_cast<uint64_t>(copy(file, folder.copyPath(), {.sync = false}).size);
  return folder.takeCopy(*length);
}

// The newest list that can be read: one that is damaged must not end all backups.
std::optional<Manifest> newestManifest(const PieceFolder& folder) {
  const std::vector<std::string> names = folder.manifests();
  for (auto name = names.rbegin(); name != names.rend(); ++name) {
    try {
      return folder.read(*name);
    } catch (const Failure&) {
    }
  }
  return std::nullopt;
}

void requireSameDatabase(const PieceFolder& folder, const Manifest& newest, uint64_t database) {
  if (newest.database == database) return;
  throw Failure(folder.path() +
                ": cannot add a backup: the folder has backups of another database (" +
                to_string(Id{newest.database}) + "); choose another folder");
}

// The time of a new backup. Backups are in the order of their times, and what is newest is restored
// and kept: so none gets an earlier time than the one before, whatever the clock shows.
int64_t timeAfter(const PieceFolder& folder, const Manifest* newest) {
  const int64_t time = now();
  if (newest == nullptr || newest->time <= time) return time;
  complain(folder.path() + ": the newest backup in it is of " + timeText(newest->time) +
           ", and the clock shows " + timeText(time) + "; the new one gets the time of that one");
  return newest->time;
}

// Writes the pieces that are not there yet. Returns how many these were.
size_t writePieces(const PieceFolder& folder, const Descriptor& copy,
                   const std::set<std::string_view>& known, Manifest* manifest) {
  size_t written = 0;
  std::vector<std::byte> bytes;
  while (manifest->pieceCount() * kPieceSize < manifest->length) {
    throwIfInterrupted();
    folder.readCopy(copy, manifest->sizeOf(manifest->pieceCount()), &bytes);
    const std::string hash = sha256(bytes);
    if (folder.add(hash, bytes, known.contains(hash), manifest->mode)) ++written;
    manifest->hashes += hash;
  }
  return written;
}

// The folder's list of pieces comes when the device has all of them.
int backUpInPieces(const Options& options) {
  if (!canHash()) throw Failure("cannot make pieces: this qvdb was built without nettle");
  Manifest manifest;
  manifest.database = Database::inspect(options.file).id.value;
  manifest.mode = modeOf(options.file);
  const PieceFolder folder =
      whileInUse([&] { return PieceFolder(options.target, PieceFolder::Use::writing); });
  const std::optional<Manifest> newest = newestManifest(folder);
  std::set<std::string_view> known;
  if (newest) {
    requireSameDatabase(folder, *newest, manifest.database);
    for (size_t i = 0; i < newest->pieceCount(); ++i) known.insert(newest->piece(i));
  }
  manifest.time = timeAfter(folder, newest ? &*newest : nullptr);
  const Descriptor file = snapshot(folder, options.file, &manifest.length);
  const size_t written = writePieces(folder, file, known, &manifest);
  if (!options.noSync) folder.sync();
  const std::string name = folder.add(manifest, !options.noSync);
  printLine(escaped(options.target) + "/" + name + ": " +
            counted(manifest.length, "byte", "bytes") + " in " +
            counted(manifest.pieceCount(), "piece", "pieces") + ", " + std::to_string(written) +
            " of them new");
  if (!options.prune) return kDone;
  const size_t removed = folder.prune(static_cast<size_t>(*options.prune));
  printLine(counted(removed, "piece", "pieces") + " of older backups removed");
  return kDone;
}

int run(const Options& options) {
  if (!options.pieces) {
    if (options.prune) throw wrongUsage("--prune needs --pieces");
    return backUpWhole(options);
  }
  if (options.force || options.parents) {
    throw wrongUsage("--force and --parents cannot be used with --pieces, which replaces nothing");
  }
  if (options.prune && *options.prune == 0) {
    throw wrongUsage("--prune takes how many backups to keep, 1 or more");
  }
  return backUpInPieces(options);
}

Action define(Arguments& arguments) {
  const auto options = std::make_shared<Options>();
  arguments.argument("FILE", options->file, kFileHelp);
  arguments.argument("TARGET", options->target,
                     "The file to create; with --pieces, the folder to add a backup to.");
  arguments.flag("--pieces", options->pieces,
                 "Write pieces of 256 KiB, each named by its SHA-256, and a list of them.");
  arguments.option("--prune", "N", options->prune,
                   "With --pieces: then remove all backups but the newest N, and the pieces that "
                   "only those needed.");
  arguments.force(options->force, "Replace a target that exists.");
  arguments.parents(options->parents);
  arguments.noSync(options->noSync);
  return actionOf(options, run);
}

}  // namespace

extern const Command kBackupCommand = {
    "backup",
    "copy a database that may be in use",
    R"(Copies a database as it is at one moment, also while other processes write to it. Those that use
the C++ layer wait while the last changes are copied; beside programs that use the C functions it
begins again when the file changes meanwhile. The copy is checked before it gets its name, and gets
the permissions of the database. Where the file system can do that, the copy shares the stored bytes
of the database and is made at once.

With --pieces the copy is cut into pieces of 256 KiB, which go to the folder TARGET/pieces, each
under the SHA-256 of its bytes, and a list of them to TARGET/backup-TIME-000.manifest when the device
has them all. Pieces that are there already are not written again. So the next backup of a database
to which records were added writes few files, changes none, and any program that copies new files
(rclone, rsync, s3cmd) keeps a copy of the folder anywhere. The folder must have space for a whole
copy of the database meanwhile. 'qvdb restore' makes the file again. Each folder takes the backups of
one database.)",
    R"(qvdb backup notes.qvd /backup/notes.qvd
qvdb backup --force notes.qvd /backup/notes.qvd
qvdb backup --pieces --prune 30 notes.qvd /backup/notes)",
    define,
};

}  // namespace qvdb::tool
