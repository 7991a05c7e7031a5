// SQLite's functions. A loadable module reaches them through a table that SQLite passes to it; a
// program that is linked with SQLite calls them.
#pragma once

#ifdef QVDB_LOADABLE_MODULE
#include <sqlite3ext.h>
extern const sqlite3_api_routines* sqlite3_api;
#else
#include <sqlite3.h>
#endif
