// The workloads: what each does to a store, and the table of all of them, from which they are
// registered for every store, value size and number of records.
//
// A store is filled once for each size and number and then kept, in three copies: for the workloads
// that read, which find it unchanged; for those that write records in place or at the end; and for
// those that move and delete records, a few thousand at each turn. Of a large store there is one
// copy: a few thousand records do not change it much. The framework runs the turns of all
// benchmarks in random order, so that a slow moment of the machine affects all alike.
#include <benchmark/benchmark.h>
#include <sys/stat.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <random>

#include "raw.h"
#include "readers.h"
#include "store.h"

namespace bench {
namespace {

using Clock = std::chrono::steady_clock;

double secondsSince(Clock::time_point start) {
  return std::chrono::duration<double>(Clock::now() - start).count();
}

std::filesystem::path scratchFolder() {
  static const std::filesystem::path folder = [] {
    const char* base = std::getenv("TMPDIR");
    std::string pattern = std::string(base != nullptr ? base : "/tmp") + "/qvdbase-bench-XXXXXX";
    if (mkdtemp(pattern.data()) == nullptr) failed("no scratch folder");
    return std::filesystem::path(pattern);
  }();
  return folder;
}

uint64_t bytesOnDisk(const std::filesystem::path& folder) {
  uint64_t bytes = 0;
  for (const auto& entry : std::filesystem::recursive_directory_iterator(folder)) {
    struct stat status;
    if (stat(entry.path().c_str(), &status) == 0 && S_ISREG(status.st_mode)) {
      bytes += static_cast<uint64_t>(status.st_blocks) * 512;
    }
  }
  return bytes;
}

struct Case {
  const StoreKind* kind;
  size_t valueSize;
  size_t records;
};

// A store that is filled and open.
struct Filled {
  std::filesystem::path folder;
  std::unique_ptr<Store> store;
  std::vector<Key> keys;
  std::mt19937_64 random{1};

  Key anyKey() { return keys[random() % keys.size()]; }
};

Bytes valueOf(size_t size) {
  Bytes value(size);
  for (size_t i = 0; i < size; ++i) value[i] = static_cast<char>(i * 31 + 7);
  return value;
}

std::filesystem::path freshFolder() {
  static int number = 0;
  const auto folder = scratchFolder() / std::to_string(number++);
  std::filesystem::create_directory(folder);
  return folder;
}

std::map<std::string, Filled>& allFilled() {
  static std::map<std::string, Filled> all;
  return all;
}

// What is done to a store.
enum class Use { read, write, move };

constexpr size_t kLargeStore = 64 * 1024 * 1024;

Filled& filled(const Case& c, Use use) {
  const bool isLarge = c.valueSize * c.records > kLargeStore;
  const std::string name = c.kind->name + "/" + std::to_string(c.valueSize) + "/" +
                           std::to_string(c.records) + "/" +
                           std::to_string(isLarge ? 0 : static_cast<int>(use));
  Filled& entry = allFilled()[name];
  if (entry.store != nullptr) return entry;
  entry.folder = freshFolder();
  entry.store = c.kind->make();
  entry.store->open(entry.folder);
  entry.store->appendMany(c.records, valueOf(c.valueSize), &entry.keys);
  return entry;
}

// One turn of `operations` operations, timed as a whole.
template <typename Operation>
void timed(benchmark::State& state, size_t operations, Operation operation) {
  for (auto unused : state) {
    static_cast<void>(unused);
    const auto start = Clock::now();
    for (size_t i = 0; i < operations; ++i) operation();
    state.SetIterationTime(secondsSince(start) / static_cast<double>(operations));
  }
}

constexpr size_t kOperations = 2000;

void append(benchmark::State& state, const Case& c) {
  Filled& f = filled(c, Use::write);
  const Bytes value = valueOf(c.valueSize);
  timed(state, kOperations, [&] { f.keys.push_back(f.store->append(value)); });
}

void batch(benchmark::State& state, const Case& c) {
  const Bytes value = valueOf(c.valueSize);
  for (auto unused : state) {
    static_cast<void>(unused);
    const auto folder = freshFolder();
    const auto store = c.kind->make();
    store->open(folder);
    const auto start = Clock::now();
    store->appendMany(c.records, value, nullptr);
    state.SetIterationTime(secondsSince(start) / static_cast<double>(c.records));
    state.counters["disk_per_record"] =
        static_cast<double>(bytesOnDisk(folder)) / static_cast<double>(c.records);
    store->close();
    std::filesystem::remove_all(folder);
  }
}

void scanKeys(benchmark::State& state, const Case& c) {
  Filled& f = filled(c, Use::read);
  for (auto unused : state) {
    static_cast<void>(unused);
    const auto start = Clock::now();
    benchmark::DoNotOptimize(f.store->scanKeys());
    state.SetIterationTime(secondsSince(start) / static_cast<double>(f.keys.size()));
  }
}

void scanValues(benchmark::State& state, const Case& c) {
  Filled& f = filled(c, Use::read);
  for (auto unused : state) {
    static_cast<void>(unused);
    const auto start = Clock::now();
    if (f.store->scanValues() < f.keys.size() * c.valueSize / 2) failed(c.kind->name + ": scan");
    state.SetIterationTime(secondsSince(start) / static_cast<double>(f.keys.size()));
  }
}

void lastTen(benchmark::State& state, const Case& c) {
  constexpr size_t kLast = 10;
  Filled& f = filled(c, Use::read);
  timed(state, kOperations, [&] {
    if (f.store->lastValues(kLast) != kLast * c.valueSize) failed(c.kind->name + ": last records");
  });
}

void lookup(benchmark::State& state, const Case& c) {
  Filled& f = filled(c, Use::read);
  Bytes value;
  static_cast<void>(f.store->get(f.anyKey(), &value));  // an index is built outside the time
  timed(state, kOperations, [&] {
    if (!f.store->get(f.anyKey(), &value)) failed(c.kind->name + ": lookup");
  });
}

void absent(benchmark::State& state, const Case& c) {
  Filled& f = filled(c, Use::read);
  Bytes value;
  static_cast<void>(f.store->get(f.anyKey(), &value));
  timed(state, kOperations, [&] {
    if (f.store->get((Key{1} << 62) + f.random() % 1000000, &value)) failed(c.kind->name);
  });
}

void update(benchmark::State& state, const Case& c) {
  Filled& f = filled(c, Use::write);
  Bytes value = valueOf(c.valueSize);
  static_cast<void>(f.store->get(f.anyKey(), &value));
  value = valueOf(c.valueSize);
  timed(state, kOperations, [&] {
    if (!f.store->update(f.anyKey(), value)) failed(c.kind->name + ": update");
  });
}

void grow(benchmark::State& state, const Case& c) {
  Filled& f = filled(c, Use::move);
  Bytes value;
  static_cast<void>(f.store->get(f.anyKey(), &value));
  size_t size = c.valueSize + c.valueSize / 2;
  timed(state, kOperations, [&] {
    value.assign(size, 'g');
    if (!f.store->update(f.anyKey(), value)) failed(c.kind->name + ": grow");
  });
}

void remove(benchmark::State& state, const Case& c) {
  Filled& f = filled(c, Use::move);
  Bytes value;
  static_cast<void>(f.store->get(f.anyKey(), &value));
  const size_t operations = std::min<size_t>(500, c.records / 20);
  timed(state, operations, [&] {
    const size_t place = f.random() % f.keys.size();
    if (!f.store->remove(f.keys[place])) failed(c.kind->name + ": remove");
    f.keys[place] = f.keys.back();
    f.keys.pop_back();
  });
}

void openAndRead(benchmark::State& state, const Case& c) {
  Filled& f = filled(c, Use::read);
  Bytes value;
  for (auto unused : state) {
    static_cast<void>(unused);
    f.store->close();
    const auto start = Clock::now();
    f.store->open(f.folder);
    f.store->firstRead(f.keys.front(), &value);
    state.SetIterationTime(secondsSince(start));
  }
}

void compact(benchmark::State& state, const Case& c) {
  Filled& f = filled(c, Use::move);
  for (auto unused : state) {
    static_cast<void>(unused);
    const auto start = Clock::now();
    if (!f.store->compact()) {
      state.SkipWithError("does not compact");
      return;
    }
    state.SetIterationTime(secondsSince(start) / static_cast<double>(f.keys.size()));
  }
}

void check(benchmark::State& state, const Case& c) {
  Filled& f = filled(c, Use::read);
  for (auto unused : state) {
    static_cast<void>(unused);
    f.store->close();
    const auto start = Clock::now();
    f.store->inspect();
    state.SetIterationTime(secondsSince(start) / static_cast<double>(f.keys.size()));
    f.store->open(f.folder);
  }
}

// What the walk of the C interface costs for each record.
void chainStep(benchmark::State& state, const Case& c) {
  Filled& f = filled(c, Use::read);
  Bytes value;
  for (auto unused : state) {
    static_cast<void>(unused);
    if (f.store->get(12345, &value)) failed("found what is not there");  // warms up
    const auto start = Clock::now();
    if (f.store->get(12345, &value)) failed("found what is not there");
    state.SetIterationTime(secondsSince(start) / static_cast<double>(f.keys.size()));
  }
}

// Two readers at once: the time of a record is that of both, from the first start to the last end.
template <Readers kReaders>
void readers(benchmark::State& state, const Case& c) {
  Filled& f = filled(c, Use::read);
  for (auto unused : state) {
    static_cast<void>(unused);
    f.store->close();
    const ReadersResult result = runReaders(kReaders, f.folder, f.keys);
    f.store->open(f.folder);
    state.SetIterationTime((result.walkSeconds + result.lookupSeconds) /
                           static_cast<double>(result.walked + result.lookedUp));
    state.counters["walked_per_second"] = static_cast<double>(result.walked) / result.walkSeconds;
    state.counters["lookups_per_second"] =
        static_cast<double>(result.lookedUp) / result.lookupSeconds;
  }
}

// The stores that run a workload.
enum class Stores { all, keyed, ordered, oursIndexed, oursC };

struct Workload {
  const char* name;
  const char* summary;
  Stores stores;
  void (*run)(benchmark::State&, const Case&);
};

// What is measured, for one record if nothing else is said. raw.cpp has the same names for the raw
// limits.
constexpr Workload kWorkloads[] = {
    {"append", "add a record with a call of its own", Stores::all, append},
    {"batch", "fill a new store in the way it recommends for many records", Stores::all, batch},
    {"scan-ids", "walk all records, reading identifiers only", Stores::all, scanKeys},
    {"open+read", "open the store and read its first record", Stores::all, openAndRead},
    {"scan-payloads", "walk all records, reading their values", Stores::keyed, scanValues},
    {"last-10", "read the ten records that were added last", Stores::ordered, lastTen},
    {"lookup", "read a record that is there, chosen at random", Stores::keyed, lookup},
    {"absent", "look up a record that is not there", Stores::keyed, absent},
    {"update", "write a value of the same size over a random record's", Stores::keyed, update},
    {"grow", "write a value half as large again over a random record's", Stores::keyed, grow},
    {"delete", "remove a random record", Stores::keyed, remove},
    {"compact", "give dead space back", Stores::keyed, compact},
    {"check", "read the whole closed store to see that it is sound", Stores::oursIndexed, check},
    {"reader-threads", "walk and look up in two threads, a Reader each, of an exclusive opener",
     Stores::oursIndexed, readers<Readers::threads>},
    {"reader-threads-shared", "the same of a database that is open for reading only",
     Stores::oursIndexed, readers<Readers::threadsReadOnly>},
    {"reader-processes", "the same work in two processes, which open it for reading only",
     Stores::oursIndexed, readers<Readers::processes>},
    {"chain-step", "search for an absent record by walking the chain", Stores::oursC, chainStep},
};

// The C interface alone has no lookup by key: its searches walk the chain.
bool isRunBy(const StoreKind& kind, Stores stores) {
  switch (stores) {
    case Stores::all:
      return true;
    case Stores::keyed:
      return kind.name != "qvdbase-c";
    case Stores::ordered:
      return kind.name == "qvdbase" || kind.name.starts_with("sqlite");
    case Stores::oursIndexed:
      return kind.name == "qvdbase";
    case Stores::oursC:
      return kind.name == "qvdbase-c";
  }
  return false;
}

void add(const Workload& workload, const Case& c) {
  const std::string name = std::string(workload.name) + "/" + c.kind->name + "/" +
                           std::to_string(c.valueSize) + "/" + std::to_string(c.records);
  const auto run = workload.run;
  benchmark::RegisterBenchmark(name.c_str(), [run, c](benchmark::State& state) { run(state, c); })
      ->UseManualTime()
      ->Iterations(1)
      ->Unit(benchmark::kNanosecond);
}

const char* describe(Stores stores) {
  switch (stores) {
    case Stores::all:
      return "every store";
    case Stores::keyed:
      return "every store but qvdbase-c";
    case Stores::ordered:
      return "qvdbase and SQLite";
    case Stores::oursIndexed:
      return "qvdbase";
    case Stores::oursC:
      return "qvdbase-c";
  }
  return "";
}

}  // namespace

void registerWorkloads(const std::vector<size_t>& valueSizes,
                       const std::vector<size_t>& recordCounts) {
  for (const size_t valueSize : valueSizes) {
    for (const size_t records : recordCounts) {
      for (const StoreKind& kind : storeKinds()) {
        for (const Workload& workload : kWorkloads) {
          if (isRunBy(kind, workload.stores)) add(workload, {&kind, valueSize, records});
        }
      }
      registerRaw(valueSize, records, scratchFolder());
    }
  }
}

void listWorkloads() {
  for (const Workload& workload : kWorkloads) {
    std::printf("%-21s  %-68s  %s\n", workload.name, workload.summary, describe(workload.stores));
  }
}

// The stores go before the program's static objects do: some of them still need theirs.
void removeScratch() {
  for (auto& [name, entry] : allFilled()) entry.store->close();
  allFilled().clear();
  std::filesystem::remove_all(scratchFolder());
}

}  // namespace bench
