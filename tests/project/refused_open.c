/* What the example calls instead of OpenDBaseW in a test: a database that is in use at the moment
 * of opening, and no longer at the next. */
#include <qvdbase/qvdbase.h>

int16_t OpenDBaseW(const QVWCHAR* path, int permission) {
  (void)path;
  (void)permission;
  return 0;
}
