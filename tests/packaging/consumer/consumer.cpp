// A program in C++20 that knows nothing but the installed headers: an error of the C++ layer, made
// inside the library, is caught here, and the support classes are there.
// Usage: consumer FILE, a path at which nothing stands yet.
#include <qvdbase/QVList.h>
#include <qvdbase/caches.h>
#include <qvdbase/qvdbase.h>

#include <cstdio>
#include <string>

int main(int argc, char** argv) {
  if (argc != 2) return 2;
  const std::string file = argv[1];
  std::u16string path(file.begin(), file.end());

  const int16_t db = CreateDBaseW(reinterpret_cast<const QVWCHAR*>(path.c_str()), "QVdb", 100);
  if (db == 0 || AddTable(db, "things") == 0) return 1;
  if (SearchForGDB2TCache(db) == -1 || gbl_Gdb2tDQ.GetSize() != 1) return 1;
  if (CloseDBase(db) == 0) return 1;

  QVList list;
  if (list.Add(&db, sizeof db) != 1 || list.GetSize() != 1) return 1;
  std::puts("ok");
  return 0;
}
