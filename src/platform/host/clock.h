// The host's clocks, in the widths that the database stores and draws identifiers from.
#pragma once

#include <cstdint>

#include "platform/host/system_calls.h"

namespace qvdbase::platform {

// Seconds since the epoch, modulo 2^32: what a record's 32-bit time fields hold.
inline uint32_t secondsSinceEpoch() {
  return static_cast<uint32_t>(systemCalls().time());
}

// Microseconds since a fixed moment of the past, such as the start of the machine.
inline uint64_t microsecondCounter() {
  return systemCalls().microseconds();
}

// Lets that much time pass, less when a signal arrives.
inline void pauseFor(uint64_t microseconds) {
  systemCalls().pause(microseconds);
}

// The processor time that this process has used, in the host's own ticks, modulo 2^32.
inline uint32_t processClock() {
  return static_cast<uint32_t>(systemCalls().processClock());
}

}  // namespace qvdbase::platform
