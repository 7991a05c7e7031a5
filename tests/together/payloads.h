// Payloads that say what they are, so that a reader can verify that one was written once as it is:
// what they belong to, the version, their length, and then one byte again and again, which says
// something of both.
#pragma once

#include <cstdint>
#include <cstring>
#include <span>
#include <string>

namespace qvdbase::test {

struct Label {
  uint64_t owner;  // the record, or the table
  uint32_t version;
  uint32_t size;  // of the whole payload
};

// Of each owner's own: those of others differ, unless they are 32 apart.
inline char fillOf(uint64_t owner, uint32_t version) {
  return static_cast<char>(owner % 32 * 8 + version % 8);
}

inline std::string payloadOf(uint64_t owner, uint32_t version, uint32_t extra) {
  const Label label{owner, version, static_cast<uint32_t>(sizeof(Label)) + extra};
  std::string bytes(label.size, fillOf(owner, version));
  std::memcpy(bytes.data(), &label, sizeof label);
  return bytes;
}

// Follows table data that were written over longer ones.
inline constexpr char kEndMark = 'i';

// What a reader was given as the payload of an owner.
enum class Given {
  one,    // a payload, whole
  mixed,  // parts of several payloads of the owner, and what lay between them
  other   // what was never in a payload of the owner
};

inline Given classify(std::span<const std::byte> bytes, uint64_t owner) {
  Label label = {};
  if (bytes.size() < sizeof label) return Given::other;
  std::memcpy(&label, bytes.data(), sizeof label);
  if (label.owner != owner) return Given::other;
  bool isOne = label.size == bytes.size();
  for (const std::byte byte : bytes.subspan(sizeof label)) {
    const char fill = static_cast<char>(byte);
    isOne = isOne && fill == fillOf(owner, label.version);
    if (fill != kEndMark && (fill & ~7) != (fillOf(owner, 0) & ~7)) return Given::other;
  }
  return isOne ? Given::one : Given::mixed;
}

inline bool isOnePayload(std::span<const std::byte> bytes, uint64_t owner) {
  return classify(bytes, owner) == Given::one;
}

}  // namespace qvdbase::test
