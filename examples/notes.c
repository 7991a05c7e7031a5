/* Keeps notes: adds one, then lists them all. Usage: notes_c /absolute/path.qvdb TEXT */
#include <qvdbase/qvdbase.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

static int failed(const char* call, const char* path) {
  fprintf(stderr, "notes_c: %s failed for %s\n", call, path);
  return 1;
}

int main(int argc, char** argv) {
  if (argc != 3 || argv[1][0] != '/' || strlen(argv[1]) > 2047) {
    fprintf(stderr, "usage: notes_c /absolute/path.qvdb TEXT\n");
    return 2;
  }
  QVWCHAR path[2048] = {0}; /* UTF-16; for a path in ASCII this loop is all it takes */
  for (size_t i = 0; argv[1][i] != 0; i++) path[i] = (unsigned char)argv[1][i];

  const char* call = "OpenDBaseW";
  int16_t db = OpenDBaseW(path, 3); /* 3: read and write, no other program writes */
  FILE* file = db == 0 ? fopen(argv[1], "wx") : NULL; /* x: only when there is no such file */
  if (file != NULL) {
    fclose(file);
    call = "CreateDBaseW"; /* it would empty an existing database */
    db = CreateDBaseW(path, "QVdb", 100);
  }
  if (db == 0) return failed(call, argv[1]);

  uint64_t notes = FindTableByName(db, "notes");
  if (notes == 0) notes = AddTable(db, "notes");
  if (notes == 0) return failed("AddTable", argv[1]);

  uint64_t note = 0;
  const unsigned char* text = (const unsigned char*)argv[2];
  if (!AddRecordData(db, notes, text, (uint32_t)strlen(argv[2]), 0, &note)) {
    return failed("AddRecordData", argv[1]);
  }

  uint32_t count = 0;
  if (!GetNumberOfRecords(db, notes, &count)) return failed("GetNumberOfRecords", argv[1]);
  uint64_t* list = malloc(count * sizeof *list);
  if (list == NULL) return failed("malloc", argv[1]);
  if (!GetRecordUuIDList(db, notes, list, &count)) return failed("GetRecordUuIDList", argv[1]);
  file = fopen(argv[1], "rb"); /* GetOneRecordInfo reports where the payload lies */
  if (file == NULL) return failed("fopen", argv[1]);
  for (uint32_t i = 0; i < count; i++) {
    oneRecordInfoP1 info;
    if (!GetOneRecordInfo(db, notes, list[i], &info, NULL)) {
      return failed("GetOneRecordInfo", argv[1]);
    }
    fseek(file, (long)info.dataPos, SEEK_SET);
    for (uint32_t n = 0; n < info.dataLength; n++) putchar(getc(file));
    putchar('\n');
  }
  fclose(file);
  free(list);
  return CloseDBase(db) ? 0 : failed("CloseDBase", argv[1]);
}
