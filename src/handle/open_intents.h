// Transactions that a crash has left committed but not in place: whoever opens a database to write
// to it completes them first.
#pragma once

#include <cstdint>
#include <filesystem>

namespace qvdbase::handle {

// Whether the file may have such transactions. Reads 24 bytes of its directory.
bool hasOpenIntents(int16_t db);

// Completes them, where there are some, and forgets what was read of the directory. The file is
// opened exclusively, or it is the turn of this opener among the writers that share it. Throws
// cannot_write where the host refuses to write or to sync, cannot_read where it does not read.
void completeIntents(int16_t db, const std::filesystem::path& path, const char* operation);

}  // namespace qvdbase::handle
