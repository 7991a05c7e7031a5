// qvdb::visit_extents: a survey, told from the first byte to the last.
#include <qvdbase/qvdb/extents.hpp>

#include <algorithm>
#include <ostream>
#include <vector>

#include "platform/host/cancellation.h"
#include "recovery/survey/open_file.h"
#include "recovery/survey/survey.h"

using namespace qvdbase;
using namespace qvdbase::survey;

namespace qvdb {
namespace {

// What became of a block.
ExtentUse useOf(const Survey& survey, const Block& block) {
  if (survey.isIntent(block)) return ExtentUse::intent;
  if (block.label == Label::uncommitted) return ExtentUse::unlinked;
  if (survey.ownerSlot(block) == nullptr) return ExtentUse::orphan;
  switch (block.label) {
    case Label::live:
      return block.kind == BlockKind::record ? ExtentUse::record : ExtentUse::table_data;
    case Label::superseded:
      return ExtentUse::superseded;
    case Label::deleted:
    case Label::deletedOrUnlinked:
      return ExtentUse::deleted;
    case Label::unlinked:
    case Label::unfinishedRelocation:
      return ExtentUse::unlinked;
    case Label::detached:
    case Label::uncommitted:
    case Label::none:
      break;
  }
  return ExtentUse::lost;
}

Extent extentOf(const Survey& survey, const Block& block) {
  Extent extent;
  extent.use = useOf(survey, block);
  extent.offset = block.position;
  extent.size = block.end - block.position;
  extent.is_table_data = block.kind == BlockKind::tableData;
  extent.table = Id{survey.owners[block.owner].number};
  if (!extent.is_table_data) extent.record = Id{block.recordID};
  const bool isInUse = extent.use == ExtentUse::record || extent.use == ExtentUse::table_data;
  if (isInUse && block.capacity > block.length && !block.isCut()) {
    extent.reserve = int64_t{block.capacity} - block.length;
  }
  return extent;
}

std::vector<Extent> extentsOf(const Survey& survey) {
  std::vector<Extent> extents;
  const int64_t directoryEnd = std::min(survey.blocksStart, survey.size);
  // Where a file does not begin as a database, its first bytes are no directory.
  if (survey.headerThere && isSignature(survey.header.fields.signature)) {
    extents.push_back({.use = ExtentUse::directory, .offset = 0, .size = directoryEnd});
  }
  for (const Block& block : survey.blocks) extents.push_back(extentOf(survey, block));
  for (const LeftoverRange& each : survey.leftovers) {
    const ExtentUse use = each.kind == Leftover::torn ? ExtentUse::torn : ExtentUse::unknown;
    extents.push_back({.use = use, .offset = each.range.begin, .size = each.range.size()});
  }
  std::stable_sort(extents.begin(), extents.end(),
                   [](const Extent& a, const Extent& b) { return a.offset < b.offset; });
  return extents;
}

// Without gaps and overlaps, whatever the survey made of a damaged file.
void visitAll(const Survey& survey, const ExtentVisitor& visitor) {
  if (!visitor) return;
  const platform::CancellationPause cancellation;
  int64_t position = 0;
  const auto visit = [&](Extent extent) {
    const int64_t end = std::min(extent.offset + extent.size, survey.size);
    if (end <= position) return;
    if (extent.offset > position) {
      visitor({.use = ExtentUse::unknown, .offset = position, .size = extent.offset - position});
      position = extent.offset;
    }
    extent.offset = position;
    extent.size = end - position;
    extent.reserve = std::min(extent.reserve, extent.size);
    visitor(extent);
    position = end;
  };
  for (const Extent& extent : extentsOf(survey)) visit(extent);
  if (position < survey.size) {
    visitor({.use = ExtentUse::unknown, .offset = position, .size = survey.size - position});
  }
}

}  // namespace

std::string_view to_string(ExtentUse use) noexcept {
  switch (use) {
    case ExtentUse::directory:
      return "directory";
    case ExtentUse::record:
      return "record";
    case ExtentUse::table_data:
      return "table data";
    case ExtentUse::superseded:
      return "superseded";
    case ExtentUse::deleted:
      return "deleted";
    case ExtentUse::unlinked:
      return "unlinked";
    case ExtentUse::lost:
      return "lost";
    case ExtentUse::orphan:
      return "orphan";
    case ExtentUse::torn:
      return "torn";
    case ExtentUse::intent:
      return "intent";
    case ExtentUse::unknown:
      break;
  }
  return "unknown";
}

std::ostream& operator<<(std::ostream& out, ExtentUse use) {
  return out << to_string(use);
}

ExtentsReport visit_extents(const std::filesystem::path& path, const ExtentVisitor& visitor) {
  const platform::Uncancelled uncancelled;
  OpenedFile file(path, "look at the database");
  file.watch();
  const Survey survey = makeSurvey(file.source());
  ExtentsReport report;
  report.file_size = survey.size;
  report.in_use = file.hasChanged() || file.isLockedByOthers();
  if (report.in_use) report.writer = file.writer();
  visitAll(survey, visitor);
  return report;
}

ExtentsReport visit_extents(std::span<const std::byte> image, const ExtentVisitor& visitor) {
  const platform::Uncancelled uncancelled;
  const Survey survey = makeSurvey(MemorySource(image));
  visitAll(survey, visitor);
  ExtentsReport report;
  report.file_size = survey.size;
  return report;
}

}  // namespace qvdb
