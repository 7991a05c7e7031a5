/* Keeps notes: adds one, then lists them all. Usage: notes_c /absolute/path.qvdb TEXT */
#include <qvdbase/qvdbase.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

int main(int argc, char** argv) {
  if (argc != 3 || strlen(argv[1]) > 2047) return 2;
  QVWCHAR path[2048] = {0}; /* UTF-16; for a path in ASCII this loop is all it takes */
  for (size_t i = 0; argv[1][i] != 0; i++) path[i] = (unsigned char)argv[1][i];

  int16_t db = OpenDBaseW(path, 3); /* 3: read and write, nobody else writes */
  if (db == 0) db = CreateDBaseW(path, "QVdb", 100);
  uint64_t notes = FindTableByName(db, "notes");
  if (notes == 0) notes = AddTable(db, "notes");

  uint64_t note = 0;
  const unsigned char* text = (const unsigned char*)argv[2];
  if (!AddRecordData(db, notes, text, (uint32_t)strlen(argv[2]), 0, &note)) return 1;

  uint32_t count = 0;
  if (!GetNumberOfRecords(db, notes, &count)) return 1;
  uint64_t* list = malloc(count * sizeof *list);
  if (list == NULL || !GetRecordUuIDList(db, notes, list, &count)) return 1;
  FILE* file = fopen(argv[1], "rb"); /* GetOneRecordInfo tells where the payload lies */
  for (uint32_t i = 0; file != NULL && i < count; i++) {
    oneRecordInfoP1 info;
    if (!GetOneRecordInfo(db, notes, list[i], &info, NULL)) return 1;
    fseek(file, (long)info.dataPos, SEEK_SET);
    for (uint32_t n = 0; n < info.dataLength; n++) putchar(getc(file));
    putchar('\n');
  }
  if (file != NULL) fclose(file);
  free(list);
  return CloseDBase(db) ? 0 : 1;
}
