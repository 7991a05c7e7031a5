// qvdb::history, qvdb::read_version and qvdb::undelete.
#include <qvdbase/qvdb/history.hpp>

#include <qvdbase/qvdb/error.hpp>

#include <algorithm>
#include <new>
#include <set>
#include <span>
#include <utility>
#include <vector>

#include "failure/failure.h"
#include "format/Aliment8.h"
#include "recovery/salvage/run.h"
#include "recovery/survey/open_file.h"
#include "recovery/survey/patched_source.h"
#include "recovery/survey/survey.h"

using namespace qvdbase;

namespace qvdb {
namespace {

using failure::throwError;
using survey::Block;
using survey::BlockKind;
using survey::Label;
using survey::OpenedFile;
using survey::Survey;

constexpr const char* kHistory = "find the versions of the record";
constexpr const char* kUndelete = "bring the record back";

// The table of that name or identifier among those that the file shows traces of.
uint32_t ownerNamed(const Survey& survey, std::string_view table, const std::filesystem::path& path,
                    const char* operation) {
  for (const survey::Table& each : survey.tables) {
    const auto& slot = survey.slotOf(each);
    if (format::storedName(slot.fields) == table) return each.owner;
  }
  if (const std::optional<Id> id = parse_id(table)) {
    for (uint32_t i = 0; i < survey.owners.size(); ++i) {
      if (survey.owners[i].number == id->value) return i;
    }
  }
  throwError(path, operation, Reason::table_missing, "no such table: " + std::string(table));
}

// Blocks of the record, in file order, which is the order of writing.
std::vector<uint32_t> versionsOf(const Survey& survey, uint32_t owner, Id record) {
  std::vector<uint32_t> versions;
  for (const uint32_t number : survey::blocksInFileOrder(survey)) {
    const Block& block = survey.blocks[number];
    if (block.kind == BlockKind::record && block.owner == owner && block.recordID == record.value) {
      versions.push_back(number);
    }
  }
  return versions;
}

// The version to bring back; kNoBlock when there is none.
uint32_t choose(const Survey& survey, const std::vector<uint32_t>& versions,
                std::optional<int64_t> offset) {
  uint32_t chosen = survey::kNoBlock;
  for (const uint32_t number : versions) {
    const Block& block = survey.blocks[number];
    if (offset ? block.position == *offset : block.grade == survey::Grade::a) chosen = number;
  }
  return chosen;
}

// The data of the table that takes the record, as `edit` leaves it. None where there is no such
// data, or not all of it can be read.
std::vector<survey::Patch> editedData(const survey::ByteSource& source, const Survey& survey,
                                      uint32_t chosen, const DataEdit& edit) {
  const salvage::Plan plan = salvage::makePlan(survey, {}, {.block = chosen});
  const int place = plan.destination[chosen];
  const uint32_t data = place < 0 ? survey::kNoBlock : plan.tables[static_cast<size_t>(place)].data;
  if (data == survey::kNoBlock) return {};
  const Block& block = survey.blocks[data];
  survey::Patch patch = {block.dataPos(),
                         std::vector<unsigned char>(static_cast<size_t>(block.dataThere()))};
  std::vector<unsigned char>& bytes = patch.bytes;
  if (source.readAt(patch.position, bytes.data(), bytes.size()) != bytes.size()) return {};
  edit(std::as_writable_bytes(std::span(bytes)));
  return {std::move(patch)};
}

// In the chain of its table, or belonging there.
bool isInUse(const Block& block) {
  return block.kind == BlockKind::record &&
         (block.label == Label::live || block.label == Label::detached);
}

bool isDeleted(const Block& block) {
  return block.label == Label::deleted || block.label == Label::deletedOrUnlinked;
}

}  // namespace

std::vector<FoundBlock> history(const std::filesystem::path& path, std::string_view table,
                                Id record) {
  const OpenedFile file(path, kHistory);
  const Survey survey = survey::makeSurvey(file.source());
  std::vector<FoundBlock> found;
  for (const uint32_t number :
       versionsOf(survey, ownerNamed(survey, table, path, kHistory), record)) {
    found.push_back(salvage::describe(survey, number));
  }
  return found;
}

std::vector<FoundBlock> deleted_records(const std::filesystem::path& path, std::string_view table) {
  constexpr const char* kList = "list the deleted records";
  const OpenedFile file(path, kList);
  const Survey survey = survey::makeSurvey(file.source());
  const uint32_t owner = ownerNamed(survey, table, path, kList);
  std::set<uint64_t> passed;
  std::vector<FoundBlock> found;
  const std::vector<uint32_t> order = survey::blocksInFileOrder(survey);
  for (const Block& block : survey.blocks) {
    if (block.owner == owner && isInUse(block)) passed.insert(block.recordID);
  }
  for (auto number = order.rbegin(); number != order.rend(); ++number) {
    const Block& block = survey.blocks[*number];
    if (block.kind != BlockKind::record || block.owner != owner || !isDeleted(block)) continue;
    if (!passed.insert(block.recordID).second) continue;
    found.push_back(salvage::describe(survey, *number));
  }
  std::reverse(found.begin(), found.end());
  return found;
}

std::vector<std::byte> read_version(const std::filesystem::path& path, const FoundBlock& version) {
  constexpr const char* kRead = "read the version";
  const OpenedFile file(path, kRead);
  const int64_t header = version.is_table_data ? format::tabledata::kData : format::record::kData;
  const int64_t position = version.offset + header;
  const int64_t left = file.source().size() - position;
  if (position < header || left < 0 || version.there > static_cast<uint64_t>(left)) {
    throwError(path, kRead, Reason::cannot_read, "the file is shorter now");
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
  OpenedFile file(source, kUndelete);
  file.watch();
  const Survey survey = survey::makeSurvey(file.source());
  const std::vector<uint32_t> versions =
      versionsOf(survey, ownerNamed(survey, table, source, kUndelete), record);
  const bool isInUse = std::any_of(versions.begin(), versions.end(), [&](uint32_t number) {
    return survey.blocks[number].label == Label::live;
  });
  if (isInUse && !offset) {
    throwError(source, kUndelete, Reason::bad_argument,
               "the record is in use; name a version's offset");
  }
  const uint32_t chosen = choose(survey, versions, offset);
  if (chosen == survey::kNoBlock) {
    throwError(source, kUndelete, Reason::record_missing, "the file holds no such version of it");
  }
  const platform::FileAccess access = file.access(source, kUndelete);
  std::vector<survey::Patch> edited;
  if (edit_data) edited = editedData(file.source(), survey, chosen, edit_data);
  const survey::PatchedSource patched(file.source(), edited, file.source().size());
  salvage::Run run(patched, survey, target, {}, {}, &access, {.block = chosen});
  salvage::lookAtSourceAgain(file, source, kUndelete, &run.report());
  run.place();
  return run.report();
}

}  // namespace qvdb
