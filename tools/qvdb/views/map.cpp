// qvdb map: what the bytes of a file are, as a strip of cells.
#include <nlohmann/json.hpp>

#include <algorithm>
#include <array>
#include <cstdlib>

#include "command_line/commands.h"
#include "commands/locate.h"
#include "streams/interrupt.h"
#include "streams/output.h"
#include "streams/text.h"

namespace qvdb::tool {
namespace {

struct Options {
  std::string file;
  std::optional<uint64_t> cells;
  bool extents = false;
  bool json = false;
};

constexpr uint64_t kCells = 1024;
constexpr uint64_t kMostCells = 1'000'000;
constexpr size_t kCellsInALine = 64;

// What a cell can show, in the order in which the legend lists it.
enum Part : size_t {
  kDirectory,
  kLive,
  kReserve,
  kTableData,
  kSuperseded,
  kDeleted,
  kIntents,
  kDamage
};
struct Look {
  char letter;
  const char* colour;  // of the terminal: the background of a cell
  const char* name;
};
constexpr Look kLooks[] = {
    {'D', "\x1b[44m", "directory"},  {'#', "\x1b[42m", "live records"},
    {'+', "\x1b[46m", "reserve"},    {'T', "\x1b[45m", "table data"},
    {'s', "\x1b[43m", "superseded"}, {'x', "\x1b[100m", "deleted"},
    {'i', "\x1b[104m", "intents"},   {'!', "\x1b[41m", "damage"},
};
constexpr const char* kPlain = "\x1b[0m";
using Bytes = std::array<uint64_t, std::size(kLooks)>;

Part partOf(ExtentUse use) {
  switch (use) {
    case ExtentUse::directory:
      return kDirectory;
    case ExtentUse::record:
      return kLive;
    case ExtentUse::table_data:
      return kTableData;
    case ExtentUse::superseded:
      return kSuperseded;
    case ExtentUse::deleted:
      return kDeleted;
    case ExtentUse::intent:
      return kIntents;
    default:
      return kDamage;
  }
}

// The file in cells of the same size.
class Strip {
 public:
  Strip(uint64_t fileSize, uint64_t cells)
      : cellSize_(std::max<uint64_t>(1, (fileSize + cells - 1) / cells)),
        cells_(static_cast<size_t>((fileSize + cellSize_ - 1) / cellSize_)) {}

  void add(const Extent& extent) {
    const auto offset = static_cast<uint64_t>(extent.offset);
    const auto size = static_cast<uint64_t>(extent.size);
    const auto reserve = static_cast<uint64_t>(extent.reserve);
    add(partOf(extent.use), offset, size - reserve);
    add(kReserve, offset + size - reserve, reserve);
  }

  uint64_t cellSize() const { return cellSize_; }
  const Bytes& sums() const { return sums_; }
  size_t count() const { return cells_.size(); }

  // What most of the cell's bytes are; damage, where there is any.
  Part partAt(size_t cell) const {
    const Bytes& bytes = cells_[cell];
    if (bytes[kDamage] != 0) return kDamage;
    return static_cast<Part>(std::max_element(bytes.begin(), bytes.end()) - bytes.begin());
  }

 private:
  // The file can have become longer since it was measured.
  void add(Part part, uint64_t offset, uint64_t size) {
    sums_[part] += size;
    for (size_t cell = static_cast<size_t>(offset / cellSize_); size > 0 && cell < cells_.size();
         ++cell) {
      const uint64_t count = std::min(size, (cell + 1) * cellSize_ - offset);
      cells_[cell][part] += count;
      offset += count;
      size -= count;
    }
  }

  uint64_t cellSize_;
  std::vector<Bytes> cells_;
  Bytes sums_ = {};
};

// As no-color.org has it: any value but an empty one.
bool hasColours() {
  const char* none = std::getenv("NO_COLOR");
  const char* terminal = std::getenv("TERM");
  return outputIsTerminal() && (none == nullptr || *none == 0) &&
         (terminal == nullptr || std::string_view(terminal) != "dumb");
}

std::string cellText(Part part, bool isColoured) {
  const Look& look = kLooks[part];
  return isColoured ? std::string(look.colour) + ' ' : std::string(1, look.letter);
}

void printStrip(const Strip& strip, bool isColoured) {
  for (size_t from = 0; from < strip.count(); from += kCellsInALine) {
    std::string line = column(std::to_string(from * strip.cellSize()), 14) + "  ";
    const size_t end = std::min(from + kCellsInALine, strip.count());
    for (size_t cell = from; cell < end; ++cell) line += cellText(strip.partAt(cell), isColoured);
    printLine(isColoured ? line + kPlain : line);
  }
}

// "12.3": tenths of a percent, rounded down, so that only all of a file is 100.
std::string percent(uint64_t part, uint64_t whole) {
  const auto tenths = static_cast<uint64_t>(
      whole == 0 ? 0 : static_cast<long double>(part) * 1000 / static_cast<long double>(whole));
  return std::to_string(tenths / 10) + "." + std::to_string(tenths % 10);
}

void printLegend(const Strip& strip, uint64_t fileSize, bool isColoured) {
  for (size_t part = 0; part < std::size(kLooks); ++part) {
    const uint64_t bytes = strip.sums()[part];
    if (bytes == 0) continue;
    std::string line = "  " + cellText(static_cast<Part>(part), isColoured);
    if (isColoured) line += kPlain;
    std::string name = kLooks[part].name;
    name.resize(14, ' ');
    printLine(line + "  " + name + column(std::to_string(bytes), 16) + " bytes" +
              column(percent(bytes, fileSize), 7) + " %");
  }
}

void complainOfWriter(const Options& options, const ExtentsReport& report) {
  if (!report.in_use) return;
  complain(options.file + ": " + to_string(report.writer) +
           "; what looks like damage can be work in progress");
}

void showStrip(const Options& options) {
  std::vector<Extent> extents;
  const ExtentsReport report =
      visit_extents(options.file, [&](const Extent& extent) { extents.push_back(extent); });
  const auto size = static_cast<uint64_t>(report.file_size);
  Strip strip(size, options.cells.value_or(kCells));
  for (const Extent& extent : extents) strip.add(extent);
  const bool isColoured = hasColours();
  printLine("file     " + escaped(options.file) + ", " + counted(size, "byte", "bytes"));
  printLine("a cell   " + counted(strip.cellSize(), "byte", "bytes"));
  printLine("");
  printStrip(strip, isColoured);
  printLine("");
  printLegend(strip, size, isColoured);
  complainOfWriter(options, report);
}

void showExtents(const Options& options) {
  const ExtentsReport report = visit_extents(options.file, [](const Extent& extent) {
    std::string use(to_string(extent.use));
    use.resize(10, ' ');
    std::string line = column(std::to_string(extent.offset), 14) +
                       column(std::to_string(extent.size), 14) + "  " + use;
    if (extent.table.value != 0) line += "  " + to_string(extent.table);
    if (extent.record.value != 0) line += "  " + to_string(extent.record);
    printLine(line);
  });
  complainOfWriter(options, report);
}

Json jsonOf(const Extent& extent) {
  Json json;
  json["offset"] = extent.offset;
  json["size"] = extent.size;
  json["use"] = to_string(extent.use);
  if (extent.table.value == 0) return json;
  json["is_table_data"] = extent.is_table_data;
  json["table_id"] = to_string(extent.table);
  if (!extent.is_table_data) json["record"] = to_string(extent.record);
  json["reserve"] = extent.reserve;
  return json;
}

int showJson(const Options& options) {
  Json head;
  addText(&head, "file", options.file);
  std::optional<JsonArrayWriter> writer;
  const ExtentsReport report = visit_extents(options.file, [&](const Extent& extent) {
    if (!writer) writer.emplace(head, "extents");
    writer->add(jsonOf(extent));
  });
  if (!writer) writer.emplace(head, "extents");
  writer->finish();
  complainOfWriter(options, report);
  return kDone;
}

int run(const Options& options) {
  if (options.cells && (*options.cells == 0 || *options.cells > kMostCells)) {
    throw wrongUsage("--cells: write a number from 1 to 1000000");
  }
  const EndsAtOnce atOnce;
  if (options.json) return showJson(options);
  options.extents ? showExtents(options) : showStrip(options);
  return kDone;
}

Action define(Arguments& arguments) {
  const auto options = std::make_shared<Options>();
  arguments.argument("FILE", options->file, kFileHelp);
  arguments.option("--cells", "NUMBER", options->cells,
                   "Divide the file into at most so many cells; 1024 unless given.");
  arguments.flag("--extents", options->extents,
                 "List the parts instead: offset, size, use, table and record.");
  arguments.json(options->json);
  return actionOf(options, run);
}

}  // namespace

extern const Command kMapCommand = {
    "map",
    "show what the bytes of a file are",
    R"(Divides the file into cells of one size and shows for each what most of its bytes are: the
directory, live records, their reserve (capacity that no payload uses), table data, superseded
(older versions), deleted, intents (of transactions), or damage (blocks that no chain leads to, torn ones, and bytes that are no
block). A cell with any damage shows the damage. On a terminal cells are coloured, unless NO_COLOR
is set; elsewhere they are letters. Then come the sums, of all bytes of the file.

With --json every part of the file is listed with offset, size and use. The file is only read, and
may be damaged; 'qvdb check' says what the damage is, 'qvdb hexdump' shows the bytes.)",
    R"(qvdb map notes.qvd
qvdb map --cells 64 notes.qvd
qvdb map --extents notes.qvd | tail)",
    define,
};

}  // namespace qvdb::tool
