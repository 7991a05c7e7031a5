// qvdb get: prints the payload of records.
#include "command_line/commands.h"
#include "commands/locate.h"
#include "selection/chosen_records.h"
#include "selection/version_at.h"
#include "streams/delivery.h"
#include "streams/failure.h"
#include "streams/given_time.h"

namespace qvdb::tool {
namespace {

struct Options : RecordOptions {
  DeliveryOptions delivery;
  std::optional<std::string> at;
};

// The payloads one after the other, from the beginning each time that offset 0 is asked for.
class Payloads {
 public:
  explicit Payloads(const std::vector<Record>& records) : records_(records) {}

  size_t read(uint64_t offset, std::span<std::byte> buffer) {
    if (offset == 0) at_ = start_ = 0;
    while (at_ < records_.size()) {
      if (const size_t got = records_[at_].read(offset - start_, buffer)) return got;
      ++at_;
      start_ = offset;
    }
    return 0;
  }

 private:
  const std::vector<Record>& records_;
  size_t at_ = 0;
  uint64_t start_ = 0;  // of the record, in all bytes
};

int runAt(const Options& options) {
  if (options.records.size() > 1) throw wrongUsage("--at takes one record or file");
  const int64_t time = timeOfOption("--at", *options.at);
  const FoundBlock version = versionAt(options.file, options.table, options.records.front(), time);
  deliverVersion(options.file, version, options.delivery);
  return kDone;
}

int run(const Options& options) {
  if (options.at) return runAt(options);
  const Database database = openToRead(options.file);
  const Table table = findTable(database, options.table);
  const Chosen chosen = chooseSomeRecords(database, table, options.records);
  for (const Record& record : chosen.records) record.require_sound();
  Payloads payloads(chosen.records);
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
                   "The payload that one record or file had at this time, for as long as the file "
                   "has it: 2024-05-01T12:34:56, 2024-05-01 (UTC) or @SECONDS since 1970.");
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

--at shows one record as it was at a time, also one that was deleted, until the file is compacted.
Versions are known by the times when they were written: contents that a change in place has
overwritten are lost, and when a record was deleted is not stored. A line on standard error says so
where it matters.)",
    R"(qvdb get notes.qvd letters 0x1f5e2d3c4b5a6978
qvdb get notes.qvd letters 0x1f5e2d3c4b5a6978 --output letter.pdf
qvdb get photos.qvd holiday beach/IMG1.jpg | display -
qvdb get site.qvd logs '2024/*.log' | grep error
qvdb get --at 2024-05-01T12:00:00 photos.qvd holiday plan.txt)",
    define,
};

}  // namespace qvdb::tool
