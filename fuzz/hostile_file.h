// What the fuzz targets on database files share: the input as a file, and limits to what the
// library may ask of its host on its account.
//
// A file of a few thousand bytes can claim payloads of 4 GiB and chains of four thousand million
// records. None of that may be believed: the memory that one request asks for, what is read and
// what is written stay in proportion to the file. A request beyond that ends the target.
#pragma once

#include <qvdbase/base.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "format/layout.h"
#include "platform/host/system_calls.h"

namespace qvdbase::fuzz {

// Ends the target, as a crash would, when something that must hold does not.
inline void require(bool condition, const char* what) {
  if (condition) return;
  std::fprintf(stderr, "not so: %s\n", what);
  std::abort();
}

// Counts what the library asks of the host, for as long as it lives.
class WorkLimits {
 public:
  // Packing a record takes the space that it claims, up to 4 GB for each: with `diskFills` the
  // host has no more space beyond the limit, where a write is otherwise a finding.
  explicit WorkLimits(size_t inputSize, bool diskFills = false) {
    diskFills_ = diskFills;
    diskWasFull_ = false;
    calls_ = platform::hostSystemCalls();
    calls_.allocate = [](size_t size) {
      require(size <= largest_, "memory is asked for in proportion to the file");
      void* memory = platform::hostSystemCalls().allocate(size);
      if (size == format::kFillChunkSize) fillChunks_.insert(memory);
      return memory;
    };
    calls_.release = [](void* memory) {
      fillChunks_.erase(memory);
      platform::hostSystemCalls().release(memory);
    };
    calls_.readAt = [](int descriptor, void* buffer, size_t count, off_t position) {
      require(++reads_ <= kMostCalls, "reads end");
      return platform::hostSystemCalls().readAt(descriptor, buffer, count, position);
    };
    calls_.writeAt = [](int descriptor, const void* buffer, size_t count, off_t position) {
      if (diskFills_ && written_ + count > mostWritten_) {
        diskWasFull_ = true;
        errno = ENOSPC;
        return ssize_t{-1};
      }
      written_ += count;
      require(++writes_ <= kMostCalls && written_ <= mostWritten_,
              "what is written is in proportion to the file");
      return platform::hostSystemCalls().writeAt(descriptor, buffer, count, position);
    };
    calls_.sync = [](int) { return 0; };  // nothing here is worth waiting for the device
    largest_ = inputSize * 16 + kSlack;
    mostWritten_ = (inputSize + kSlack) * 64;
    written_ = reads_ = writes_ = 0;
    platform::replaceSystemCalls(&calls_);
  }
  // A write of fill that fails does not release its chunk, as documented.
  ~WorkLimits() {
    platform::replaceSystemCalls(nullptr);
    for (void* chunk : fillChunks_) platform::hostSystemCalls().release(chunk);
    fillChunks_.clear();
  }

  // Calls operation() on a host whose disk fills at the limit, which begins anew with it and after
  // it. Returns whether it was reached: what the operation returned says nothing then.
  template <typename Operation>
  static bool fillsDisk(Operation operation) {
    const bool before = std::exchange(diskFills_, true);
    written_ = writes_ = 0;
    operation();
    written_ = writes_ = 0;
    diskFills_ = before;
    return std::exchange(diskWasFull_, false);
  }

  WorkLimits(const WorkLimits&) = delete;
  WorkLimits& operator=(const WorkLimits&) = delete;

 private:
  static constexpr size_t kSlack = size_t{1} << 20;
  static constexpr uint64_t kMostCalls = 2'000'000;

  // The calls are plain functions.
  static inline platform::SystemCalls calls_;
  static inline std::set<void*> fillChunks_;
  static inline bool diskFills_ = false;
  static inline bool diskWasFull_ = false;
  static inline size_t largest_ = 0;
  static inline uint64_t mostWritten_ = 0;
  static inline uint64_t written_ = 0;
  static inline uint64_t reads_ = 0;
  static inline uint64_t writes_ = 0;
};

// A folder of this process's own, gone with it.
class Folder {
 public:
  Folder() {
    const std::string name = "qvdbase-fuzz-" + std::to_string(std::random_device{}());
    path_ = std::filesystem::temp_directory_path() / name;
    std::filesystem::create_directory(path_);
  }
  ~Folder() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
  }

  std::filesystem::path operator/(const char* name) const { return path_ / name; }

 private:
  std::filesystem::path path_;
};

// A path in this process's folder.
inline std::filesystem::path scratchPath(const char* name) {
  static const Folder folder;
  return folder / name;
}

// The path as the C interface takes it.
inline std::vector<QVWCHAR> widePath(const std::filesystem::path& path) {
  const std::u16string text = path.u16string();
  std::vector<QVWCHAR> wide(text.begin(), text.end());
  wide.push_back(0);
  return wide;
}

inline void writeBytes(const std::filesystem::path& path, const uint8_t* data, size_t size) {
  std::ofstream file(path, std::ios::binary | std::ios::trunc);
  file.write(reinterpret_cast<const char*>(data), static_cast<std::streamsize>(size));
  require(file.good(), "the scratch file can be written");
}

inline std::vector<uint8_t> readBytes(const std::filesystem::path& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

// The identifiers of a table and of the block that its chain begins with, or whatever is there.
// They are read without the library, so that no damage keeps operations from being tried.
struct TableNumbers {
  uint64_t table = 0;
  uint64_t record = 0;
};

inline uint64_t bigEndianAt(const uint8_t* data, size_t size, uint64_t offset) {
  uint64_t number = 0;
  if (offset > size || size - offset < 8) return 0;
  for (size_t i = 0; i < 8; ++i) number = number << 8 | data[offset + i];
  return number;
}

inline std::vector<TableNumbers> firstTables(const uint8_t* data, size_t size, size_t most) {
  std::vector<TableNumbers> tables;
  for (size_t begin = format::kDirectoryPos;
       tables.size() < most && begin + format::kSlotImageSize <= size;
       begin += format::kSlotImageSize) {
    uint64_t first = 0;
    for (size_t i = 8; i-- > 0;)
      first = first << 8 | data[begin + format::slot::kFirstRecordPos + i];
    const uint64_t record =
        first < size ? bigEndianAt(data, size, first + format::record::kRecordID) : 0;
    tables.push_back({bigEndianAt(data, size, begin + format::slot::kTableID), record});
  }
  return tables;
}

}  // namespace qvdbase::fuzz
