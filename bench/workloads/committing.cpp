// Workloads that commit: many operations at once, without waiting for the device; and one at a
// time, each of which waits.
#include <string>
#include <thread>
#include <vector>

#include "workloads/workload.h"

namespace bench {
namespace {

// One of each kind, drawn in the order in which they are carried out.
struct Four {
  Held added;
  Held written;
  Key read;
  Held removed;
};

std::vector<Four> drawFours(Filled& f) {
  std::vector<Four> drawn(operationsOfTransaction(f.count()) / 4);
  for (Four& each : drawn) {
    each.added.stamp = f.willAdd();
    each.written = f.willUpdate(f.anyNumber());
    each.read = f.at(f.anyNumber()).key;
    each.removed = f.willRemove();
  }
  return drawn;
}

}  // namespace

void mixInTransaction(Filled& f, Turn& turn) {
  std::vector<Four> drawn = drawFours(f);
  size_t found = 0;
  Bytes value;
  turn.timed(drawn.size() * 4, [&] {
    f.store().inTransaction([&] {
      for (Four& each : drawn) {
        each.added.key = f.store().append(f.valueOf(each.added.stamp));
        found += f.store().update(each.written.key, f.valueOf(each.written));
        found += f.store().get(each.read, &value);
        found += f.store().remove(each.removed.key);
      }
    });
  });
  if (found != drawn.size() * 3) failed(f.kind().name + ": records of a transaction are missing");
  for (const Four& each : drawn) f.hasAdded(each.added.key, each.added.stamp);
}

void commitEach(Filled& f, Turn& turn) {
  std::vector<Held> added(kCommits);
  for (Held& record : added) record.stamp = f.willAdd();
  f.store().close();
  f.store().openDurably(f.folder());
  turn.timed(added.size(), [&] {
    for (Held& record : added) record.key = f.store().append(f.valueOf(record.stamp));
  });
  f.store().close();
  f.store().open(f.folder());
  for (const Held& record : added) f.hasAdded(record.key, record.stamp);
}

void commitInThreads(Filled& f, Turn& turn) {
  std::vector<Held> added(kCommits);
  std::vector<Bytes> values;
  for (Held& record : added) {
    record.stamp = f.willAdd();
    const auto value = f.valueOf(record.stamp);
    values.emplace_back(value.begin(), value.end());
  }
  f.store().close();
  f.store().openDurably(f.folder());
  const auto addEvery = [&](size_t first) {
    for (size_t i = first; i < added.size(); i += kCommittingThreads) {
      added[i].key = f.store().append(values[i]);
    }
  };
  turn.timed(added.size(), [&] {
    std::vector<std::thread> threads;
    for (size_t i = 0; i < kCommittingThreads; ++i) threads.emplace_back(addEvery, i);
    for (std::thread& thread : threads) thread.join();
  });
  f.store().close();
  f.store().open(f.folder());
  for (const Held& record : added) f.hasAdded(record.key, record.stamp);
}

}  // namespace bench
