/* Keeps a database open, so that no other program can write to it, until its input ends.
 * Usage: hold_open /absolute/path */
#include <qvdbase/qvdbase.h>
#include <stdio.h>
#include <string.h>

int main(int argc, char** argv) {
  if (argc != 2 || strlen(argv[1]) > 2047) return 2;
  QVWCHAR path[2048] = {0};
  for (size_t i = 0; argv[1][i] != 0; i++) path[i] = (unsigned char)argv[1][i];
  const int16_t db = OpenDBaseW(path, 3);
  if (db == 0) return 1;
  puts("open");
  fflush(stdout);
  while (getchar() != EOF) {
  }
  return CloseDBase(db) ? 0 : 1;
}
