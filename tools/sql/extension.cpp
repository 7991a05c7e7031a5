// The entry point of the loadable module.
#include <sqlite3ext.h>
SQLITE_EXTENSION_INIT1

#include "sql/module.h"

// SQLite makes the name of this function from the name of the file, qvdbsql.so.
extern "C" __attribute__((visibility("default"))) int sqlite3_qvdbsql_init(
    sqlite3* connection, char** message, const sqlite3_api_routines* api) {
  SQLITE_EXTENSION_INIT2(api);
  const int result = qvdb::sql::addModules(connection);
  if (result != SQLITE_OK) {
    *message = sqlite3_mprintf("cannot add the modules of QVDbase: %s", sqlite3_errstr(result));
    return result;
  }
  return SQLITE_OK_LOAD_PERMANENTLY;  // what a library of C++ has set up cannot be taken back
}
