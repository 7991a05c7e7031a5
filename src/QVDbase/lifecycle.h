// What creating a database is made of.
#pragma once

#include <qvdbase/base.h>

#include <cstdint>

namespace qvdbase::engine {

// Creates the file as CreateDBaseW does; an existing one is emptied. False without a file.
[[nodiscard]] bool createDatabaseFile(const QVWCHAR* path, int16_t* db);

// Makes an empty database of a file that was just created. With an identifier of null it gets a new
// one.
[[nodiscard]] bool writeNewDatabase(int16_t db, const void* signature, uint16_t version,
                                    const unsigned char* databaseID = nullptr);

}  // namespace qvdbase::engine
