// qvdb get: prints the payload of records.
#include "archive/folder_at.h"
#include "archive/list_at.h"
#include "command_line/commands.h"
#include "commands/locate.h"
#include "compression/coded_payload.h"
#include "selection/chosen_records.h"
#include "selection/pattern.h"
#include "selection/version_at.h"
#include "streams/delivery.h"
#include "streams/failure.h"
#include "streams/given_time.h"
#include "streams/text.h"

namespace qvdb::tool {
namespace {

struct Options : RecordOptions {
  DeliveryOptions delivery;
  std::optional<std::string> at;
};

// The payloads one after the other, from the beginning each time that offset 0 is asked for.
class Payloads {
 public:
  Payloads(const std::vector<Record>& records, const ListKey& key) : records_(records), key_(key) {}

  size_t read(uint64_t offset, std::span<std::byte> buffer) {
    if (offset == 0) {
      at_ = 0;
      start_ = 0;
    }
    while (at_ < records_.size()) {
      if (!contents_ || of_ != at_) contents_.emplace(key_, records_[at_]);
      of_ = at_;
      if (const size_t got = contents_->read(offset - start_, buffer)) return got;
      ++at_;
      start_ = offset;
    }
    return 0;
  }

 private:
  const std::vector<Record>& records_;
  const ListKey key_;
  std::optional<CodedPayload> contents_;
  size_t of_ = 0;  // whose contents_ these are
  size_t at_ = 0;
  uint64_t start_ = 0;  // of the record, in all bytes
};

// The files of a folder of an earlier time, one after the other, as Payloads does it.
class PayloadsAt {
 public:
  PayloadsAt(std::string path, const ListKey& key, std::vector<const FileAt*> files)
      : contents_(std::move(path), key), files_(std::move(files)) {}

  size_t read(uint64_t offset, std::span<std::byte> buffer) {
    if (offset == 0) {
      at_ = 0;
      start_ = 0;
    }
    while (at_ < files_.size()) {
      if (const size_t got = contents_.read(*files_[at_], offset - start_, buffer)) return got;
      ++at_;
      start_ = offset;
    }
    return 0;
  }

 private:
  ContentsAt contents_;
  const std::vector<const FileAt*> files_;
  size_t at_ = 0;
  uint64_t start_ = 0;  // of the file, in all bytes
};

// Several files, what is in a folder, or what matches a pattern; nothing where the word means one
// record or file, also one that was not there then.
std::optional<int> runFolderAt(const Options& options, int64_t time) {
  const std::vector<std::string>& words = options.records;
  for (const std::string& word : words) {
    if (!parse_id(word)) continue;
    if (words.size() == 1) return std::nullopt;
    throw wrongUsage("--at takes one identifier, or names of files");
  }
  const Database database = openToRead(options.file);
  const Table table = findTable(database, options.table);
  const ImportedFiles names = namesOfImported(database, table, words.front());
  const bool isOne = words.size() == 1 && !Pattern::isOne(words.front());
  if (isOne && entriesAt(names, time).empty()) return std::nullopt;
  FolderAt folder(database, table, names, time);
  if (const auto word = folder.choose(words)) {
    if (isOne) return std::nullopt;
    throw Failure(options.file + ": table '" + table.name() + "' had " +
                  (Pattern::isOne(*word) ? "nothing that matches '" : "no file '") + nameIn(*word) +
                  "' at " + timeText(time));
  }
  const ImportedFile& first = folder.entries().front().file;
  if (isOne && first.kind == FileKind::file && first.name == nameIn(words.front())) {
    return std::nullopt;
  }
  folder.findContents(options.table);
  std::vector<const FileAt*> files;
  for (const FileAt& each : folder.entries()) {
    if (each.record) each.record->require_sound();
    if (each.version) files.push_back(&each);
  }
  const bool isAll = folder.report();
  if (files.empty()) {
    throw Failure(options.file + ": '" + words.front() + "' in table '" + table.name() +
                  "' has no file of which the contents of " + timeText(time) + " are there");
  }
  PayloadsAt payloads(options.file, names.head().key, std::move(files));
  deliver(
      [&](uint64_t offset, std::span<std::byte> buffer) { return payloads.read(offset, buffer); },
      options.file, options.delivery);
  return isAll ? kDone : kFailed;
}

int runAt(const Options& options) {
  const int64_t time = timeOfOption("--at", *options.at);
  if (const auto status = runFolderAt(options, time)) return *status;
  const FoundBlock version = versionAt(options.file, options.table, options.records.front(), time);
  deliverVersion(options.file, options.table, version, options.delivery);
  return kDone;
}

int run(const Options& options) {
  if (options.at) return runAt(options);
  const Database database = openToRead(options.file);
  const Table table = findTable(database, options.table);
  const Chosen chosen = chooseSomeRecords(database, table, options.records);
  for (const Record& record : chosen.records) record.require_sound();
  Payloads payloads(chosen.records, ImportedFiles::keyOf(table));
  deliver(
      [&](uint64_t offset, std::span<std::byte> buffer) { return payloads.read(offset, buffer); },
      options.file, options.delivery);
  return chosen.withoutRecord == 0 ? kDone : kFailed;
}

Action define(Arguments& arguments) {
  const auto options = std::make_shared<Options>();
  defineRecords(arguments, *options);
  defineDelivery(arguments, options->delivery);
  arguments.option("--at", "TIME", options->at,
                   "The payload that one record, or files and folders, had at this time, for as "
                   "long as the file has it: 2024-05-01T12:34:56, 2024-05-01 (UTC) or @SECONDS "
                   "since 1970.");
  return actionOf(options, run);
}

}  // namespace

extern const Command kGetCommand = {
    "get",
    "print the payload of records",
    R"(Writes the payload of a record, byte for byte, to standard output or to a file. On a terminal only
plain text is shown unless --raw is given. The database is only read.

The payloads of several records follow each other, each once, in the order of the arguments; those
of a folder or a pattern in the order of their names. If one of the records is not in the table, or
a pattern matches nothing, nothing is written. In a pattern '*' is any text without '/', '**' any
text, '?' one character, '[a-z]' one of these and '[!a-z]' any other; '\' takes the meaning from the
next character. A pattern is compared with whole names, and a name that exists is that name,
whatever is in it. 'qvdb export' writes all files of a table into a folder, each under its name.

--at shows what there was at a time, also what was deleted, until the file is compacted: one record, or
files, folders and patterns as they were imported until then. Versions are known by the times when
they were written: contents that a change in place has overwritten are lost, and when a record was
deleted is stored only with the names of imported files. A line on standard error says so where it
matters.)",
    R"(qvdb get notes.qvd letters 0x1f5e2d3c4b5a6978
qvdb get notes.qvd letters 0x1f5e2d3c4b5a6978 --output letter.pdf
qvdb get photos.qvd holiday beach/IMG1.jpg | display -
qvdb get site.qvd logs '2024/*.log' | grep error
qvdb get --at 2024-05-01T12:00:00 photos.qvd holiday plan.txt)",
    define,
};

}  // namespace qvdb::tool
