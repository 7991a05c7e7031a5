// File positions, and the scope of one exported call.
#include "QVDbase/position.h"

#include <qvdbase/QVFile.h>

#include "platform/transfer.h"

int myFileSeek(int16_t db, int64_t offset, uint32_t mode) {
  return QVFile().QVSeekFile(db, static_cast<uint16_t>(mode), offset) == 1 ? 0 : -1;
}

int64_t myGetFilePos(int16_t db) {
  int64_t position = 0;
  return QVFile().QVGetFilePos(db, &position) == 1 ? position : -1;
}

uint16_t SavedCallBack(int16_t db, QVProgressFunction callback, int a, int b, void* context) {
  if (db == 0) return callback(a, b, context);
  const int64_t position = myGetFilePos(db);
  const uint16_t result = callback(a, b, context);
  myFileSeek(db, position, kFromStart);
  return result;
}

namespace qvdbase {

CallScope::CallScope(int16_t db) : db_(db) {
  platform::beginTransferScope(db_);
}

CallScope::~CallScope() {
  if (!ended_) static_cast<void>(end());
}

bool CallScope::end() {
  ended_ = true;
  return platform::endTransferScope(db_);
}

bool CallScope::completeWrites() {
  return platform::flushTransfers();
}

SavedPosition::SavedPosition(int16_t db) : scope_(db), db_(db), position_(myGetFilePos(db)) {}

}  // namespace qvdbase
