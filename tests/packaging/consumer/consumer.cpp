// A program in C++20 that knows nothing but the installed headers: an error that the library throws
// is caught here by its type, and the support classes are there.
// Usage: consumer FILE, a path at which nothing stands yet.
#include <qvdbase/QVList.h>
#include <qvdbase/caches.h>

#include <cstdio>
#include <qvdbase/qvdb.hpp>

namespace {

bool reportsAMissingFile(const char* path) {
  try {
    qvdb::Database::open(path);
  } catch (const qvdb::Error& error) {
    return error.reason() == qvdb::Reason::no_such_file;
  }
  return false;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2 || !reportsAMissingFile(argv[1])) return 1;

  qvdb::Database database = qvdb::Database::create(argv[1]);
  qvdb::Table table = database.add_table("things");
  table.add({});
  if (table.count() != 1) return 1;
  if (SearchForGDB2TCache(database.handle()) == -1 || gbl_Gdb2tDQ.GetSize() != 1) return 1;
  database.close();

  QVList list;
  if (list.Add("a", 1) != 1 || list.GetSize() != 1) return 1;
  std::puts("ok");
  return 0;
}
