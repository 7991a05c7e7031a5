// Readers of one database side by side: two threads, or two processes.
#pragma once

#include <filesystem>
#include <vector>

#include "store.h"

namespace bench {

// Where they run, and how the database is open.
enum class Readers {
  threads,          // of one process: a qvdb::Reader each, of a database that is open exclusively
  threadsReadOnly,  // the same of one that is open for reading only
  processes,        // a qvdb::Database each, open for reading only
};

// What both together have done, and in which time.
struct ReadersResult {
  double walkSeconds = 0;
  double lookupSeconds = 0;
  size_t walked = 0;    // records, with their payloads
  size_t lookedUp = 0;  // records, at random
};

// Starts them on the closed store in `folder`, and waits until both have done their work.
ReadersResult runReaders(Readers readers, const std::filesystem::path& folder,
                         const std::vector<Key>& keys);

}  // namespace bench
