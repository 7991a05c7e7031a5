// Writes a folder that was imported as it was at an earlier time, in the order of 'qvdb export'.
#include "archive/export_at.h"

#include <algorithm>
#include <memory>

#include "archive/folder_at.h"
#include "archive/hard_links.h"
#include "command_line/commands.h"
#include "commands/locate.h"
#include "streams/interrupt.h"
#include "streams/output.h"
#include "streams/progress.h"
#include "streams/text.h"

namespace qvdb::tool {
namespace {

class Writer {
 public:
  Writer(const Database& database, const ListKey& key, const std::vector<FileAt>& entries,
         FolderWriter& folder, bool force, bool hardLinks)
      : database_(database),
        entries_(entries),
        folder_(folder),
        force_(force),
        key_(key),
        contents_(database.path().native(), key),
        hardLinks_(hardLinks, folder) {}

  void check() {
    if (folder_.wasEmpty()) return;
    for (const FileAt& each : entries_) {
      throwIfInterrupted();
      folder_.check(each.file);
    }
  }

  void run() {
    Progress progress("exporting", entries_.size(), "names");
    forEach(FileKind::folder, [&](const FileAt& each) { folder_.makeFolder(each.file.name); });
    forEach(FileKind::file, [&](const FileAt& each) { hardLinks_.note(each.file); });
    forEach(FileKind::file, [&](const FileAt& each) {
      writeFile(each);
      progress.step();
    });
    forEach(FileKind::link, [&](const FileAt& each) { folder_.makeLink(each.file); });
    folder_.sync();
    finishFolders();
  }

  std::string summary() const {
    return "exported " + counted(files_, "file", "files") + ", " + counted(bytes_, "byte", "bytes");
  }

 private:
  template <typename Take>
  void forEach(FileKind kind, Take take) {
    for (const FileAt& each : entries_) {
      throwIfInterrupted();
      if (each.file.kind == kind) take(each);
    }
  }

  // Versions that overlap, as no sound file has them, could fill the disk.
  void countStored(uint64_t more) {
    stored_ += more;
    if (force_ || stored_ <= database_.info().file_size) return;
    throw Failure(
        database_.path().native() +
        ": the versions overlap: they have more bytes than the file; 'qvdb check' reports "
        "the damage, --force writes the others too");
  }

  void writeFile(const FileAt& each) {
    countStored(each.version->length);
    if (each.record) each.record->require_sound();
    ++files_;
    const auto again = [this, &each]() -> PieceReader {
      auto contents = std::make_shared<ContentsAt>(database_.path().native(), key_);
      return [contents, &each](uint64_t offset, std::span<std::byte> buffer) {
        return contents->read(each, offset, buffer);
      };
    };
    if (hardLinks_.link(each.file, again)) return;
    const auto identity =
        folder_.writeFile(each.file, [&](uint64_t offset, std::span<std::byte> buffer) {
          const size_t got = contents_.read(each, offset, buffer);
          bytes_ += got;
          return got;
        });
    hardLinks_.noteWritten(each.file, identity, again);
  }

  // What is in a folder has the longer name, and comes first.
  void finishFolders() {
    std::vector<const ImportedFile*> folders;
    forEach(FileKind::folder, [&](const FileAt& each) { folders.push_back(&each.file); });
    std::sort(folders.begin(), folders.end(),
              [](const auto* a, const auto* b) { return a->name > b->name; });
    for (const ImportedFile* each : folders) folder_.finishFolder(*each);
  }

  const Database& database_;
  const std::vector<FileAt>& entries_;
  FolderWriter& folder_;
  const bool force_;
  const ListKey key_;
  ContentsAt contents_;
  HardLinks hardLinks_;
  uint64_t files_ = 0;
  uint64_t bytes_ = 0;   // of the files
  uint64_t stored_ = 0;  // of their versions, which may be compressed
};

}  // namespace

int exportAt(const ExportAt& what, const FolderOptions& options) {
  const Database database = openToRead(options.database);
  const Table table = findTable(database, what.table);
  bool isUnreachable = false;
  const auto files = readNames(database, table, &isUnreachable);
  if (!files) {
    throw Failure(options.database + ": table '" + table.name() +
                  (isUnreachable ? "' cannot be exported as it was: its list of names is not there"
                                 : "' has no list of imported files, which says what was there") +
                  "; 'qvdb get --at' and 'qvdb history' show earlier versions of records");
  }
  FolderAt folder(database, table, *files, what.time);
  if (const auto word = folder.choose(what.names)) {
    throw Failure(options.database + ": table '" + table.name() + "' had no '" + *word + "' at " +
                  timeText(what.time));
  }
  folder.findContents(what.table);
  FolderWriter target(what.folder, options);
  Writer writer(database, files->head().key, folder.entries(), target, options.force,
                options.fields.hardLinks);
  writer.check();
  writer.run();
  const bool isAll = folder.report();
  printLine(writer.summary());
  return isAll && files->isWhole() && target.isComplete() ? kDone : kFailed;
}

}  // namespace qvdb::tool
