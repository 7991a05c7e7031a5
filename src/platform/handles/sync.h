// Waiting for the device.
#pragma once

#include <cstdint>

namespace qvdbase::platform {

// Waits until the device has everything that was written to the file. False for a number that is
// not in use and when the host reports a failure.
bool syncFile(int16_t file);

}  // namespace qvdbase::platform
