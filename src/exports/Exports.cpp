// The short names: a second name for each exported function, made of the initials of the first.
// Each passes its arguments on and the result back, untouched.
#include <qvdbase/qvdbase.h>

int PGUI64(uint64_t* value) {
  return GenerateUuID_Int64(value);
}

int16_t PCDBW(const QVWCHAR* path, const void* signature, int version) {
  return CreateDBaseW(path, signature, version);
}

int16_t PCODBW(const QVWCHAR* path, int permission) {
  return OpenDBaseW(path, permission);
}

int PGDBIW(const QVWCHAR* path, void* signatureOut, uint16_t* versionOut, void* idOut) {
  return GetDBaseInfoW(path, signatureOut, versionOut, idOut);
}

uint16_t PCCDB(int16_t db) {
  return CloseDBase(db);
}

int PCFDB(int16_t db) {
  return FlushDBase(db);
}

int PSDBV(int16_t db, uint16_t version) {
  return SetDBaseVersion(db, version);
}

uint64_t PCAT(int16_t db, const char* name) {
  return AddTable(db, name);
}

uint64_t PCFTBN(int16_t db, const char* name) {
  return FindTableByName(db, name);
}

int PCGNOT(int16_t db, int32_t* count) {
  return GetNumberOfTable(db, count);
}

uint64_t PCGTNAIDBI(int16_t db, int index, char* name) {
  return GetTableNameAndIDByIndex(db, index, name);
}

int PCSTD(int16_t db, uint64_t table, const unsigned char* data, uint32_t size, uint32_t reserve) {
  return SetTableData(db, table, data, size, reserve);
}

int PCGTDS(int16_t db, uint64_t table, uint32_t* size) {
  return GetTableDataSize(db, table, size);
}

int PCGTD(int16_t db, uint64_t table, void* buffer) {
  return GetTableData(db, table, buffer);
}

int PCARD(int16_t db, uint64_t table, const unsigned char* payload, uint32_t size, uint32_t reserve,
          uint64_t* record) {
  return AddRecordData(db, table, payload, size, reserve, record);
}

int PCARDARID(int16_t db, uint64_t table, const unsigned char* payload, uint32_t size,
              uint32_t reserve, const uint64_t* record) {
  return AddRecordData_AssignRecordID(db, table, payload, size, reserve, record);
}

int PCGNOR(int16_t db, uint64_t table, uint32_t* count) {
  return GetNumberOfRecords(db, table, count);
}

int PCGRUIDL(int16_t db, uint64_t table, uint64_t* list, uint32_t* count) {
  return GetRecordUuIDList(db, table, list, count);
}

int PCGORI(int16_t db, uint64_t table, uint64_t record, oneRecordInfoP1* info, int* unused) {
  return GetOneRecordInfo(db, table, record, info, unused);
}

int PCMORILMT(int16_t db, uint64_t table, uint64_t record) {
  return ModifyOneRecordInfo_LMTime(db, table, record);
}

int PCMRD(int16_t db, uint64_t table, const unsigned char* payload, uint32_t size, uint64_t record,
          int* unused) {
  return ModifyRecordData(db, table, payload, size, record, unused);
}

int PCDOR(int16_t db, uint64_t table, uint64_t record, int* unused) {
  return DeleteOneRecord(db, table, record, unused);
}

int PCPOD2NW(const QVWCHAR* srcPath, const QVWCHAR* dstPath, int userData,
             QVProgressFunction callback) {
  return PackOneDB2NewW(srcPath, dstPath, userData, callback);
}

int PCPOD2NWH(const QVWCHAR* srcPath, const QVWCHAR* dstPath, int userData,
              QVProgressFunction callback, uint16_t* outSrcRef, uint16_t* outDstRef, int* status) {
  return PackOneDB2New_WithHandle(srcPath, dstPath, userData, callback, outSrcRef, outDstRef,
                                  status);
}

int PCPOD2ANUUIDF(const QVWCHAR* dstPath, int16_t srcRef, int userData, QVProgressFunction callback,
                  uint16_t* outSrcRef, uint16_t* outDstRef, int* status, void* callbackArg) {
  return PackOneDB2AllNewUUIDFile(dstPath, srcRef, userData, callback, outSrcRef, outDstRef, status,
                                  callbackArg);
}

int PCFODBLEW(const QVWCHAR* srcPath, QVProgressFunction callback, int userData, void* callbackArg,
              int* result) {
  return FixOneDBLinkErrorW(srcPath, callback, userData, callbackArg, result);
}

int PCDFFW3W(const QVWCHAR* srcPath, const QVWCHAR* dstPath, int* status) {
  return DupFrameForRzbd3W(srcPath, dstPath, status);
}
