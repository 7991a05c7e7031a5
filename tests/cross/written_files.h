// Database files that come out the same on every machine: written through the C interface, with
// clocks that do not move and a generator that starts afresh before every identifier.
#pragma once

#include <cstdint>
#include <filesystem>

namespace qvdbase::test {

inline constexpr uint32_t kWrittenAt = 0x87654321;  // beyond what 31 bits of seconds hold
inline constexpr uint64_t kCounter = 0x00000005A0000001;

// Writes "records.qvd" and what maintenance makes of it: "packed.qvd", "renumbered.qvd" and
// "repaired.qvd"; and "sequence.qvd", what a long sequence of changes of all sizes leaves. Throws
// std::runtime_error when a call fails.
void writeFiles(const std::filesystem::path& folder);

}  // namespace qvdbase::test
