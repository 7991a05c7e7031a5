// Reading and writing at a file's position.
//
// All bytes that go between a file and the library pass here. A transfer scope spans one exported
// call of the library: between its begin and its end the file is worked on by this call alone.
#ifndef QVDBASE_PLATFORM_TRANSFER_H
#define QVDBASE_PLATFORM_TRANSFER_H

#include <cstdint>

#include "platform/open_files.h"

namespace qvdbase::platform {

// Reads `count` bytes at the position and moves it behind what was read. Stores the number of bytes
// read. True when it is `count`; fewer come when the file ends or the host fails.
bool readAtPosition(OpenFile& file, void* buffer, uint32_t count, uint32_t* moved);

// Writes `count` bytes at the position and moves it behind what was written. Stores the number of
// bytes written. True when it is `count`, and the file is open for writing.
bool writeAtPosition(OpenFile& file, const void* buffer, uint32_t count, uint32_t* moved);

// Stores the file's length in bytes.
bool fileLength(const OpenFile& file, int64_t* length);

// Opens and ends a scope on a file; scopes may be nested. A number that is not in use is ignored.
// The end returns true when everything that was written is with the operating system.
void beginTransferScope(int16_t file);
bool endTransferScope(int16_t file);

// Hands everything that was written to the operating system. True when it has it all.
bool flushTransfers();

}  // namespace qvdbase::platform

#endif
