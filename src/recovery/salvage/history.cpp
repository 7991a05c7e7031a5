// qvdb::history, qvdb::read_version and qvdb::undelete.
#include <qvdbase/qvdb/history.hpp>

#include <qvdbase/qvdb/error.hpp>

#include <algorithm>
#include <functional>
#include <new>
#include <set>
#include <span>
#include <utility>
#include <vector>

#include "failure/failure.h"
#include "format/Aliment8.h"
#include "platform/host/cancellation.h"
#include "recovery/salvage/run.h"
#include "recovery/survey/open_file.h"
#include "recovery/survey/patched_source.h"
#include "recovery/survey/survey.h"

using namespace qvdbase;
using namespace qvdbase::failure;
using namespace qvdbase::survey;

namespace qvdb {
namespace {

[[noreturn]] void failTrimmed(const std::filesystem::path& path, const char* operation) {
  throwError(path, operation, Reason::cannot_read,
             "its payload was given back to the file system by a trim; a backup from before may "
             "have it");
}

// The file of a record, its survey, and the record's table: the one of that name or identifier,
// among all of which the file shows traces.
struct Sought {
  Sought(const std::filesystem::path& path, std::string_view table, const char* operation,
         bool isWatched = false)
      : file(path, operation) {
    if (isWatched) file.watch();
    survey = survey::makeSurvey(file.source());
    owner = ownerNamed(path, table, operation);
  }

  const Block& block(uint32_t number) const { return survey.blocks[number]; }

  // The numbers of the table's records that are `wanted`, in file order, which is the order of
  // writing.
  template <typename Wanted>
  std::vector<uint32_t> records(Wanted wanted) const {
    std::vector<uint32_t> found;
    for (const uint32_t number : blocksInFileOrder(survey)) {
      const Block& each = block(number);
      if (each.isRecordOf(owner) && std::invoke(wanted, each)) {
        found.push_back(number);
      }
    }
    return found;
  }

  std::vector<uint32_t> versionsOf(Id record) const {
    return records([&](const Block& each) { return each.recordID == record.value; });
  }

  std::vector<FoundBlock> describe(const std::vector<uint32_t>& numbers) const {
    std::vector<FoundBlock> found;
    for (const uint32_t number : numbers) found.push_back(salvage::describe(survey, number));
    return found;
  }

  OpenedFile file;
  Survey survey;
  uint32_t owner = 0;

 private:
  uint32_t ownerNamed(const std::filesystem::path& path, std::string_view table,
                      const char* operation) const {
    for (const auto& each : survey.tables) {
      if (format::storedName(survey.slotOf(each).fields) == table) return each.owner;
    }
    if (const std::optional<Id> id = parse_id(table)) {
      for (uint32_t i = 0; i < survey.owners.size(); ++i) {
        if (survey.owners[i].number == id->value) return i;
      }
    }
    throwError(path, operation, Reason::table_missing, "no such table: " + std::string(table));
  }
};

// A patch with the data of the table that gets the record, as `edit` leaves it. None where the
// table has no data, or not all of it can be read.
std::vector<Patch> editedData(const ByteSource& source, const Survey& survey, uint32_t chosen,
                              const DataEdit& edit) {
  const salvage::Plan plan = salvage::makePlan(survey, {}, chosen);
  const int place = plan.destination[chosen];
  const uint32_t data = place < 0 ? kNoBlock : plan.tables[static_cast<size_t>(place)].data;
  if (data == kNoBlock) return {};
  const Block& block = survey.blocks[data];
  Patch patch = {block.dataPos(),
                 std::vector<unsigned char>(static_cast<size_t>(block.dataThere()))};
  std::vector<unsigned char>& bytes = patch.bytes;
  if (source.readAt(patch.position, bytes.data(), bytes.size()) != bytes.size()) return {};
  const platform::CancellationPause cancellation;
  edit(std::as_writable_bytes(std::span(bytes)));
  return {std::move(patch)};
}

}  // namespace

std::vector<FoundBlock> history(const std::filesystem::path& path, std::string_view table,
                                Id record) {
  const platform::Uncancelled uncancelled;
  const Sought sought(path, table, "find the versions of the record");
  return sought.describe(sought.versionsOf(record));
}

void history(const std::filesystem::path& path, std::string_view table,
             const BlockVisitor& visitor) {
  const platform::Uncancelled uncancelled;
  const Sought sought(path, table, "find the versions of the records");
  for (const uint32_t number : sought.records([](const Block&) { return true; })) {
    const FoundBlock version = salvage::describe(sought.survey, number);
    const platform::CancellationPause cancellation;
    visitor(version);
  }
}

std::vector<FoundBlock> deleted_records(const std::filesystem::path& path, std::string_view table) {
  const platform::Uncancelled uncancelled;
  const Sought sought(path, table, "list the deleted records");
  std::set<uint64_t> passed;
  for (const uint32_t number : sought.records(&Block::isInUse)) {
    passed.insert(sought.block(number).recordID);
  }
  // Of each, the last version.
  std::vector<uint32_t> deleted = sought.records(&Block::isDeleted);
  std::vector<uint32_t> last;
  for (auto number = deleted.rbegin(); number != deleted.rend(); ++number) {
    if (passed.insert(sought.block(*number).recordID).second) last.push_back(*number);
  }
  std::ranges::reverse(last);
  return sought.describe(last);
}

std::vector<std::byte> read_version(const std::filesystem::path& path, const FoundBlock& version) {
  constexpr const char* kRead = "read the version";
  const platform::Uncancelled uncancelled;
  const OpenedFile file(path, kRead);
  if (version.is_trimmed) failTrimmed(path, kRead);
  const int64_t header = version.is_table_data ? format::tabledata::kData : format::record::kData;
  const int64_t position = version.offset + header;
  const int64_t left = file.source().size() - position;
  if (position < header || left < 0 || version.there > static_cast<uint64_t>(left)) {
    throwError(path, kRead, Reason::cannot_read, "the file has become shorter");
  }
  try {
    std::vector<std::byte> payload(static_cast<size_t>(version.there));
    if (file.source().readAt(position, payload.data(), payload.size()) != payload.size()) {
      throwError(path, kRead, Reason::cannot_read, "the system cannot read it");
    }
    return payload;
  } catch (const std::bad_alloc&) {
    throwError(path, kRead, Reason::too_large, "there is not enough memory");
  }
}

SalvageReport undelete(const std::filesystem::path& source, const std::filesystem::path& target,
                       std::string_view table, Id record, std::optional<int64_t> offset,
                       const DataEdit& edit_data) {
  constexpr const char* kUndelete = "bring the record back";
  const platform::Uncancelled uncancelled;
  const Sought sought(source, table, kUndelete, true);
  const std::vector<uint32_t> versions = sought.versionsOf(record);
  const bool isLive = std::ranges::any_of(
      versions, [&](uint32_t number) { return sought.block(number).label == Label::live; });
  if (isLive && !offset) {
    throwError(source, kUndelete, Reason::bad_argument,
               "the record is in use; give the offset of the version to bring back");
  }
  uint32_t chosen = kNoBlock;
  for (const uint32_t number : versions) {
    const Block& block = sought.block(number);
    const bool isUsable = block.grade == Grade::a && block.label != Label::uncommitted;
    if (offset ? block.position == *offset : isUsable) chosen = number;
  }
  if (chosen == kNoBlock) {
    throwError(source, kUndelete, Reason::record_missing, "the file holds no such version of it");
  }
  if (sought.block(chosen).isTrimmed) failTrimmed(source, kUndelete);
  const platform::FileAccess access = sought.file.access(source, kUndelete);
  const ByteSource& bytes = sought.file.source();
  std::vector<Patch> edited;
  if (edit_data) edited = editedData(bytes, sought.survey, chosen, edit_data);
  const PatchedSource patched(bytes, edited, bytes.size());
  const SalvageOptions options;
  salvage::Run run({patched, sought.survey, options, &access}, target, {}, chosen);
  salvage::lookAtSourceAgain(sought.file, source, kUndelete, &run.report());
  run.place();
  return run.report();
}

}  // namespace qvdb
