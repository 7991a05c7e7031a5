// Readers of one database side by side. Threads and processes do the same work, keep step by the
// same barrier, and note their times in the same memory, which is shared.
#include "workloads/readers.h"

#include <pthread.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdio>
#include <exception>
#include <new>
#include <optional>
#include <qvdbase/qvdb.hpp>
#include <random>
#include <thread>

namespace bench {
namespace {

using Clock = std::chrono::steady_clock;

constexpr size_t kReaders = 2;
constexpr size_t kRecordsWalked = 2'000'000;  // of each reader, at least; whole walks
constexpr size_t kLookups = 50'000;           // of each reader
constexpr size_t kLargestValue = 4096;

struct Phase {
  Clock::time_point start;
  Clock::time_point end;
};

struct Notes {
  Phase walk;
  Phase lookup;
  bool hasFailed = false;
};

struct Shared {
  pthread_barrier_t barrier;
  // Apart, so that what one reader notes does not disturb the other.
  struct alignas(256) Own : Notes {};
  std::array<Own, kReaders> notes;
};

class SharedMemory {
 public:
  SharedMemory() {
    void* memory =
        mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (memory == MAP_FAILED) failed("no shared memory");
    shared_ = new (memory) Shared;
    pthread_barrierattr_t attributes;
    pthread_barrierattr_init(&attributes);
    pthread_barrierattr_setpshared(&attributes, PTHREAD_PROCESS_SHARED);
    pthread_barrier_init(&shared_->barrier, &attributes, kReaders);
    pthread_barrierattr_destroy(&attributes);
  }
  ~SharedMemory() {
    pthread_barrier_destroy(&shared_->barrier);
    munmap(shared_, sizeof(Shared));
  }
  SharedMemory(const SharedMemory&) = delete;
  SharedMemory& operator=(const SharedMemory&) = delete;

  Shared* operator->() const { return shared_; }

 private:
  Shared* shared_;
};

size_t walksOf(size_t records) {
  return (kRecordsWalked + records - 1) / records;
}

void walk(const qvdb::Table& table, size_t records) {
  Bytes copy;
  size_t seen = 0;
  for (size_t i = 0; i < walksOf(records); ++i) {
    for (const qvdb::Record& record : table.records(qvdb::Load::payloads)) {
      const auto* bytes = reinterpret_cast<const char*>(record.loaded().data());
      copy.assign(bytes, bytes + record.loaded().size());
      ++seen;
    }
  }
  if (seen != walksOf(records) * records) failed("qvdbase: walk of a reader");
}

void lookUp(const qvdb::Table& table, const std::vector<Key>& keys, size_t number) {
  std::mt19937_64 random(number + 1);
  Bytes value(kLargestValue);
  for (size_t i = 0; i < kLookups; ++i) {
    const qvdb::Id key{keys[random() % keys.size()]};
    if (!table.get(key, std::as_writable_bytes(std::span(value)))) {
      failed("qvdbase: lookup of a reader");
    }
  }
}

// Begins when both readers have come as far.
template <typename Work>
void timed(const SharedMemory& shared, Notes& notes, Phase Notes::*phase, Work work) {
  pthread_barrier_wait(&shared->barrier);
  (notes.*phase).start = Clock::now();
  try {
    if (!notes.hasFailed) work();
  } catch (const std::exception& error) {
    std::fprintf(stderr, "%s\n", error.what());
    notes.hasFailed = true;
  }
  (notes.*phase).end = Clock::now();
}

// One that fails goes on as far as the barriers, for which the other waits. The index, by which
// the table finds records, is built outside the time.
template <typename OpenTable>
void read(const SharedMemory& shared, size_t number, const std::vector<Key>& keys,
          OpenTable openTable) {
  Notes& notes = shared->notes[number];
  std::optional<qvdb::Table> table;
  std::optional<qvdb::RecordIndex> index;
  try {
    table = openTable();
    index = table->index();
  } catch (const std::exception& error) {
    std::fprintf(stderr, "%s\n", error.what());
    notes.hasFailed = true;
  }
  timed(shared, notes, &Notes::walk, [&] { walk(*table, keys.size()); });
  timed(shared, notes, &Notes::lookup, [&] { lookUp(*table, keys, number); });
}

void runThreads(const SharedMemory& shared, const std::filesystem::path& path, qvdb::Mode mode,
                const std::vector<Key>& keys) {
  const qvdb::Database database = qvdb::Database::open(path, mode);
  std::vector<std::thread> threads;
  for (size_t number = 0; number < kReaders; ++number) {
    threads.emplace_back([&shared, &keys, number, reader = database.reader()] {
      read(shared, number, keys, [&] { return reader.table("t"); });
    });
  }
  for (std::thread& thread : threads) thread.join();
}

// The destructors of what the parent has are not for the child.
[[noreturn]] void runChild(const SharedMemory& shared, const std::filesystem::path& path,
                           size_t number, const std::vector<Key>& keys) {
  std::optional<qvdb::Database> database;
  read(shared, number, keys, [&] {
    database = qvdb::Database::open(path, qvdb::Mode::read_only);
    return database->table("t");
  });
  _exit(0);
}

void runProcesses(const SharedMemory& shared, const std::filesystem::path& path,
                  const std::vector<Key>& keys) {
  std::array<pid_t, kReaders> children{};
  for (size_t number = 0; number < kReaders; ++number) {
    children[number] = fork();
    if (children[number] < 0) failed("no process");
    if (children[number] == 0) runChild(shared, path, number, keys);
  }
  for (const pid_t child : children) waitpid(child, nullptr, 0);
}

// From the moment when the first begins to that when the last has ended.
double secondsOf(const SharedMemory& shared, Phase Notes::*phase) {
  Phase whole = shared->notes[0].*phase;
  for (const Notes& notes : shared->notes) {
    whole.start = std::min(whole.start, (notes.*phase).start);
    whole.end = std::max(whole.end, (notes.*phase).end);
  }
  return std::chrono::duration<double>(whole.end - whole.start).count();
}

}  // namespace

ReadersResult runReaders(Readers readers, const std::filesystem::path& folder,
                         const std::vector<Key>& keys) {
  const SharedMemory shared;
  const std::filesystem::path path = folder / "data.qvd";
  switch (readers) {
    case Readers::threads:
      runThreads(shared, path, qvdb::Mode::exclusive, keys);
      break;
    case Readers::threadsReadOnly:
      runThreads(shared, path, qvdb::Mode::read_only, keys);
      break;
    case Readers::processes:
      runProcesses(shared, path, keys);
      break;
  }
  for (const Notes& notes : shared->notes) {
    if (notes.hasFailed) failed("qvdbase: a reader failed");
  }
  ReadersResult result;
  result.walkSeconds = secondsOf(shared, &Notes::walk);
  result.lookupSeconds = secondsOf(shared, &Notes::lookup);
  result.walked = kReaders * walksOf(keys.size()) * keys.size();
  result.lookedUp = kReaders * kLookups;
  return result;
}

}  // namespace bench
