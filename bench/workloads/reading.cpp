// Workloads that read.
#include <algorithm>

#include "workloads/workload.h"

namespace bench {
namespace {

std::vector<Held> draw(Filled& f, size_t count) {
  std::vector<Held> drawn(count);
  for (Held& record : drawn) record = f.at(f.anyNumber());
  return drawn;
}

// Short walks several times, so that a turn is long enough to be timed.
size_t walksOf(const Filled& f) {
  return std::max<size_t>(1, 100'000 / std::max<size_t>(1, f.count()));
}

}  // namespace

void scanKeys(Filled& f, Turn& turn) {
  for (size_t i = 0; i < walksOf(f); ++i) {
    Walked seen;
    turn.timed(f.count(), [&] { seen = f.store().scanKeys(); });
    f.verifyKeys(seen);
  }
}

void scanValues(Filled& f, Turn& turn) {
  for (size_t i = 0; i < walksOf(f); ++i) {
    Walked seen;
    turn.timed(f.count(), [&] { seen = f.store().scanValues(); });
    f.verifyValues(seen);
  }
}

void lastTen(Filled& f, Turn& turn) {
  constexpr size_t kTimes = 2000;
  const size_t count = std::min<size_t>(10, f.count());
  uint64_t expected = 0;
  for (size_t i = 0; i < count; ++i) expected += f.at(f.count() - 1 - i).stamp;
  uint64_t sum = 0;
  turn.timed(kTimes, [&] {
    for (size_t i = 0; i < kTimes; ++i) sum += f.store().lastValues(count).stamps;
  });
  if (sum != expected * kTimes) failed(f.kind().name + ": wrong last records");
}

void lookUp(Filled& f, Turn& turn) {
  const std::vector<Held> drawn = draw(f, kReads);
  uint64_t wrong = 0;
  Bytes value;
  turn.timed(drawn.size(), [&] {
    for (const Held& record : drawn) {
      const bool isFound = f.store().get(record.key, &value);
      wrong += !isFound || stampOf(value) != record.stamp || value.size() != record.size;
    }
  });
  if (wrong != 0) failed(f.kind().name + ": wrong values looked up");
}

void lookUpAbsent(Filled& f, Turn& turn) {
  std::vector<Key> keys(kReads);
  for (Key& key : keys) key = (Key{1} << 62) + f.random()() % 1'000'000;
  uint64_t found = 0;
  Bytes value;
  turn.timed(keys.size(), [&] {
    for (const Key key : keys) found += f.store().get(key, &value);
  });
  if (found != 0) failed(f.kind().name + ": found what is not there");
}

// The same places at each turn: where a store has to search, the cost depends on them.
void openAndRead(Filled& f, Turn& turn) {
  for (const size_t tenth : {1u, 3u, 5u, 7u, 9u}) {
    const Held record = f.at(f.count() * tenth / 10);
    Bytes value;
    bool isFound = false;
    f.store().close();
    turn.timed(1, [&] {
      f.store().open(f.folder());
      isFound = f.store().get(record.key, &value);
    });
    if (!isFound || stampOf(value) != record.stamp) failed(f.kind().name + ": wrong first read");
  }
}

void stepChain(Filled& f, Turn& turn) {
  Bytes value;
  bool isFound = false;
  for (size_t i = 0; i < walksOf(f); ++i) {
    turn.timed(f.count(), [&] { isFound = f.store().get(12345, &value); });
    if (isFound) failed("found what is not there");
  }
}

}  // namespace bench
