// Where the bytes of a database image come from: a file, memory, or a part of another source.
//
// What reads by the format alone (the checker, the salvager) goes through this interface. The size
// is taken once; a source that turns out shorter later gives short reads, nothing worse.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>

#include "platform/handles/read_only_file.h"

namespace qvdbase::survey {

class ByteSource {
 public:
  virtual ~ByteSource() = default;

  virtual int64_t size() const = 0;

  // Reads up to `count` bytes at `position`; returns how many there were.
  virtual size_t readAt(int64_t position, void* buffer, size_t count) const = 0;

  // Reads `count` bytes, all or nothing. A host that does not give them is asked a second time.
  bool readAll(int64_t position, void* buffer, size_t count) const {
    return readAt(position, buffer, count) == count || readAt(position, buffer, count) == count;
  }

  // The first part, ending after `position`, that reads as zeros because it was never stored.
  virtual std::optional<platform::FileHole> nextHole(int64_t /*position*/) const {
    return std::nullopt;
  }

 protected:
  // How many of `count` bytes at `position` lie inside.
  size_t available(int64_t position, size_t count) const;
};

// The first position after `position`, where a byte could not be read, that can be read again;
// `end` if there is none before it. Asks page by page, and looks closer where a page can be read.
int64_t nextReadable(const ByteSource& source, int64_t position, int64_t end);

class MemorySource : public ByteSource {
 public:
  explicit MemorySource(std::span<const std::byte> bytes) : bytes_(bytes) {}

  int64_t size() const override { return static_cast<int64_t>(bytes_.size()); }
  size_t readAt(int64_t position, void* buffer, size_t count) const override;

 private:
  std::span<const std::byte> bytes_;
};

class FileSource : public ByteSource {
 public:
  // The file must be open and outlive the source.
  FileSource(const platform::ReadOnlyFile& file, int64_t size) : file_(file), size_(size) {}

  int64_t size() const override { return size_; }
  size_t readAt(int64_t position, void* buffer, size_t count) const override;
  std::optional<platform::FileHole> nextHole(int64_t position) const override;

 private:
  const platform::ReadOnlyFile& file_;
  int64_t size_;
};

// A part of another source, taken for a whole one.
class PartSource : public ByteSource {
 public:
  // The bytes of `whole`, which must outlive the part, from `begin` to before `end`. Where `begin`
  // is below 0, zeros replace the bytes that are missing at the front.
  PartSource(const ByteSource& whole, int64_t begin, int64_t end)
      : whole_(whole), begin_(begin), end_(end) {}

  int64_t size() const override { return end_ > begin_ ? end_ - begin_ : 0; }
  size_t readAt(int64_t position, void* buffer, size_t count) const override;
  std::optional<platform::FileHole> nextHole(int64_t position) const override;

 private:
  const ByteSource& whole_;
  int64_t begin_;
  int64_t end_;
};

}  // namespace qvdbase::survey
