// Reading and writing by file reference number: what QVFile's two transfers do, inline, so that the
// engine's reads of one, two, four and eight bytes cost a few instructions each.
#pragma once

#include <cstdint>

#include "platform/handles/open_files.h"
#include "platform/transfer/transfer.h"

namespace qvdbase::support {

// True when `count` bytes were moved. False for a number that is not in use, with *moved unwritten.
inline bool readFile(int16_t file, void* buffer, uint32_t count, uint32_t* moved) {
  platform::OpenFile* openFile = platform::findOpenFile(file);
  return openFile != nullptr && platform::readAtPosition(*openFile, buffer, count, moved);
}

inline bool writeFile(int16_t file, const void* buffer, uint32_t count, uint32_t* moved) {
  platform::OpenFile* openFile = platform::findOpenFile(file);
  return openFile != nullptr && platform::writeAtPosition(*openFile, buffer, count, moved);
}

// The same, `gap` bytes after the position. What lies between belongs to the header that is being
// written and stays unchanged. False also where that position is beyond the largest.
inline bool writeFileAfter(int16_t file, uint32_t gap, const void* buffer, uint32_t count,
                           uint32_t* moved) {
  platform::OpenFile* openFile = platform::findOpenFile(file);
  return openFile != nullptr && platform::writeAfterGap(*openFile, gap, buffer, count, moved);
}

// The file's position, or -1 for a number that is not in use.
inline int64_t positionOf(int16_t file) {
  const platform::OpenFile* openFile = platform::findOpenFile(file);
  return openFile == nullptr ? -1 : openFile->position;
}

// Sets the position, counted from the start. False for a negative one and for a number that is not
// in use.
inline bool seekTo(int16_t file, int64_t position) {
  platform::OpenFile* openFile = platform::findOpenFile(file);
  if (openFile == nullptr || position < 0) return false;
  openFile->position = position;
  return true;
}

// Bytes of the file where they lie in memory, until the next transfer; null when they cannot be
// obtained that way. Moves no position.
inline const unsigned char* viewFile(int16_t file, int64_t position, uint32_t count) {
  const platform::OpenFile* openFile = platform::findOpenFile(file);
  return openFile == nullptr ? nullptr : platform::viewBytes(*openFile, position, count);
}

// Reads some bytes into memory inside a scope, for the reads that will follow there. What cannot be
// read is left to them.
inline void readAhead(int16_t file, int64_t position, uint32_t count) {
  const platform::OpenFile* openFile = platform::findOpenFile(file);
  if (openFile != nullptr) platform::readAhead(*openFile, position, count);
}

}  // namespace qvdbase::support
