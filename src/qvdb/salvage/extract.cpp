// Payload files are named by where their block stands in the source, which is the one thing that is
// surely different for each.
#include "qvdb/salvage/extract.h"

#include <qvdbase/qvdb/error.hpp>

#include <algorithm>
#include <fstream>

namespace qvdbase::salvage {
namespace {

constexpr size_t kPiece = size_t{1} << 20;
constexpr const char* kOperation = "extract payloads";

[[noreturn]] void fail(const std::filesystem::path& path) {
  throw qvdb::Error(kOperation, qvdb::Reason::cannot_write,
                    path.native() + ": cannot " + kOperation + ": it cannot be written");
}

// FNV-1a, 64 bits: enough to see that a payload file was changed.
class Hash {
 public:
  void add(const char* bytes, size_t count) {
    for (size_t i = 0; i < count; ++i) {
      value_ = (value_ ^ static_cast<unsigned char>(bytes[i])) * 0x100000001B3u;
    }
  }
  std::string text() const { return qvdb::to_string(qvdb::Id{value_}).substr(2); }

 private:
  uint64_t value_ = 0xCBF29CE484222325u;
};

// Names in files may hold any bytes: what is not plain ASCII is escaped byte by byte, so that the
// line is JSON whatever the name is.
std::string quoted(const std::string& text) {
  static constexpr char kDigits[] = "0123456789abcdef";
  std::string result = "\"";
  for (const char each : text) {
    const auto byte = static_cast<unsigned char>(each);
    if (byte < 0x20 || byte >= 0x7F) {
      result += "\\u00";
      result += kDigits[byte >> 4];
      result += kDigits[byte & 15];
    } else {
      if (each == '"' || each == '\\') result += '\\';
      result += each;
    }
  }
  return result + "\"";
}

std::string line(const qvdb::FoundBlock& found, const std::string& file, const std::string& hash) {
  static constexpr const char* kGrades[] = {"A", "B", "C"};
  const std::string number = std::to_string(found.offset);
  std::string text = "{\"file\":" + quoted(file) + ",\"offset\":" + number + ",\"kind\":\"" +
                     (found.is_table_data ? "table data" : "record") + "\",\"grade\":\"" +
                     kGrades[static_cast<int>(found.grade)] + "\",\"label\":\"" +
                     std::string(qvdb::to_string(found.label)) + "\",\"table\":\"" +
                     qvdb::to_string(found.table) + "\",\"name\":" + quoted(found.table_name) +
                     ",\"written_to\":" + quoted(found.written_to);
  if (!found.is_table_data) {
    text += ",\"record\":\"" + qvdb::to_string(found.record) +
            "\",\"created\":" + std::to_string(found.create_time) +
            ",\"modified\":" + std::to_string(found.modify_time);
  }
  return text + ",\"length\":" + std::to_string(found.length) +
         ",\"there\":" + std::to_string(found.there) + ",\"fnv1a64\":\"" + hash + "\"}\n";
}

std::string extractOne(const raw::ByteSource& source, const raw::Block& block,
                       const std::filesystem::path& path) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  std::vector<char> piece(kPiece);
  Hash hash;
  const int64_t there = block.dataThere();
  for (int64_t done = 0; done < there;) {
    const auto want = static_cast<size_t>(std::min<int64_t>(there - done, kPiece));
    const size_t held = source.readAt(block.dataPos() + done, piece.data(), want);
    std::fill(piece.begin() + static_cast<std::ptrdiff_t>(held), piece.end(), '\0');
    out.write(piece.data(), static_cast<std::streamsize>(want));
    hash.add(piece.data(), want);
    done += static_cast<int64_t>(want);
  }
  if (!out.flush()) fail(path);
  return hash.text();
}

}  // namespace

void extractPayloads(const raw::ByteSource& source, const raw::Survey& survey, const Plan& plan,
                     const std::filesystem::path& folder) {
  std::error_code error;
  std::filesystem::create_directories(folder, error);
  std::ofstream manifest(folder / "manifest.jsonl", std::ios::binary | std::ios::trunc);
  if (error || !manifest) fail(folder);
  for (const uint32_t number : raw::blocksInFileOrder(survey)) {
    const int place = plan.destination[number];
    if (place < 0) continue;
    qvdb::FoundBlock found = describe(survey, number);
    found.written_to = plan.tables[static_cast<size_t>(place)].name();
    const std::string file = std::to_string(found.offset) + ".bin";
    manifest << line(found, file, extractOne(source, survey.blocks[number], folder / file));
  }
  if (!manifest.flush()) fail(folder / "manifest.jsonl");
}

}  // namespace qvdbase::salvage
