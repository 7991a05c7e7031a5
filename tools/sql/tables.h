// The module qvdb_tables: a row for each table of a database.
#pragma once

#include "sql/sqlite_api.h"

namespace qvdb::sql {

extern const sqlite3_module kTablesModule;

}  // namespace qvdb::sql
