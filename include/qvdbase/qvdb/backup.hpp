// Copies of databases that are in use: see Database::backup().
//
//   qvdb::Database database = qvdb::Database::open("notes.qvd");
//   database.backup("/backup/notes.qvd", {.overwrite = true});
//
// The copy has all bytes of the file, dead ones included, as they were at one moment. It is
// written beside its target, under a name that begins with ".qvdb-" and ends in ".tmp", checked
// as qvdb::check() does, and gets the target's name when the device has it. A process that is
// killed before leaves that temporary file and nothing else; it can be deleted.
#pragma once

#include <qvdbase/base.h>
#include <qvdbase/qvdb/cpp20.hpp>

#include <cstdint>

namespace qvdb {

// For Database::backup().
struct BackupOptions {
  // Whether a target that exists is replaced. The copy then gets its owner, group and permissions.
  // An empty file always is replaced.
  bool overwrite = false;
  bool create_folders = false;  // whether missing folders in the target's path are created
  // Whether the copy is kept although the check finds errors in it.
  bool force = false;
  // Whether to wait until the device has the copy before it gets its name, and then until the
  // device has the name.
  bool sync = true;
};

// The result of Database::backup().
struct BackupReport {
  uint64_t size = 0;    // bytes of the copy
  uint64_t blocks = 0;  // blocks that the check has found in it
  uint64_t errors = 0;  // errors that the check has found; above 0 only with `force`
  // Whether the copy shares what the source has stored, so that it takes no space of its own before
  // one of them is written to. So it is where the file system can do that.
  bool shares_storage = false;
};

}  // namespace qvdb
