// Workloads that find records by keys of the user's own: their names.
#include <algorithm>

#include "workloads/workload.h"

namespace bench {
namespace {

constexpr size_t kWalked = 16;  // records of a prefix, about

// So many letters of a name that about kWalked records have them in common, or up to 16 times as
// many.
size_t lettersOf(size_t records) {
  size_t letters = 0;
  for (size_t each = records / 16; each >= kWalked && letters < 16; each /= 16) ++letters;
  return letters;
}

// What the records are by which names begin so.
struct Expected {
  uint64_t records = 0;
  uint64_t stamps = 0;
};

std::vector<std::pair<std::string, uint32_t>> namesOf(const Filled& f) {
  std::vector<std::pair<std::string, uint32_t>> names;
  names.reserve(f.count());
  for (size_t i = 0; i < f.count(); ++i) names.emplace_back(nameOf(f.at(i).stamp), f.at(i).stamp);
  std::sort(names.begin(), names.end());
  return names;
}

}  // namespace

void lookUpName(Filled& f, Turn& turn) {
  std::vector<std::pair<std::string, uint32_t>> drawn(kReads);
  for (auto& [name, stamp] : drawn) {
    stamp = f.at(f.anyNumber()).stamp;
    name = nameOf(stamp);
  }
  uint64_t wrong = 0;
  Bytes value;
  turn.timed(drawn.size(), [&] {
    for (const auto& [name, stamp] : drawn) {
      wrong += !f.store().getNamed(name, &value) || stampOf(value) != stamp;
    }
  });
  if (wrong != 0) failed(f.kind().name + ": wrong values looked up by name");
  if (f.store().getNamed(nameOf(uint64_t{1} << 40), &value)) failed("found what is not there");
  const auto memory = static_cast<double>(f.store().memoryOfNames());
  if (memory > 0) turn.note("memory_per_record", memory / static_cast<double>(f.count()));
}

void walkNames(Filled& f, Turn& turn) {
  const auto names = namesOf(f);
  const size_t letters = lettersOf(f.count());
  std::vector<std::string> beginnings;
  Expected expected;
  while (expected.records < kReads) {
    beginnings.push_back(names[f.random()() % names.size()].first.substr(0, letters));
    const std::string& beginning = beginnings.back();
    auto each = std::lower_bound(names.begin(), names.end(), std::pair(beginning, uint32_t{0}));
    for (; each != names.end() && each->first.starts_with(beginning); ++each) {
      ++expected.records;
      expected.stamps += each->second;
    }
  }
  Expected seen;
  turn.timed(expected.records, [&] {
    for (const std::string& beginning : beginnings) {
      const Walked walked = f.store().valuesNamed(beginning);
      seen.records += walked.records;
      seen.stamps += walked.stamps;
    }
  });
  if (seen.records != expected.records || seen.stamps != expected.stamps) {
    failed(f.kind().name + ": wrong values of a prefix");
  }
}

void addNames(Filled& f, Turn& turn) {
  const size_t additions = changesOf(f.size().records);
  std::vector<std::pair<Key, uint32_t>> added(additions);
  for (auto& [key, stamp] : added) stamp = f.willAdd();
  size_t refused = 0;
  turn.timed(additions, [&] {
    for (auto& [key, stamp] : added) refused += !f.store().addNamed(f.valueOf(stamp), &key);
  });
  if (refused != 0) failed(f.kind().name + ": a new name was refused");
  for (const auto& [key, stamp] : added) f.hasAdded(key, stamp);
  const Held& last = f.at(f.count() - 1);
  const Held& other = f.at(f.anyNumber());
  Key key = 0;
  for (const Held& twice : {last, other}) {
    if (f.store().addNamed(f.valueOf(twice.stamp), &key)) failed("a name was taken twice");
    Bytes value;
    if (!f.store().getNamed(nameOf(twice.stamp), &value) || stampOf(value) != twice.stamp) {
      failed(f.kind().name + ": a record that was added is missing");
    }
  }
}

void openAndReadName(Filled& f, Turn& turn) {
  for (int i = 0; i < 5; ++i) {
    const uint32_t stamp = f.at(f.anyNumber()).stamp;
    const std::string name = nameOf(stamp);
    Bytes value;
    bool isFound = false;
    f.store().close();
    turn.timed(1, [&] {
      f.store().open(f.folder());
      isFound = f.store().getNamed(name, &value);
    });
    if (!isFound || stampOf(value) != stamp) failed(f.kind().name + ": wrong first read by name");
  }
}

}  // namespace bench
