// qvdb::FileWriter: who writes to a file that this process looks at.
#pragma once

#include <qvdbase/base.h>
#include <qvdbase/qvdb/cpp20.hpp>

#include <cstdint>
#include <string>

namespace qvdb {

// Who has a file open for writing, as far as the system lets this process know.
struct FileWriter {
  bool is_this_process = false;  // a thread of it, or the caller itself
  int64_t process = 0;           // the identifier of another process; 0 where it is not known
  std::string name;              // the name of that process; empty where it is not known
};

// The same in words: "another process (4711, backup) is writing to it". The name is as the other
// process has chosen it, control characters included.
QVDBASE_API std::string to_string(const FileWriter& writer);

}  // namespace qvdb
