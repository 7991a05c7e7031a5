// qvdb get: prints a record's payload.
#include "command_line/commands.h"
#include "commands/locate.h"
#include "streams/delivery.h"

namespace qvdb::tool {
namespace {

struct Options {
  std::string file;
  std::string table;
  std::string record;
  DeliveryOptions delivery;
};

int run(const Options& options) {
  const Database database = openToRead(options.file);
  const Table table = findTable(database, options.table);
  const Record record = findRecords(database, table, {options.record}).front();
  deliver([&](uint64_t offset, std::span<std::byte> buffer) { return record.read(offset, buffer); },
          options.file, options.delivery);
  return kDone;
}

Action define(Arguments& arguments) {
  const auto options = std::make_shared<Options>();
  arguments.argument("FILE", options->file, kFileHelp);
  arguments.argument("TABLE", options->table, kTableHelp);
  arguments.argument("RECORD", options->record, kRecordHelp);
  defineDelivery(arguments, options->delivery);
  return actionOf(options, run);
}

}  // namespace

extern const Command kGetCommand = {
    "get",
    "print a record's payload",
    R"(Writes the payload of a record, byte for byte, to standard output or to a file. On a terminal only
plain text is shown unless --raw is given. The database is only read.)",
    R"(qvdb get notes.qvd letters 0x1f5e2d3c4b5a6978
qvdb get notes.qvd letters 0x1f5e2d3c4b5a6978 --output letter.pdf
qvdb get photos.qvd holiday beach/IMG1.jpg | display -)",
    define,
};

}  // namespace qvdb::tool
