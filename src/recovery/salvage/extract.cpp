// A payload file is named after the position of its block in the source: of all that is known of a
// block, only that is sure to differ. No file is replaced. One of that name may be the source
// itself, which an earlier salvage has extracted.
#include "recovery/salvage/extract.h"

#include <qvdbase/qvdb/error.hpp>

#include <algorithm>
#include <string>
#include <string_view>

#include "platform/paths/utf8_names.h"
#include "products/buffered_output.h"
#include "products/target_file.h"
#include "recovery/salvage/payload_reader.h"
#include "recovery/survey/words.h"

using namespace qvdbase::survey;

namespace qvdbase::salvage {
namespace {

namespace fs = std::filesystem;

constexpr const char* kOperation = "extract payloads";
constexpr const char* kManifest = "manifest.jsonl";

std::string nameOf(const Block& block) {
  return std::to_string(block.position) + ".bin";
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

std::string escapedUnit(uint16_t unit) {
  return "\\u" + hexDigits(static_cast<unsigned char>(unit >> 8)) +
         hexDigits(static_cast<unsigned char>(unit));
}

std::string hexOf(const std::string& bytes) {
  std::string text;
  for (const char each : bytes) text += hexDigits(static_cast<unsigned char>(each));
  return text;
}

// Adds the UTF-8 character with which `text` begins, escaped. Returns how many bytes it has; 0 when
// these bytes are no character.
size_t addCharacter(std::string_view text, std::string* json) {
  for (size_t count = 2; count <= std::min<size_t>(text.size(), 4); ++count) {
    QVWCHAR units[3] = {};
    if (!platform::utf16FromUtf8(text.data(), count, units, 3)) continue;
    for (const QVWCHAR* unit = units; *unit != 0; ++unit) *json += escapedUnit(*unit);
    return count;
  }
  return 0;
}

// The text as a string of JSON in plain ASCII. Names in files may hold any bytes: those that are
// not UTF-8 become replacement characters, and *isUtf8 becomes false.
std::string quoted(const std::string& text, bool* isUtf8) {
  std::string json = "\"";
  for (size_t i = 0; i < text.size();) {
    const auto byte = static_cast<unsigned char>(text[i]);
    if (byte >= 0x80) {
      const size_t count = addCharacter(std::string_view(text).substr(i), &json);
      if (count == 0) json += escapedUnit(0xFFFD);
      *isUtf8 = *isUtf8 && count > 0;
      i += std::max<size_t>(count, 1);
      continue;
    }
    ++i;
    if (byte == '"' || byte == '\\') json += '\\';
    json += byte < 0x20 || byte == 0x7F ? escapedUnit(byte) : std::string(1, text[i - 1]);
  }
  return json + '"';
}

// A member with the text, and where the text is not UTF-8, another one with its bytes.
std::string textMember(const char* key, const std::string& text) {
  bool isUtf8 = true;
  const std::string member = std::string(",\"") + key + "\":" + quoted(text, &isUtf8);
  return isUtf8 ? member : member + ",\"" + key + "_bytes\":\"" + hexOf(text) + "\"";
}

// The line of a block in the manifest. Of its payload, `unreadable` bytes were written as zeros.
std::string line(const qvdb::FoundBlock& found, const std::string& file, const std::string& hash,
                 uint64_t unreadable) {
  static constexpr const char* kGrades[] = {"A", "B", "C"};
  std::string record;
  if (!found.is_table_data) {
    record = joined(",\"record\":\"", qvdb::to_string(found.record),
                    "\",\"created\":", found.create_time, ",\"modified\":", found.modify_time);
  }
  return joined("{\"file\":\"", file, "\",\"offset\":", found.offset, ",\"kind\":\"",
                found.is_table_data ? "table data" : "record", "\",\"grade\":\"",
                kGrades[static_cast<int>(found.grade)], "\",\"label\":\"",
                qvdb::to_string(found.label), "\",\"table\":\"", qvdb::to_string(found.table), "\"",
                textMember("name", found.table_name), textMember("written_to", found.written_to),
                record, ",\"length\":", found.length, ",\"there\":", found.there, ",\"fnv1a64\":\"",
                hash, "\",\"unreadable\":", unreadable, "}\n");
}

}  // namespace

// A file that was not there before.
class Extraction::Output {
 public:
  Output(const fs::path& path, const std::optional<platform::FileAccess>& access)
      : target_(path, kOperation, {.ifTaken = qvdb::Remedy::other_folder}) {
    target_.create(access ? &*access : nullptr);
  }

  void write(const char* bytes, size_t count) { bytes_.write(bytes, count); }
  void finish() {
    bytes_.flush();
    target_.place();
  }

 private:
  products::TargetFile target_;
  products::BufferedOutput bytes_{target_};
};

Extraction::Extraction(const Job& job, const Plan& plan)
    : job_(job), plan_(plan), folder_(job.options.extract_to) {
  if (job.access != nullptr) {
    access_ = *job.access;
    access_->attributes.clear();  // what users attached is about the database
  }
  for (const uint32_t number : blocksInFileOrder(job.survey)) {
    if (plan.destination[number] >= 0) blocks_.push_back(number);
  }
  if (!isTaken(folder_.path())) return;
  folder_.requireFree(kManifest, kOperation);
  for (const uint32_t number : blocks_) {
    folder_.requireFree(nameOf(job.survey.blocks[number]), kOperation);
  }
}

void Extraction::write() {
  folder_.make(kOperation, job_.options.create_folders, qvdb::Reason::cannot_write);
  Output manifest(folder_.fileNamed(kManifest), access_);
  PayloadReader payloads(job_.source);
  for (const uint32_t number : blocks_) {
    const Block& block = job_.survey.blocks[number];
    const std::string file = nameOf(block);
    Output output(folder_.fileNamed(file), access_);
    Hash hash;
    const uint64_t unreadable = payloads.read(block, [&](const char* bytes, size_t count) {
      output.write(bytes, count);
      hash.add(bytes, count);
    });
    output.finish();
    folder_.add(file);
    qvdb::FoundBlock found = describe(job_.survey, number);
    found.written_to = plan_.tables[static_cast<size_t>(plan_.destination[number])].name();
    const std::string text = line(found, file, hash.text(), unreadable);
    manifest.write(text.data(), text.size());
  }
  manifest.finish();
  folder_.add(kManifest);
}

}  // namespace qvdbase::salvage
