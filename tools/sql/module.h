// Virtual tables by which SQLite reads databases:
//
//   qvdb_tables(FILE)             the tables of a database
//   qvdb_records(FILE [, TABLE])  the records of all tables, or of one
//
// Both are functions in a FROM clause, and modules of CREATE VIRTUAL TABLE. docs/sql.md describes
// their columns, and what is passed down to the database. They only read, and statements name them
// directly: a view or trigger that is stored in some file cannot make SQLite open another one.
#pragma once

#include "sql/sqlite_api.h"

namespace qvdb::sql {

// Makes both known to a connection. Returns a result code of SQLite.
int addModules(sqlite3* connection) noexcept;

}  // namespace qvdb::sql
