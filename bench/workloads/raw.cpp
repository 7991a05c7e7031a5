#include "workloads/raw.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <optional>
#include <random>
#include <stdexcept>
#include <vector>

#include "platform/host/large_array.h"
#include "support/xxh3.h"
#include "workloads/workload.h"

namespace bench {
namespace {

constexpr size_t kHeader = 55;     // bytes of a block before its value; a mark follows the value
constexpr size_t kDirectory = 22;  // where the slot of a table is
constexpr size_t kSlot = 144;
constexpr size_t kLink = 8;
constexpr size_t kPiece = size_t{1} << 20;  // of a large transfer

// What a file is written in whose bytes are changed later: the page cache holds larger pieces in
// larger units, and a write of a few bytes to such a unit takes longer.
constexpr size_t kSmallPiece = size_t{64} << 10;

class File {
 public:
  explicit File(std::filesystem::path path)
      : path_(std::move(path)), descriptor_(::open(path_.c_str(), O_RDWR | O_CREAT, 0644)) {
    if (descriptor_ < 0) failed("raw: no file");
  }
  ~File() {
    ::close(descriptor_);
    ::unlink(path_.c_str());
  }
  File(const File&) = delete;
  File& operator=(const File&) = delete;

  const std::filesystem::path& path() const { return path_; }

  void write(const void* bytes, size_t count, size_t position) const {
    if (pwrite(descriptor_, bytes, count, static_cast<off_t>(position)) !=
        static_cast<ssize_t>(count)) {
      failed("raw: cannot write");
    }
  }
  void read(void* bytes, size_t count, size_t position) const {
    if (pread(descriptor_, bytes, count, static_cast<off_t>(position)) < 0) {
      failed("raw: cannot read");
    }
  }
  void fill(size_t bytes, size_t pieceSize) const {
    const std::vector<char> piece(pieceSize, 'r');
    for (size_t at = 0; at < bytes; at += pieceSize) {
      write(piece.data(), std::min(pieceSize, bytes - at), at);
    }
  }
  void waitForDevice() const { fdatasync(descriptor_); }

 private:
  std::filesystem::path path_;
  int descriptor_;
};

}  // namespace

using qvdbase::platform::LargeArray;

constexpr char kInMemory = 'm';  // each byte of the blocks in memory

// As large as an entry of an index.
struct Named {
  size_t key;
  size_t number;
};

class RawStore {
 public:
  RawStore(Size size, std::filesystem::path scratch)
      : block(size.value + kHeader + 1),
        records(size.records),
        end(block * records),
        scratch_(std::move(scratch)) {}

  const File& file() {
    if (!file_) {
      file_.emplace(path("raw-file"));
      file_->fill(bytes(), kSmallPiece);
      file_->waitForDevice();
    }
    return *file_;
  }
  // In large pages where the host has them.
  const LargeArray<char>& memory() {
    if (memory_.empty()) {
      memory_ = LargeArray<char>(bytes());
      std::fill(memory_.begin(), memory_.end(), kInMemory);
    }
    return memory_;
  }
  // The number of a block for each other one.
  const LargeArray<Named>& table() {
    if (table_.empty()) {
      table_ = LargeArray<Named>(records);
      for (size_t i = 0; i < records; ++i) table_[i] = {i, i};
      std::shuffle(table_.begin(), table_.end(), random_);
    }
    return table_;
  }
  size_t bytes() const { return block * records; }
  std::filesystem::path path(const char* name) const { return scratch_ / name; }

  // Places of blocks, drawn before the time begins.
  std::vector<size_t> anyPlaces(size_t count) {
    std::vector<size_t> places(count);
    for (size_t& place : places) place = random_() % records * block;
    return places;
  }

  const size_t block;  // bytes of a block
  const size_t records;
  size_t end;  // of the file, which grows

 private:
  std::filesystem::path scratch_;
  std::optional<File> file_;
  LargeArray<char> memory_;
  LargeArray<Named> table_;
  std::mt19937_64 random_{2};
};

std::shared_ptr<RawStore> makeRawStore(Size size, const std::filesystem::path& scratch) {
  return std::make_shared<RawStore>(size, scratch);
}

namespace {

// Keeps the compiler from leaving out a copy that nothing reads.
void use(const void* bytes) {
  asm volatile("" : : "r"(bytes) : "memory");
}

void copyFromMemory(RawStore& raw, Turn& turn, size_t offset, size_t count) {
  const LargeArray<char>& memory = raw.memory();
  std::vector<char> copy(count);
  const size_t walks = std::max<size_t>(1, 100'000 / raw.records);
  turn.timed(raw.records * walks, [&] {
    for (size_t i = 0; i < walks; ++i) {
      for (size_t at = 0; at < memory.size(); at += raw.block) {
        std::memcpy(copy.data(), memory.begin() + at + offset, count);
        use(copy.data());
      }
    }
  });
}

void copyHeaders(RawStore& raw, Turn& turn) {
  copyFromMemory(raw, turn, 0, kHeader);
}

void copyValues(RawStore& raw, Turn& turn) {
  copyFromMemory(raw, turn, kHeader, raw.block - kHeader - 1);
}

// The checksum of each value alone, without the bytes that name its record.
void hashValues(RawStore& raw, Turn& turn) {
  const LargeArray<char>& memory = raw.memory();
  const size_t walks = std::max<size_t>(1, 100'000 / raw.records);
  turn.timed(raw.records * walks, [&] {
    for (size_t i = 0; i < walks; ++i) {
      for (size_t at = 0; at < memory.size(); at += raw.block) {
        const auto hash =
            qvdbase::support::xxh3_128(memory.begin() + at + kHeader, raw.block - kHeader - 1);
        use(&hash);
      }
    }
  });
}

void copyAnyBlock(RawStore& raw, Turn& turn) {
  const LargeArray<char>& memory = raw.memory();
  const std::vector<size_t> places = raw.anyPlaces(kReads);
  std::vector<char> copy(raw.block);
  turn.timed(places.size(), [&] {
    for (const size_t place : places) {
      std::memcpy(copy.data(), memory.begin() + place, copy.size());
      use(copy.data());
    }
  });
}

// Which number is asked for depends on the bytes that were copied last, as in a program that waits
// for each answer: the processor cannot look for several at once.
void findAnyBlock(RawStore& raw, Turn& turn) {
  const LargeArray<char>& memory = raw.memory();
  const LargeArray<Named>& table = raw.table();
  std::vector<size_t> numbers = raw.anyPlaces(kReads);
  for (size_t& number : numbers) number /= raw.block;
  std::vector<char> copy(raw.block, kInMemory);
  turn.timed(numbers.size(), [&] {
    for (const size_t number : numbers) {
      use(copy.data());
      const size_t asked = number + static_cast<size_t>(copy.back() - kInMemory);
      std::memcpy(copy.data(), memory.begin() + table[asked].number * raw.block, copy.size());
    }
  });
}

void readAnyBlock(RawStore& raw, Turn& turn) {
  const File& file = raw.file();
  const std::vector<size_t> places = raw.anyPlaces(kReads);
  std::vector<char> copy(raw.block);
  turn.timed(places.size(), [&] {
    for (const size_t place : places) file.read(copy.data(), copy.size(), place);
  });
}

void readAll(RawStore& raw, Turn& turn) {
  const File& file = raw.file();
  std::vector<char> piece(kPiece);
  turn.timed(raw.records, [&] {
    for (size_t at = 0; at < raw.bytes(); at += kPiece) file.read(piece.data(), kPiece, at);
  });
}

void openAndReadBlock(RawStore& raw, Turn& turn) {
  const std::filesystem::path path = raw.file().path();
  std::vector<char> copy(raw.block);
  for (const size_t place : raw.anyPlaces(20)) {
    turn.timed(1, [&] {
      const int descriptor = ::open(path.c_str(), O_RDWR);
      if (pread(descriptor, copy.data(), copy.size(), static_cast<off_t>(place)) < 0) {
        failed("raw: cannot read");
      }
      ::close(descriptor);
    });
  }
}

void writeAnyValue(RawStore& raw, Turn& turn) {
  const File& file = raw.file();
  const std::vector<char> value(raw.block - kHeader - 1, 'v');
  const std::vector<size_t> places = raw.anyPlaces(changesOf(raw.records));
  turn.timed(places.size(), [&] {
    for (const size_t place : places) file.write(value.data(), value.size(), place + kHeader);
  });
}

void appendBlock(RawStore& raw, Turn& turn) {
  const File& file = raw.file();
  const std::vector<char> block(raw.block, 'b');
  const char slot[kSlot] = {};
  const size_t count = changesOf(raw.records);
  turn.timed(count, [&] {
    for (size_t i = 0; i < count; ++i) {
      file.write(block.data(), block.size(), raw.end);
      file.write(slot, kLink, raw.end - raw.block);
      file.write(slot, kSlot, kDirectory);
      raw.end += raw.block;
    }
  });
}

void appendDurably(RawStore& raw, Turn& turn) {
  const File& file = raw.file();
  const std::vector<char> block(raw.block, 'b');
  turn.timed(kCommits, [&] {
    for (size_t i = 0; i < kCommits; ++i) {
      file.write(block.data(), block.size(), raw.end);
      file.waitForDevice();
      raw.end += raw.block;
    }
  });
}

// As many places as there are changes, and in the order of the file.
void changePlaces(RawStore& raw, Turn& turn) {
  const File& file = raw.file();
  const size_t operations = operationsOfTransaction(raw.records);
  const char links[2 * kSlot] = {};
  const std::vector<char> blocks(raw.block * operations / 2, 'b');
  std::vector<size_t> places = raw.anyPlaces(operations / 2);
  std::sort(places.begin(), places.end());
  turn.timed(operations, [&] {
    file.write(blocks.data(), blocks.size(), raw.end);
    for (const size_t place : places) file.write(links, sizeof links, place);
  });
  raw.end += blocks.size();
}

void moveAnyBlock(RawStore& raw, Turn& turn) {
  const File& file = raw.file();
  const std::vector<char> block(raw.block + (raw.block - kHeader - 1) / 2, 'b');
  const char link[kLink] = {};
  const std::vector<size_t> places = raw.anyPlaces(changesOf(raw.records));
  turn.timed(places.size(), [&] {
    for (const size_t place : places) {
      file.write(block.data(), block.size(), raw.end);
      file.write(link, kLink, place);
      file.write(link, kLink, place + kLink);
      raw.end += block.size();
    }
  });
}

void unlinkAnyBlock(RawStore& raw, Turn& turn) {
  const File& file = raw.file();
  const char slot[kSlot] = {};
  const std::vector<size_t> places = raw.anyPlaces(changesOf(raw.records));
  turn.timed(places.size(), [&] {
    for (const size_t place : places) {
      file.write(slot, kLink, place);
      file.write(slot, kLink, place + kLink);
      file.write(slot, kSlot, kDirectory);
    }
  });
}

void writeAll(RawStore& raw, Turn& turn) {
  const File fresh(raw.path("raw-batch"));
  turn.timed(raw.records, [&] { fresh.fill(raw.bytes(), kPiece); });
}

void copyFile(RawStore& raw, Turn& turn) {
  const File& from = raw.file();
  const File to(raw.path("raw-copy"));
  std::vector<char> piece(kPiece);
  turn.timed(raw.records, [&] {
    for (size_t at = 0; at < raw.bytes(); at += kPiece) {
      const size_t count = std::min(kPiece, raw.bytes() - at);
      from.read(piece.data(), count, at);
      to.write(piece.data(), count, at);
    }
    to.waitForDevice();
  });
}

constexpr RawLimit kLimits[] = {
    {"scan-ids", "raw-memcpy", "copy each header out of memory that holds all blocks", copyHeaders},
    {"scan-payloads", "raw-memcpy", "copy each value out of the same memory", copyValues},
    {"scan-payloads", "raw-hash", "hash each value in the same memory, as checksums do",
     hashValues},
    {"lookup", "raw-memcpy", "copy a random block out of the same memory", copyAnyBlock},
    {"lookup", "raw-table",
     "find a random block in a table in memory, copy it, and only then go on", findAnyBlock},
    {"lookup", "raw-pread", "pread of a random block", readAnyBlock},
    {"open+read", "raw-pread", "open, one pread, close", openAndReadBlock},
    {"check", "raw-pread", "large preads of the whole file", readAll},
    {"ycsb-c", "raw-memcpy", "copy a random block out of memory", copyAnyBlock},
    {"update", "raw-pwrite", "pwrite of the value in a random block", writeAnyValue},
    {"append", "raw-pwrite", "three pwrites: a block, a link, a slot", appendBlock},
    {"grow", "raw-pwrite", "three pwrites: a block, two links", moveAnyBlock},
    {"delete", "raw-pwrite", "three pwrites: two links, a slot", unlinkAnyBlock},
    {"transaction", "raw-pwrite",
     "one pwrite of the new blocks, and one in each place of every other operation", changePlaces},
    {"commit", "raw-append", "one pwrite of a block at the end, and fdatasync", appendDurably},
    {"batch", "raw-pwrite", "large pwrites of the bytes of all blocks", writeAll},
    {"compact", "raw-copy", "large preads and pwrites of the whole file, and fdatasync", copyFile},
    {"compact-in-order", "raw-copy", "the same", copyFile},
};

}  // namespace

std::span<const RawLimit> rawLimits() {
  return kLimits;
}

}  // namespace bench
