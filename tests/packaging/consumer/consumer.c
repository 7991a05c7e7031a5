/* A program in C11 that knows nothing but the installed header: it stores a record in a new
 * database and finds it again. Usage: consumer FILE, an absolute path in ASCII. */
#include <qvdbase/qvdbase.h>
#include <stdio.h>
#include <string.h>

static int fail(const char* what) {
  fprintf(stderr, "%s failed\n", what);
  return 1;
}

int main(int argc, char** argv) {
  static const unsigned char payload[] = "a record";
  QVWCHAR path[2048] = {0};
  uint64_t table, record = 0;
  uint32_t count = 0;
  oneRecordInfoP1 info;
  int16_t db;
  size_t i;

  if (argc != 2 || strlen(argv[1]) >= 2048) return fail("the command line");
  for (i = 0; argv[1][i] != 0; i++) path[i] = (unsigned char)argv[1][i];

  db = CreateDBaseW(path, "QVdb", 100);
  if (db == 0) return fail("CreateDBaseW");
  table = AddTable(db, "things");
  if (table == 0) return fail("AddTable");
  if (!AddRecordData(db, table, payload, sizeof payload, 0, &record)) return fail("AddRecordData");
  if (!CloseDBase(db)) return fail("CloseDBase");

  db = OpenDBaseW(path, 1);
  if (db == 0) return fail("OpenDBaseW");
  if (FindTableByName(db, "things") != table) return fail("FindTableByName");
  if (!GetNumberOfRecords(db, table, &count) || count != 1) return fail("GetNumberOfRecords");
  if (!GetOneRecordInfo(db, table, record, &info, NULL)) return fail("GetOneRecordInfo");
  if (info.dataLength != sizeof payload) return fail("the length of the record");
  if (!CloseDBase(db)) return fail("CloseDBase");
  puts("ok");
  return 0;
}
