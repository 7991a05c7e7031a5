// File positions, and the scope of one exported call.
#include "QVDbase/position.h"

#include <qvdbase/QVFile.h>

#include "platform/host/thread_cancelled.h"

using namespace qvdbase;
using namespace qvdbase::engine;

int qvdbase::engine::detail::seekInOtherMode(int16_t db, int64_t offset, uint32_t mode) {
  return QVFile().QVSeekFile(db, static_cast<uint16_t>(mode), offset) == 1 ? 0 : -1;
}

uint16_t SavedCallBack(int16_t db, QVProgressFunction callback, int a, int b, void* context) {
  if (db == 0) return engine::callOutside(callback, a, b, context);
  const int64_t position = myGetFilePos(db);
  const uint16_t result = engine::callOutside(callback, a, b, context);
  myFileSeek(db, position, kFromStart);
  return result;
}

namespace qvdbase::engine {

uint16_t callOutside(QVProgressFunction callback, int a, int b, void* context) {
  const platform::TransferPause pause;
  const platform::TurnPause turns;
  try {
    return callback(a, b, context);
  } catch (platform::ThreadCancelled&) {
    throw;
  } catch (...) {
    return 0;  // it asks to stop: what it threw must not cross a C function
  }
}

}  // namespace qvdbase::engine
