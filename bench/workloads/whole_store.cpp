// Workloads on a whole store.
#include "workloads/readers.h"
#include "workloads/workload.h"

namespace bench {
namespace {

void compact(Filled& f, Turn& turn) {
  turn.timed(f.count(), [&] { f.store().compact(); });
  f.verifyValues(f.store().scanValues());
}

void readSideBySide(Filled& f, Turn& turn, Readers readers) {
  std::vector<Key> keys(f.count());
  for (size_t i = 0; i < keys.size(); ++i) keys[i] = f.at(i).key;
  f.store().close();
  ReadersResult result;
  turn.timed(0, [&] { result = runReaders(readers, f.folder(), keys); });
  turn.did(result.walked + result.lookedUp, (result.walkSeconds + result.lookupSeconds) * 1e9);
  f.store().open(f.folder());
  turn.note("walked_per_second", static_cast<double>(result.walked) / result.walkSeconds);
  turn.note("lookups_per_second", static_cast<double>(result.lookedUp) / result.lookupSeconds);
}

}  // namespace

void loadAll(Filled& f, Turn& turn) {
  f.empty();
  f.load(turn);
  turn.note("disk_per_record",
            static_cast<double>(f.bytesOnDisk()) / static_cast<double>(f.count()));
  f.verifyKeys(f.store().scanKeys());
}

void compactInOrder(Filled& f, Turn& turn) {
  f.refill();
  compact(f, turn);
}

void compactChanged(Filled& f, Turn& turn) {
  f.refill();
  f.change();
  compact(f, turn);
}

void inspect(Filled& f, Turn& turn) {
  f.store().close();
  turn.timed(f.count(), [&] { f.store().inspect(); });
  f.store().open(f.folder());
}

void readInThreads(Filled& f, Turn& turn) {
  readSideBySide(f, turn, Readers::threads);
}

void readInThreadsReadOnly(Filled& f, Turn& turn) {
  readSideBySide(f, turn, Readers::threadsReadOnly);
}

void readInProcesses(Filled& f, Turn& turn) {
  readSideBySide(f, turn, Readers::processes);
}

}  // namespace bench
