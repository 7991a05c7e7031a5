// Payloads that say what they are, so that a reader can verify that one was written once as it is:
// what they belong to, the version, their length, and then one byte again and again.
#pragma once

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <optional>
#include <span>
#include <string>

namespace qvdbase::test {

struct Label {
  uint64_t owner;    // the record, or the table
  uint32_t version;  // which decides about the byte
  uint32_t size;     // of the whole payload
};

inline char fillOf(const Label& label) {
  return static_cast<char>('a' + (label.owner * 7 + label.version * 3) % 26);
}

inline std::string payloadOf(uint64_t owner, uint32_t version, uint32_t extra) {
  const Label label{owner, version, static_cast<uint32_t>(sizeof(Label)) + extra};
  std::string bytes(label.size, fillOf(label));
  std::memcpy(bytes.data(), &label, sizeof label);
  return bytes;
}

// Whether the bytes are one payload of that owner, whole and unmixed.
inline bool isOnePayload(std::span<const std::byte> bytes, uint64_t owner) {
  Label label = {};
  if (bytes.size() < sizeof label) return false;
  std::memcpy(&label, bytes.data(), sizeof label);
  if (label.owner != owner || label.size != bytes.size()) return false;
  for (const std::byte byte : bytes.subspan(sizeof label)) {
    if (static_cast<char>(byte) != fillOf(label)) return false;
  }
  return true;
}

}  // namespace qvdbase::test
