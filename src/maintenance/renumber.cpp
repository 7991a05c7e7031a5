// Packing a database into a new file under all new identifiers.
//
// The new file gets an identifier of its own, and so do its records, with two exceptions: those of
// the tables "QVrz_Info" and "QVrz_Category" keep theirs. For the table "QVrz_Record" each old
// identifier is remembered with the new one, and at the end the category records, which list
// records of that table, are given the new identifiers.
//
// The source is the caller's open database, and stays open. The version is never touched.
#include <qvdbase/qvdbase.h>

#include <cstring>

#include "QVDbase/record_append.h"
#include "format/category.h"
#include "format/identifiers.h"
#include "maintenance/category_codec.h"
#include "maintenance/category_renewal.h"
#include "maintenance/file_extent.h"
#include "maintenance/id_pairs.h"
#include "maintenance/pack_steps.h"
#include "platform/host/memory.h"

using namespace qvdbase;
using namespace qvdbase::support;
using namespace qvdbase::format;
using namespace qvdbase::engine;
using namespace qvdbase::maintenance;

namespace {

class Renumber : public PackSteps {
 public:
  Renumber(const QVWCHAR* dstPath, int16_t src, PackProgress progress, PackOutputs out,
           qvrzOneCategoryRecord* category)
      : PackSteps(dstPath, progress, out, src), category_(category) {}

 private:
  bool createDestination() override {
    return PackSteps::createDestination() && kDatabaseIDPos + kIdentifierSize <= headerLength();
  }

  bool copyTables() override {
    return PackSteps::copyTables() &&
           CategoryRenewal(src_, dst_, category_, pairs_.exist() ? &pairs_ : nullptr).run();
  }

  // The place is fixed: what the directory cache serves of the header does not have it.
  void adjustHeader(unsigned char* header) override { GenerateUuID(header + kDatabaseIDPos); }

  bool beginRecords(const tablePart1& slot) override {
    keepsIdentifiers_ = tableNameEquals(slot, kInfoTable) || tableNameEquals(slot, kCategoryTable);
    if (tableNameEquals(slot, kRecordTable) &&
        !pairs_.begin(slot.recordCount, mostRecordsIn(src_))) {
      return false;
    }
    pairs_.rewind();  // with every table, whereas the count is kept: see IdPairs
    return true;
  }

  // Only after a step that succeeded: the pair of a table's last record is not counted.
  void steppedOn() override { pairs_.advance(); }

  bool appendRecord(tablePart1* working, int64_t slotPos, const recordPart1& source,
                    const unsigned char* payload) override {
    if (keepsIdentifiers_) return PackSteps::appendRecord(working, slotPos, source, payload);
    unsigned char newID[kIdentifierSize];
    if (internal_AddOneRecordData(dst_, working, working->tableID, slotPos, directory_.slotSize,
                                  payload, source.dataLength, source.dataCapacity, newID, 0) != 1) {
      return false;
    }
    if (!pairs_.exist()) return true;
    return pairs_.write({identifierNumber(source.recordID), identifierNumber(newID)});
  }

  qvrzOneCategoryRecord* category_;
  IdPairs pairs_;
  bool keepsIdentifiers_ = false;
};

// The one record that all category records are decoded into, and what it owns.
class CategoryRecord {
 public:
  CategoryRecord() : memory_(sizeof(qvrzOneCategoryRecord)) {
    if (memory_) std::memset(memory_.data(), 0, memory_.size());
  }
  ~CategoryRecord() {
    if (memory_) releaseCategoryParts(get());
  }
  CategoryRecord(const CategoryRecord&) = delete;
  CategoryRecord& operator=(const CategoryRecord&) = delete;

  qvrzOneCategoryRecord* get() { return reinterpret_cast<qvrzOneCategoryRecord*>(memory_.data()); }

 private:
  platform::Buffer memory_;
};

}  // namespace

int PackOneDB2AllNewUUIDFile(const QVWCHAR* dstPath, int16_t srcRef, int userData,
                             QVProgressFunction callback, uint16_t* outSrcRef, uint16_t* outDstRef,
                             int* status, void* callbackArg) {
  *status = PackOutputs::kKept;
  if (dstPath == nullptr) return 0;
  CategoryRecord category;
  if (category.get() == nullptr) return 0;
  SavedPosition position(srcRef);
  Renumber renumber(dstPath, srcRef, {callback, userData, callbackArg},
                    {outSrcRef, outDstRef, status}, category.get());
  return position.restore(renumber.run());
}
