// The memory in which a call keeps what it has read ahead and what it has still to write: far too
// much for each thread to have by itself. A thread gets it with its first scope and returns it when
// it ends.
#pragma once

#include "platform/transfer/gathered_writes.h"
#include "platform/transfer/read_windows.h"

namespace qvdbase::platform {

struct CallBuffers {
  GatheredWrites::Buffers gathered;
  ReadWindows::Buffers windows;
};

// Buffers for this thread until it ends, or null when there is no memory for more. To be asked for
// once in a thread.
CallBuffers* buffersForThread();

}  // namespace qvdbase::platform
