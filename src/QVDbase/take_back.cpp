// Taking back what was appended: the file cut off, or zeros over it.
#include "QVDbase/take_back.h"

#include <algorithm>

#include "QVDbase/position.h"
#include "format/fields.h"
#include "platform/handles/cutting.h"
#include "platform/handles/open_files.h"

using namespace qvdbase::format;
using namespace qvdbase::engine;

namespace qvdbase::engine {
namespace {

int64_t lengthOf(int16_t db) {
  const platform::OpenFile* file = platform::findOpenFile(db);
  int64_t length = 0;
  // unreached: the file is open
  return file != nullptr && platform::fileLength(*file, &length) ? length : -1;
}

bool cutOff(int16_t db, const Appended& appended, int64_t length) {
  const platform::OpenFile* file = platform::findOpenFile(db);
  return length <= appended.end && platform::cutFile(*file, appended.from);
}

bool blankOut(int16_t db, const Appended& appended, int64_t length) {
  static constexpr unsigned char kZeros[32768] = {};
  CallScope scope(db);
  const int64_t end = std::min(appended.end, length);
  if (myFileSeek(db, appended.from, kFromStart) != 0) return false;  // unreached: own position
  for (int64_t at = appended.from; at < end; at += int64_t{sizeof kZeros}) {
    const auto count = static_cast<uint32_t>(std::min(end - at, int64_t{sizeof kZeros}));
    if (!writeBytes(db, kZeros, count)) return false;
  }
  return scope.end();
}

}  // namespace

bool takeBack(int16_t db, const Appended& appended) {
  const platform::Turn turn(db);
  const int64_t length = lengthOf(db);
  if (length < 0) return false;
  if (length <= appended.from) return true;
  return cutOff(db, appended, length) || blankOut(db, appended, length);
}

bool cutBack(int16_t db, const Appended& appended) {
  const platform::Turn turn(db);
  const int64_t length = lengthOf(db);
  if (length < 0) return false;
  return length <= appended.from || cutOff(db, appended, length);
}

}  // namespace qvdbase::engine
