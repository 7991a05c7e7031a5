// Payloads of imported files that are stored in another form than the files had.
// docs/imported-files.md describes them; to the engine they are bytes like all others.
//
// A payload is a head, the data, and last the length of the file's contents.
#pragma once

#include <cstdint>
#include <string_view>

#include "format/imported_list.h"

namespace qvdbase::format::coded {

// Head, offsets from its start.
inline constexpr std::string_view kMark = "QVcoded";
inline constexpr size_t kMethod = kMark.size();  // uint8
inline constexpr size_t kKey = kMethod + 1;      // the key of the table's list of names
inline constexpr size_t kHeadSize = kKey + imported::kKeySize;
inline constexpr size_t kLengthSize = 8;  // uint64, most significant byte first
static_assert(kHeadSize == 24);

enum class Method : uint8_t { unchanged = 0, zstd = 1 };

// Contents have at most so many times as many bytes as the payload, so that a small file cannot
// fill a disk.
inline constexpr uint64_t kLargestRatio = 1024;

// A zstd frame that a decoder skips: its mark and the number of bytes that follow, both least
// significant byte first.
inline constexpr uint32_t kSkippedFrame = 0x184D2A50;
inline constexpr size_t kSkippedHeadSize = 8;

}  // namespace qvdbase::format::coded
