// The version of a record that was in use at a time, for as long as the file still has it.
#pragma once

#include <qvdbase/qvdb.hpp>

#include <cstdint>
#include <string>

#include "streams/delivery.h"

namespace qvdb::tool {

// The version of a record that was in use at `time`, in seconds since 1970. `word` is an identifier
// or the name of a file, also of one that was removed: of several files that had the name one after
// the other the last one stored until then counts.
//
// A line on standard error reports what the file cannot say: contents that were changed in place
// before the next version, and when a record was deleted. Throws Failure for a word that means no
// record, when the record was not stored yet, and when its contents of that time are lost.
FoundBlock versionAt(const std::string& path, const std::string& table, const std::string& word,
                     int64_t time);

// Delivers what a version holds, as much of it as the file has. `table` is the name or identifier
// that was given.
void deliverVersion(const std::string& path, const std::string& table, const FoundBlock& version,
                    const DeliveryOptions& options);

}  // namespace qvdb::tool
