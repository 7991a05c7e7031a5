// Raw limits, as a store named "raw".
//
//   append          one fstat and three pwrites: a block, a link, a slot
//   batch           large sequential pwrites of the bytes of all blocks
//   scan-ids        one memcpy of 55 bytes for each block, out of memory that holds them all
//   scan-payloads   large sequential preads of the whole file
//   lookup          one pread of a block at a random place
//   compact         a copy of the file in large pieces, as cp makes it
#include "raw.h"

#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <functional>
#include <memory>
#include <random>
#include <stdexcept>

namespace bench {
namespace {

using Clock = std::chrono::steady_clock;

constexpr size_t kOverhead = 56;
constexpr size_t kPiece = size_t{1} << 20;

struct File {
  explicit File(const std::filesystem::path& path)
      : descriptor(::open(path.c_str(), O_RDWR | O_CREAT | O_TRUNC, 0644)), name(path) {
    if (descriptor < 0) throw std::runtime_error("cannot create " + path.string());
  }
  ~File() {
    ::close(descriptor);
    ::unlink(name.c_str());
  }
  File(const File&) = delete;
  File& operator=(const File&) = delete;

  void write(const void* bytes, size_t count, size_t position) const {
    if (pwrite(descriptor, bytes, count, static_cast<off_t>(position)) !=
        static_cast<ssize_t>(count)) {
      throw std::runtime_error("cannot write");
    }
  }
  void read(void* bytes, size_t count, size_t position) const {
    if (pread(descriptor, bytes, count, static_cast<off_t>(position)) < 0) {
      throw std::runtime_error("cannot read");
    }
  }
  void fill(size_t bytes) const {
    const std::vector<char> piece(kPiece, 'r');
    for (size_t at = 0; at < bytes; at += kPiece)
      write(piece.data(), std::min(kPiece, bytes - at), at);
  }

  int descriptor;
  std::filesystem::path name;
};

struct Raw {
  size_t block;  // bytes of a block
  size_t records;
  std::filesystem::path scratch;

  std::filesystem::path path(const char* name) const { return scratch / name; }
  size_t bytes() const { return block * records; }
};

void append(const Raw& raw) {
  static File file(raw.path("raw-append"));
  static size_t end = 8192;
  std::vector<char> block(raw.block, 'b');
  const char slot[144] = {};
  struct stat status;
  for (int i = 0; i < 2000; ++i) {
    fstat(file.descriptor, &status);
    file.write(block.data(), block.size(), end);
    file.write(slot, 8, end - raw.block + 39);
    file.write(slot, sizeof slot, 22);
    end += raw.block;
  }
}

void copyFile(const Raw& raw, const File& from) {
  const File to(raw.path("raw-copy"));
  std::vector<char> piece(kPiece);
  for (size_t at = 0; at < raw.bytes(); at += kPiece) {
    const size_t count = std::min(kPiece, raw.bytes() - at);
    from.read(piece.data(), count, at);
    to.write(piece.data(), count, at);
  }
}

void readAll(const Raw& raw, const File& file) {
  std::vector<char> piece(kPiece);
  for (size_t at = 0; at < raw.bytes(); at += kPiece) file.read(piece.data(), kPiece, at);
}

void readAnywhere(const Raw& raw, const File& file) {
  std::vector<char> block(raw.block);
  std::mt19937_64 random(2);
  for (int i = 0; i < 2000; ++i)
    file.read(block.data(), raw.block, random() % raw.records * raw.block);
}

void copyHeaders(const Raw& raw, const std::vector<char>& memory) {
  char header[55];
  for (size_t at = 0; at + raw.block <= memory.size(); at += raw.block) {
    std::memcpy(header, memory.data() + at, sizeof header);
    benchmark::DoNotOptimize(header);
  }
  static_cast<void>(raw);
}

template <typename Run>
void add(
    const char* workload, size_t valueSize, const Raw& raw, double operations, Run run,
    const std::function<void()>& prepare = [] {}) {
  const std::string name = std::string(workload) + "/raw/" + std::to_string(valueSize) + "/" +
                           std::to_string(raw.records);
  benchmark::RegisterBenchmark(name.c_str(),
                               [=](benchmark::State& state) {
                                 for (auto unused : state) {
                                   static_cast<void>(unused);
                                   prepare();
                                   const auto start = Clock::now();
                                   run();
                                   const std::chrono::duration<double> spent = Clock::now() - start;
                                   state.SetIterationTime(spent.count() / operations);
                                 }
                               })
      ->UseManualTime()
      ->Iterations(1)
      ->Unit(benchmark::kNanosecond);
}

}  // namespace

void registerRaw(size_t valueSize, size_t records, const std::filesystem::path& scratch) {
  const Raw raw{valueSize + kOverhead, records, scratch};
  const auto each = static_cast<double>(records);
  const auto file = [raw, kept = std::make_shared<std::unique_ptr<File>>()]() -> const File& {
    if (*kept == nullptr) {
      *kept = std::make_unique<File>(raw.path(("raw-" + std::to_string(raw.bytes())).c_str()));
      (*kept)->fill(raw.bytes());
    }
    return **kept;
  };
  const auto memory = [raw,
                       kept = std::make_shared<std::vector<char>>()]() -> const std::vector<char>& {
    if (kept->empty()) kept->resize(raw.bytes(), 'm');
    return *kept;
  };
  add("append", valueSize, raw, 2000, [raw] { append(raw); });
  // Making and removing the file is not timed, as it is not for the stores.
  const auto fresh = std::make_shared<std::unique_ptr<File>>();
  add(
      "batch", valueSize, raw, each, [=] { (*fresh)->fill(raw.bytes()); },
      [=] {
        fresh->reset();
        *fresh = std::make_unique<File>(raw.path("raw-batch"));
      });
  add("scan-ids", valueSize, raw, each, [=] { copyHeaders(raw, memory()); });
  add("scan-payloads", valueSize, raw, each, [=] { readAll(raw, file()); });
  add("lookup", valueSize, raw, 2000, [=] { readAnywhere(raw, file()); });
  add("compact", valueSize, raw, each, [=] { copyFile(raw, file()); });
}

}  // namespace bench
