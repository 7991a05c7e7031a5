// Creating, opening, inspecting and closing databases.
#include <qvdbase/QVFile.h>
#include <qvdbase/qvdbase.h>

#include <cstring>

#include "QVDbase/directory_cache.h"
#include "QVDbase/header.h"
#include "QVDbase/lifecycle.h"
#include "QVDbase/position.h"
#include "format/Aliment8.h"
#include "format/fields.h"
#include "format/identifiers.h"
#include "platform/handles/open_files.h"

using namespace qvdbase;
using namespace qvdbase::format;
using namespace qvdbase::engine;

int32_t Gbl_Flush_Time = 0;

namespace {

bool writeNewHeader(int16_t db, const void* signature, uint16_t version,
                    const unsigned char* givenID) {
  unsigned char databaseID[kIdentifierSize];
  if (!writeBytes(db, signature, kSignatureSize)) return false;
  if (!writeUint16(db, version)) return false;
  if (givenID == nullptr) {
    GenerateUuID(databaseID);
  } else {
    std::memcpy(databaseID, givenID, sizeof databaseID);
  }
  return writeBytes(db, databaseID, sizeof databaseID) && writeUint16(db, 0) &&
         writeUint16(db, kNewSlotCount) && writeUint16(db, kSlotImageSize);
}

bool writeFreeSlots(int16_t db) {
  tablePart1 slot;
  std::memset(&slot, 0, sizeof slot);
  for (int i = 0; i < format::kNewSlotCount; ++i) {
    if (WriteOne_TablePartOne(db, &slot) != 1) return false;
  }
  return true;
}

void storeHeader(const internal_Head1& head, void* signatureOut, uint16_t* versionOut,
                 void* idOut) {
  if (signatureOut != nullptr) {
    std::memcpy(signatureOut, head.signature, sizeof head.signature);
    static_cast<unsigned char*>(signatureOut)[sizeof head.signature] = 0;
  }
  if (versionOut != nullptr) *versionOut = head.version;
  if (idOut != nullptr) std::memcpy(idOut, head.databaseID, sizeof head.databaseID);
}

}  // namespace

int GenerateUuID_Int64(uint64_t* value) {
  if (value == nullptr) return 0;
  unsigned char id[format::kIdentifierSize];
  GenerateUuID(id);
  return internal_ConvertUuID_2Int64(id, value);
}

namespace qvdbase::engine {

bool createDatabaseFile(const QVWCHAR* path, int16_t* db) {
  return QVFile().QVCreateAndOpenFile(path, platform::kOneWriter, db, 0) == 1;
}

bool writeNewDatabase(int16_t db, const void* signature, uint16_t version,
                      const unsigned char* databaseID) {
  CallScope scope(db);
  return writeNewHeader(db, signature, version, databaseID) && writeFreeSlots(db) && scope.end();
}

}  // namespace qvdbase::engine

int16_t CreateDBaseW(const QVWCHAR* path, const void* signature, int version) {
  if (path == nullptr || signature == nullptr) return 0;
  int16_t db = 0;
  if (!engine::createDatabaseFile(path, &db)) return 0;
  // A file that cannot be completed stays as far as it was written, and open: no half-made database
  // is ever returned, and nothing is deleted that might be in use elsewhere.
  return engine::writeNewDatabase(db, signature, static_cast<uint16_t>(version)) ? db : int16_t{0};
}

int16_t OpenDBaseW(const QVWCHAR* path, int permission) {
  int16_t db = 0;
  return QVFile().QVOpenFile(path, permission, &db) == 1 ? db : int16_t{0};
}

uint16_t CloseDBase(int16_t db) {
  const platform::Turn turn(db);
  engine::dropDirectoryEntry(db);  // first, so that it is gone even if the close fails
  return static_cast<uint16_t>(QVFile().QVCloseFile(db));
}

int FlushDBase(int16_t) {
  return 1;
}

int GetDBaseInfoW(const QVWCHAR* path, void* signatureOut, uint16_t* versionOut, void* idOut) {
  int16_t db = 0;
  if (QVFile().QVOpenFile(path, platform::kSharedWriters, &db) != 1) return 0;
  const platform::Turn turn(db);
  internal_Head1 head;
  const int result = internal_GetDBHead1(db, &head);
  if (result == 1) storeHeader(head, signatureOut, versionOut, idOut);
  engine::dropDirectoryEntry(db);
  QVFile().QVCloseFile(db);
  return result;
}

int SetDBaseVersion(int16_t db, uint16_t version) {
  engine::SavedPosition position(db);
  // Without a position to come back to nothing is written, and the call reports success anyway:
  // callers rely on it.
  if (!position.known()) return position.leave(1);
  // unreached: own position
  if (myFileSeek(db, format::kVersionPos, kFromStart) != 0) return position.restore(0);
  return position.restore(format::writeUint16(db, version) ? 1 : 0);
}
