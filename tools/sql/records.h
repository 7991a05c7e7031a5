// The module qvdb_records: a row for each record.
#pragma once

#include "sql/sqlite_api.h"

namespace qvdb::sql {

extern const sqlite3_module kRecordsModule;

}  // namespace qvdb::sql
