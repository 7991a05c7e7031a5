// Digests that were saved beside a database, and what has changed since.
#pragma once

#include <qvdbase/qvdb.hpp>

#include <cstdint>
#include <string>

namespace qvdb::tool {

// Where the digests of a database are saved.
std::string pathOfDigests(const std::string& database);

// Saves the digests of every record, in one step. Throws Failure, Error.
void saveDigests(const Database& database, const std::string& path, bool noSync);

// Compares the database with what was saved, and prints a line for each difference. Returns their
// number. Throws Failure where the saved digests cannot be read.
uint64_t verifyDigests(const Database& database, const std::string& path);

}  // namespace qvdb::tool
