// What changes when a file is written to: its size and its times, whoever writes, and a count of
// the writes of this process.
#pragma once

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>

#include "platform/handles/file_entries.h"

namespace qvdbase::platform {

// Times are in nanoseconds. Those of a device belong to its name and not to its bytes: they are 0.
struct FileStamp {
  int64_t size = 0;
  int64_t modifyTime = 0;
  int64_t statusTime = 0;

  bool operator==(const FileStamp&) const = default;
};

// The times of a file change in ticks of the system's clock, of up to ten milliseconds: a second
// write in the same tick leaves them unchanged.
inline constexpr std::chrono::milliseconds kFileTimeTick(12);

// Some file systems have times of whole seconds only, and some of every second one.
inline constexpr std::chrono::milliseconds kWholeSecondsTick(2012);

// Whether a write now could leave the stamp unchanged.
bool isFresh(const FileStamp& stamp);

// Store the stamp of a file. False when the host does not report it.
bool stampOfDescriptor(int descriptor, FileStamp* stamp);
bool stampOf(int16_t file, FileStamp* stamp);

// To be called with each write of this process to a file, in the file's turn.
inline void countWrite(FileEntry& entry) {
  const std::atomic_ref writes(entry.writes);
  writes.store(writes.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
}

// How many there have been, also through other numbers of the file; a view is asked for those of
// the file. 0 for a number that is not in use.
size_t writesHere(int16_t file);

// Whether this number is the only one of this process through which the file can be written to.
bool isOnlyWriterHere(int16_t file);

}  // namespace qvdbase::platform
