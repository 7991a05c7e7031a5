// Makes the virtual tables known to a connection.
#include "sql/module.h"

#include "sql/records.h"
#include "sql/tables.h"

namespace qvdb::sql {

int addModules(sqlite3* connection) noexcept {
  const int result = sqlite3_create_module(connection, "qvdb_tables", &kTablesModule, nullptr);
  if (result != SQLITE_OK) return result;
  return sqlite3_create_module(connection, "qvdb_records", &kRecordsModule, nullptr);
}

}  // namespace qvdb::sql
