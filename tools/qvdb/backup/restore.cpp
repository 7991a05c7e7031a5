// qvdb restore: makes a database file of a backup in pieces.
#include <fcntl.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>

#include "backup/folder_calls.h"
#include "backup/piece_folder.h"
#include "command_line/commands.h"
#include "streams/failure.h"
#include "streams/interrupt.h"
#include "streams/output.h"
#include "streams/sha256.h"
#include "streams/text.h"
#include "streams/waiting.h"

namespace qvdb::tool {
namespace {

struct Options {
  std::string folder;
  std::optional<std::string> file;
  std::optional<std::string> at;
  bool list = false;
  bool force = false;
  bool parents = false;
  bool noSync = false;
};

// The newest one that is not younger than that time.
std::string chooseManifest(const PieceFolder& folder, const Options& options) {
  const std::vector<std::string> names = folder.manifests();
  if (names.empty()) {
    throw Failure(folder.path() +
                  ": cannot restore: there is no backup in the folder; 'qvdb backup --pieces' "
                  "writes one");
  }
  if (!options.at) return names.back();
  const auto time = parseTime(*options.at);
  if (!time || *time < 0) {
    throw wrongUsage("--at takes a time as 2024-05-01T12:34:56Z, not '" + *options.at + "'");
  }
  const std::string last = manifestName(*time, 999);
  const auto after = std::upper_bound(names.begin(), names.end(), last);
  if (after != names.begin()) return *(after - 1);
  throw Failure(folder.path() + ": cannot restore: no backup is as old as " + timeText(*time) +
                "; the oldest is " + names.front());
}

std::string nameOf(const std::string& file) {
  std::string name = std::filesystem::path(file).filename().native();
  if (name.empty() || name == "." || name == "..") {
    throw Failure(file + ": cannot create the file: it names a folder; add a name");
  }
  return name;
}

// Where the file is to be: links are followed, as by everything that makes a database.
std::string placeOf(const Options& options) {
  static_cast<void>(nameOf(*options.file));
  const std::filesystem::path given = *options.file;
  std::error_code error;
  if (!std::filesystem::is_symlink(given, error)) return given.native();
  const std::string place = std::filesystem::canonical(given, error).native();
  if (!error) return place;
  throw Failure(*options.file +
                ": cannot create the file: it is a symbolic link that leads nowhere; remove it, or "
                "choose another name");
}

// What has the name already. Where that is not known, creating the file says why.
void requireFree(const std::string& path, bool mayReplace) {
  struct stat status = {};
  if (folderCalls.statusAt(AT_FDCWD, path.c_str(), &status) != 0) return;
  if (!S_ISREG(status.st_mode)) {
    throw Failure(path +
                  ": cannot create the file: something that is no file has that name; choose "
                  "another name");
  }
  if (mayReplace) return;
  throw Failure(path +
                ": cannot create the file: it exists already; choose another name, or use --force "
                "to replace it");
}

class NewDatabase {
 public:
  NewDatabase(const Options& options, const std::string& place)
      : path_(place),
        folder_(openedFolder(place, options.parents)),
        file_(folder_.number(), nameOf(place), place,
              {.overwrite = options.force, .sync = !options.noSync}) {}

  void write(const std::vector<std::byte>& bytes) { file_.write(bytes); }

  // Its bytes are those that were backed up; that they are a sound database is looked at, too.
  void finish(uint32_t mode, bool sync) {
    std::string first;
    const CheckReport report = check(file_, [&](const Finding& finding) {
      if (finding.severity == Severity::error && first.empty()) {
        first = finding.code + ": " + finding.message;
      }
    });
    if (report.errors > 0) {
      throw Failure(path_ + ": cannot restore: what was backed up has " +
                    counted(report.errors, "error", "errors") + " (" + first +
                    "); choose an earlier backup with --at");
    }
    if (folderCalls.changeMode(file_.descriptor(), mode) != 0)
      throw systemFailure(path_, "set its permissions");
    file_.place();
    if (sync && folderCalls.sync(folder_.number()) != 0 && errno != EINVAL) {
      throw systemFailure(path_, "sync the folder of");
    }
  }

 private:
  static Descriptor openedFolder(const std::string& file, bool createFolders) {
    std::string folder = std::filesystem::path(file).parent_path().native();
    if (folder.empty()) folder.push_back('.');
    std::error_code error;
    if (createFolders) std::filesystem::create_directories(folder, error);
    Descriptor opened(
        folderCalls.openAt(AT_FDCWD, folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!opened && errno == ENOENT) {
      throw Failure(file + ": cannot create the file: the folder " + folder +
                    " does not exist; create it, or use --parents");
    }
    if (!opened) throw systemFailure(folder, "open the folder");
    return opened;
  }

  std::string path_;
  Descriptor folder_;
  OutputFile file_;
};

int list(const PieceFolder& folder) {
  for (const std::string& name : folder.manifests()) {
    const Manifest manifest = folder.read(name);
    printLine(timeText(manifest.time) + column(std::to_string(manifest.length), 16) + " bytes  " +
              name);
  }
  return kDone;
}

int restore(const PieceFolder& folder, const Options& options) {
  const std::string name = chooseManifest(folder, options);
  const Manifest manifest = folder.read(name);
  const std::string place = placeOf(options);
  requireFree(place, options.force);
  NewDatabase made = whileInUse([&] { return NewDatabase(options, place); });
  std::vector<std::byte> bytes;
  for (size_t i = 0; i < manifest.pieceCount(); ++i) {
    throwIfInterrupted();
    folder.readPiece(std::string(manifest.piece(i)), manifest.sizeOf(i), &bytes);
    made.write(bytes);
  }
  made.finish(manifest.mode, !options.noSync);
  printLine(escaped(*options.file) + ": " + counted(manifest.length, "byte", "bytes") + " of " +
            timeText(manifest.time) + ", checked: sound");
  return kDone;
}

int run(const Options& options) {
  if (options.list == options.file.has_value()) {
    throw wrongUsage("restore takes a folder and the file to create, or --list and a folder");
  }
  if (!canHash()) throw Failure("cannot read pieces: this qvdb was built without nettle");
  const PieceFolder folder =
      whileInUse([&] { return PieceFolder(options.folder, PieceFolder::Use::reading); });
  return options.list ? list(folder) : restore(folder, options);
}

Action define(Arguments& arguments) {
  const auto options = std::make_shared<Options>();
  arguments.argument("FOLDER", options->folder,
                     "The folder that 'qvdb backup --pieces' has written, or a copy of it.");
  arguments.optionalArgument("FILE", options->file, "The file to create.");
  arguments.option("--at", "TIME", options->at,
                   "Restore the newest backup that is not younger than this time, such as "
                   "2024-05-01T12:34:56Z. Without it, the newest of all.");
  arguments.flag("--list", options->list, "List the backups in the folder, and restore nothing.");
  arguments.force(options->force, "Replace a file that exists.");
  arguments.parents(options->parents);
  arguments.noSync(options->noSync);
  return actionOf(options, run);
}

}  // namespace

extern const Command kRestoreCommand = {
    "restore",
    "make a database file of a backup in pieces",
    R"(Makes the file again that 'qvdb backup --pieces' has backed up. Every piece is compared with its
hash, and the whole is checked as 'qvdb check' does, before the file gets its name and the permissions
that the database had. A piece that is missing or damaged, or a list that is incomplete, ends the
command, and nothing is created.

--list shows the backups in the folder by their times.)",
    R"(qvdb restore /backup/notes notes.qvd
qvdb restore --at 2024-05-01 /backup/notes old-notes.qvd
qvdb restore --list /backup/notes)",
    define,
};

}  // namespace qvdb::tool
