// Payload files are named by the position of their block in the source, which is the one thing that
// surely differs between them. Nothing is written over: the source may be a file of that name, from
// an earlier salvage.
#include "recovery/salvage/extract.h"

#include <qvdbase/qvdb/error.hpp>

#include <cstdio>

#include "failure/failure.h"
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

void refuseWhatIsThere(const fs::path& path) {
  if (isTaken(path)) failure::throwError(path, kOperation, qvdb::Reason::file_exists);
}

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

// What was written of a payload.
struct Content {
  std::string hash;         // of all of it
  uint64_t unreadable = 0;  // bytes that zeros replace
};

// Names in files may hold any bytes: what is not plain ASCII is escaped byte by byte, so that the
// line is JSON whatever the name is.
std::string quoted(const std::string& text) {
  return survey::quoted(text, '"', "\\u00", true);
}

std::string line(const qvdb::FoundBlock& found, const std::string& file, const Content& content) {
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
         ",\"there\":" + std::to_string(found.there) + ",\"fnv1a64\":\"" + content.hash +
         "\",\"unreadable\":" + std::to_string(content.unreadable) + "}\n";
}

}  // namespace

// A file that was not there before.
class Extraction::Output {
 public:
  Output(const fs::path& path, const std::optional<platform::FileAccess>& access)
      : target_(path, kOperation, {}) {
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

Extraction::Extraction(const Survey& survey, const Plan& plan, const qvdb::SalvageOptions& options,
                       const platform::FileAccess* access)
    : survey_(survey),
      plan_(plan),
      makesParents_(options.create_folders),
      folder_(options.extract_to) {
  if (access != nullptr) {
    access_ = *access;
    access_->attributes.clear();  // what users attached is about the database
  }
  for (const uint32_t number : blocksInFileOrder(survey)) {
    if (plan.destination[number] >= 0) blocks_.push_back(number);
  }
  if (!isTaken(folder_.path())) return;
  refuseWhatIsThere(folder_.fileNamed(kManifest));
  for (const uint32_t number : blocks_) {
    refuseWhatIsThere(folder_.fileNamed(nameOf(survey.blocks[number])));
  }
}

void Extraction::write(const ByteSource& source) {
  folder_.make(kOperation, makesParents_, qvdb::Reason::cannot_write);
  Output manifest(folder_.fileNamed(kManifest), access_);
  PayloadReader payloads(source);
  for (const uint32_t number : blocks_) {
    const std::string file = nameOf(survey_.blocks[number]);
    Output output(folder_.fileNamed(file), access_);
    Hash hash;
    Content content;
    content.unreadable =
        payloads.read(survey_.blocks[number], [&](const char* bytes, size_t count) {
          output.write(bytes, count);
          hash.add(bytes, count);
        });
    output.finish();
    folder_.add(file);
    content.hash = hash.text();
    qvdb::FoundBlock found = describe(survey_, number);
    found.written_to = plan_.tables[static_cast<size_t>(plan_.destination[number])].name();
    const std::string text = line(found, file, content);
    manifest.write(text.data(), text.size());
  }
  manifest.finish();
  folder_.add(kManifest);
}

}  // namespace qvdbase::salvage
