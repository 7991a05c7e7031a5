// qvdb hexdump: the bytes of one structure of a file, with the names of its fields.
#include <nlohmann/json.hpp>

#include <algorithm>

#include "command_line/commands.h"
#include "commands/locate.h"
#include "format/intent.h"
#include "format/layout.h"
#include "streams/interrupt.h"
#include "streams/output.h"
#include "streams/text.h"
#include "views/field_list.h"
#include "views/raw_file.h"

using namespace qvdbase::format;

namespace qvdb::tool {
namespace {

struct Options {
  std::string file;
  std::string offset;
  std::optional<uint64_t> length;
  bool json = false;
};

constexpr int64_t kBytesInALine = 16;
constexpr uint64_t kBytesShown = 256;  // of payloads, and of bytes that are no block
constexpr size_t kNameWidth = sizeof "lastWrittenRecordPos  " - 1;  // the longest name
constexpr uint64_t kMostShown = 1 << 24;

// One field: its bytes, as far as the file has them, and what they mean.
struct Entry {
  int64_t offset;
  std::string bytes;
  std::string name;
  std::string value;
  bool isText;  // the bytes are shown as characters, too
};

uint64_t numberOf(std::string_view bytes, bool isLittleEndian) {
  uint64_t number = 0;
  for (size_t i = 0; i < bytes.size() && i < 8; ++i) {
    const size_t at = isLittleEndian ? bytes.size() - 1 - i : i;
    number = number << 8 | static_cast<unsigned char>(bytes[at]);
  }
  return number;
}

// Eight bytes, and their sum in two.
bool isSumRight(std::string_view identifier) {
  uint64_t sum = 0;
  for (const char c : identifier.substr(0, kIdentitySize)) sum += static_cast<unsigned char>(c);
  return sum == numberOf(identifier.substr(kIdentitySize), false);
}

bool hasBytes(std::string_view bytes, std::span<const unsigned char> wanted) {
  return std::ranges::equal(bytes, wanted, {},
                            [](char c) { return static_cast<unsigned char>(c); });
}

// What an entry of an intent says of its place; null for what is no kind.
const char* wordFor(EntryKind kind) {
  switch (kind) {
    case EntryKind::patch:
    case EntryKind::backLink:
      return "changes";
    case EntryKind::guard:
      return "requires";
    case EntryKind::guardByHash:
      return "requires by hash";
  }
  return nullptr;
}

// The bytes of its values: those before, and of a change those after, or the hash.
int64_t valuesOf(EntryKind kind, int64_t length) {
  constexpr int64_t kHashSize = 8;
  if (kind == EntryKind::guardByHash) return length + kHashSize;
  return isPatch(kind) ? 2 * length : length;
}

class Dump {
 public:
  Dump(const Options& options, int64_t offset)
      : options_(options), wanted_(offset), file_(options.file) {
    const EndsAtOnce atOnce;
    const ExtentsReport report =
        visit_extents(options.file, [&](const Extent& each) { extents_.push_back(each); });
    if (offset >= report.file_size) {
      throw Failure(options.file + ": has " +
                    counted(static_cast<uint64_t>(report.file_size), "byte", "bytes") +
                    ", and none at " + std::to_string(offset));
    }
    const Extent& extent = extentAt(offset);
    end_ = extent.offset + extent.size;
    if (extent.use == ExtentUse::directory) {
      offset < kDirectoryPos ? addHeader() : addSlot();
    } else {
      addBlock(extent);
    }
  }

  void print() const {
    printLine(title_);
    for (const Entry& entry : entries_) printEntry(entry);
    if (!rest_.empty()) printLine(rest_);
  }

  Json json() const {
    Json json;
    addText(&json, "file", options_.file);
    json["offset"] = wanted_;
    json["structure"] = title_;
    json["fields"] = Json::array();
    for (const Entry& entry : entries_) {
      Json field;
      field["offset"] = entry.offset;
      field["name"] = entry.name;
      field["bytes"] = hexDigits(entry.bytes);
      if (!entry.value.empty()) field["value"] = entry.value;
      json["fields"].push_back(field);
    }
    return json;
  }

 private:
  // The one that has the byte; there are no gaps between them.
  const Extent& extentAt(int64_t offset) const {
    const auto after =
        std::upper_bound(extents_.begin(), extents_.end(), offset,
                         [](int64_t at, const Extent& each) { return at < each.offset; });
    return *(after - 1);
  }

  void addHeader() {
    title_ = "header";
    end_ = std::min(end_, kDirectoryPos);
    addFields(0, headerFields(), false);
  }

  // Slots are as far apart as the header says.
  void addSlot() {
    const int64_t said = static_cast<int64_t>(numberOf(file_.read(kSlotSizePos, 2), false));
    const int64_t size = said > 0 ? said : kSlotImageSize;
    const int64_t index = (wanted_ - kDirectoryPos) / size;
    const int64_t begin = slotPosition(index, size);
    title_ = "slot " + std::to_string(index) + " of the directory";
    end_ = std::min(end_, begin + size);
    for (const Field& field : slotFields()) addSlotField(begin, field);
    addBytes("filler", begin + kSlotImageSize, end_);
  }

  // In the place of three fields of the last slot is the pending word, unless it is zero.
  void addSlotField(int64_t begin, const Field& field) {
    const int64_t place = begin + field.offset - pending::kPosition;
    const bool isInWord = place >= 0 && place < pending::kSize;
    if (!isInWord || numberOf(file_.read(pending::kPosition, 8), true) == 0) {
      return addField(begin + field.offset, field, true);
    }
    if (place != 0) return;
    title_ += ", with the pending word of transactions";
    addFields(pending::kPosition, pendingWordFields(), true);
  }

  // A block that overlaps another may be there in part only; then its first bytes are not here.
  void addBlock(const Extent& extent) {
    const std::string start = file_.read(extent.offset, 1);
    const uint8_t mark = start.empty() ? uint8_t{0} : static_cast<uint8_t>(start[0]);
    const bool isRecord = mark == kRecordMark && !extent.is_table_data;
    const bool isData = mark == kTableDataMark && (extent.is_table_data || extent.table.value == 0);
    title_ = std::string(to_string(extent.use));
    if (!isRecord && !isData) {
      title_ += ": " + counted(static_cast<uint64_t>(extent.size), "byte", "bytes") + " at " +
                std::to_string(extent.offset) + " that are no whole block";
      return addBytes("", std::min(extent.offset, wanted_), end_);
    }
    title_ = (isRecord ? "record block at " : "table-data block at ") +
             std::to_string(extent.offset) + ": " + title_;
    const auto fields = isRecord ? recordFields() : tableDataFields();
    addFields(extent.offset, fields, false);
    const int64_t data = extent.offset + fields.back().offset + fields.back().size;
    const auto length = static_cast<int64_t>(lastNumbers_[0]);
    const auto capacity = static_cast<int64_t>(lastNumbers_[1]);
    const int64_t end = data + std::min(length, capacity);
    if (extent.use != ExtentUse::intent || !addIntent(data, end)) addBytes("data", data, end);
    addBytes("fill", data + std::min(length, capacity), data + capacity);
    addField(data + capacity, {"blockEndMark", 0, 1, FieldKind::mark}, false);
    addBytes("", data + capacity + 1, end_);
  }

  // The payload of an intent, or of a prelude to one. False where it is neither.
  bool addIntent(int64_t begin, int64_t end) {
    const std::string magic = file_.read(begin, sizeof kIntentMagic);
    if (hasBytes(magic, kPreludeMagic)) {
      addFields(begin, preludeFields(), false);
      addBytes("data", begin + prelude::kSize, end);
      return true;
    }
    if (!hasBytes(magic, kIntentMagic)) return false;
    addFields(begin, intentFields(), false);
    addEntries(begin + intent::kEntries, end);
    return true;
  }

  // Those from the wanted byte on; of many the first ones. Bytes that are no entry end them.
  void addEntries(int64_t begin, int64_t end) {
    end = std::min(end, end_);
    int64_t left = static_cast<int64_t>(options_.length.value_or(kBytesShown));
    int64_t at = begin;
    for (int64_t size = 0; at < end; at += size) {
      const std::string head = file_.read(at, std::min<int64_t>(intent::kEntryValues, end - at));
      const auto numberIn = [&](int from, size_t count) {
        return numberOf(std::string_view(head).substr(static_cast<size_t>(from), count), false);
      };
      if (head.size() < intent::kEntryValues) break;
      const auto kind = static_cast<EntryKind>(numberIn(intent::kEntryKind, 1));
      const auto length = static_cast<int64_t>(numberIn(intent::kEntryLength, 2));
      size = intent::kEntryValues + valuesOf(kind, length);
      if (size > end - at || wordFor(kind) == nullptr) break;
      if (wanted_ >= at + size) continue;
      if (left <= 0) {
        rest_ = "(--length shows more)";
        return;
      }
      left -= size;
      const std::string value = "slot " + std::to_string(numberIn(intent::kEntrySlot, 1)) + ", " +
                                wordFor(kind) + " " + std::to_string(length) + " bytes at " +
                                std::to_string(numberIn(intent::kEntryPosition, 8));
      entries_.push_back({at, file_.read(at, size), "entry", value, false});
    }
    addBytes("data", at, end);
  }

  void addFields(int64_t begin, std::span<const Field> fields, bool isLittleEndian) {
    for (const Field& field : fields) addField(begin + field.offset, field, isLittleEndian);
  }

  void addField(int64_t offset, const Field& field, bool isLittleEndian) {
    const std::string bytes = file_.read(offset, std::min(field.size, end_ - offset));
    if (bytes.empty()) return;
    const uint64_t number = numberOf(bytes, isLittleEndian);
    lastNumbers_[0] = lastNumbers_[1];
    lastNumbers_[1] = number;
    const bool isWhole = static_cast<int64_t>(bytes.size()) == field.size;
    const std::string value = isWhole ? valueOf(field, bytes, number) : "cut off";
    entries_.push_back({offset, bytes, field.name, value, field.kind == FieldKind::text});
  }

  std::string valueOf(const Field& field, const std::string& bytes, uint64_t number) const {
    switch (field.kind) {
      case FieldKind::number:
        return std::to_string(number);
      case FieldKind::count:
        return std::to_string(static_cast<int16_t>(number));
      case FieldKind::identifier:
        return to_string(Id{numberOf(bytes.substr(0, kIdentitySize), false)}) +
               (isSumRight(bytes) ? "" : ", with a wrong sum");
      case FieldKind::time:
        return timeText(static_cast<int64_t>(number));
      case FieldKind::position:
        return std::to_string(static_cast<int64_t>(number)) + ", " + placeAt(number);
      case FieldKind::text:
        return escaped(std::string_view(bytes).substr(0, bytes.find_last_not_of('\0') + 1));
      case FieldKind::mark:
        return std::to_string(number);
      case FieldKind::bytes:
      case FieldKind::filler:
        break;
    }
    return {};
  }

  // Where a link leads.
  std::string placeAt(uint64_t number) const {
    if (number == 0) return "none";
    const auto position = static_cast<int64_t>(number);
    const int64_t size = extents_.back().offset + extents_.back().size;
    if (position < 0 || position >= size) return "outside of the file";
    const Extent& extent = extentAt(position);
    if (extent.offset != position || extent.table.value == 0) return "where no block begins";
    const std::string use(to_string(extent.use));
    return extent.is_table_data ? "table data, " + use : use + " " + to_string(extent.record);
  }

  // Bytes without fields, from the line on that has the wanted byte; of a long run its beginning.
  void addBytes(const char* name, int64_t begin, int64_t end) {
    end = std::min(end, end_);
    if (begin >= end) return;
    int64_t from = begin;
    if (wanted_ > begin && wanted_ < end) {
      from += (wanted_ - begin) / kBytesInALine * kBytesInALine;
    }
    const auto most = static_cast<int64_t>(options_.length.value_or(kBytesShown));
    const int64_t count = std::min(end - from, most);
    std::string value;
    if (count < end - begin) {
      value = std::to_string(count) + " of " + std::to_string(end - begin) + " bytes, from byte " +
              std::to_string(from - begin) + " on";
      rest_ = "(--length shows more)";
    }
    entries_.push_back({from, file_.read(from, count), name, value, true});
  }

  static std::string characters(std::string_view bytes) {
    std::string text = "|";
    for (const char c : bytes) text += c >= ' ' && c <= '~' ? c : '.';
    return text + "|";
  }

  void printEntry(const Entry& entry) const {
    std::string name = entry.name;
    name.resize(kNameWidth, ' ');
    std::string remark = name + entry.value;
    const auto size = static_cast<int64_t>(entry.bytes.size());
    for (int64_t from = 0; from < size || from == 0; from += kBytesInALine) {
      const std::string_view bytes =
          std::string_view(entry.bytes).substr(static_cast<size_t>(from), kBytesInALine);
      const int64_t offset = entry.offset + from;
      const bool isWanted =
          wanted_ >= offset && wanted_ < offset + static_cast<int64_t>(bytes.size());
      std::string line = column(std::to_string(offset), 12) + (isWanted ? " >" : "  ");
      line += hexDigits(bytes, " ");
      line.append(3 * (static_cast<size_t>(kBytesInALine) - bytes.size()), ' ');
      std::string shown = entry.isText ? characters(bytes) : std::string();
      if (entry.isText) shown.resize(static_cast<size_t>(kBytesInALine) + 2, ' ');
      line += "  " + shown + (entry.isText ? "  " : "") + remark;
      line.erase(line.find_last_not_of(' ') + 1);
      printLine(line);
      remark.clear();
    }
  }

  const Options& options_;
  int64_t wanted_;
  RawFile file_;
  std::vector<Extent> extents_;
  int64_t end_ = 0;  // of the structure
  std::string title_;
  std::vector<Entry> entries_;
  std::string rest_;
  uint64_t lastNumbers_[2] = {};  // of the last two fields: of a block its lengths
};

int run(const Options& options) {
  const auto offset = parse_id(options.offset);
  if (!offset || offset->value > static_cast<uint64_t>(INT64_MAX)) {
    throw wrongUsage("'" + options.offset +
                     "' is no offset: write a decimal number, or 0x and hexadecimal digits");
  }
  if (options.length && (*options.length == 0 || *options.length > kMostShown)) {
    throw wrongUsage("--length: write a number from 1 to " + std::to_string(kMostShown));
  }
  const Dump dump(options, static_cast<int64_t>(offset->value));
  options.json ? printJson(dump.json()) : dump.print();
  return kDone;
}

Action define(Arguments& arguments) {
  const auto options = std::make_shared<Options>();
  arguments.argument("FILE", options->file, kFileHelp);
  arguments.argument("OFFSET", options->offset,
                     "A byte of the file: a decimal number, or 0x and hexadecimal digits.");
  arguments.option("--length", "NUMBER", options->length,
                   "Show so many bytes of a payload; 256 unless given.");
  arguments.json(options->json);
  return actionOf(options, run);
}

}  // namespace

extern const Command kHexdumpCommand = {
    "hexdump",
    "show the bytes of a structure, with the names of its fields",
    R"(Shows the structure that has the byte at OFFSET: the header, a slot of the directory, a record
block or a table-data block; or bytes that are no block. Each field has a line with its offset, its
bytes, its name in the description of the format, and its value. Links say where they lead. The line
that has the byte is marked with '>'.

'qvdb map --extents' lists where blocks begin, and 'qvdb check' names offsets. The file is only read,
and may be damaged in any way.)",
    R"(qvdb hexdump notes.qvd 0
qvdb hexdump notes.qvd 5000
qvdb hexdump --length 4096 notes.qvd 0x1216)",
    define,
};

}  // namespace qvdb::tool
