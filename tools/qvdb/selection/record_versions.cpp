// What a file still has of records at an earlier time.
#include "selection/record_versions.h"

#include <algorithm>

#include "streams/interrupt.h"

namespace qvdb::tool {
namespace {

// Whether a chain may ever have led to it.
bool wasInUse(const FoundBlock& version) {
  return version.label != BlockLabel::unfinished && version.label != BlockLabel::unlinked;
}

}  // namespace

bool isDeleted(const FoundBlock& version) {
  return version.label == BlockLabel::deleted || version.label == BlockLabel::deleted_or_unlinked;
}

std::vector<FoundBlock> thoseInUse(std::vector<FoundBlock> versions) {
  std::erase_if(versions, [](const FoundBlock& each) { return !wasInUse(each); });
  std::stable_sort(versions.begin(), versions.end(), [](const FoundBlock& a, const FoundBlock& b) {
    return a.modify_time < b.modify_time;
  });
  return versions;
}

uint32_t additionOf(const std::vector<FoundBlock>& versions) {
  const auto first = std::min_element(
      versions.begin(), versions.end(),
      [](const FoundBlock& a, const FoundBlock& b) { return a.create_time < b.create_time; });
  return first->create_time;
}

RecordAt recordAt(const std::vector<FoundBlock>& versions, int64_t time) {
  using State = RecordAt::State;
  if (versions.empty()) return {};
  if (additionOf(versions) > time) return {.state = State::notYet};
  const auto next = std::find_if(versions.begin(), versions.end(), [time](const FoundBlock& each) {
    return each.modify_time > time;
  });
  if (next == versions.begin()) return {.state = State::lost, .version = &*next};
  RecordAt found = {.state = State::found, .version = &*std::prev(next)};
  if (next != versions.end()) found.next = &*next;
  const FoundBlock& version = *found.version;
  if (version.grade == BlockGrade::c || version.there < version.length) {
    found.state = State::damaged;
  }
  return found;
}

TableVersions::TableVersions(const std::string& path, const std::string& table) {
  {
    const EndsAtOnce atOnce;
    history(path, table,
            [&](const FoundBlock& version) { versions_[version.record].push_back(version); });
  }
  for (auto& each : versions_) each.second = thoseInUse(std::move(each.second));
}

RecordAt TableVersions::at(Id record, int64_t time) const {
  const auto found = versions_.find(record);
  return found == versions_.end() ? RecordAt() : recordAt(found->second, time);
}

}  // namespace qvdb::tool
