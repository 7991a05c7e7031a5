// The last stage of renumbering: the category records of the new file get the new identifiers in
// their second lists.
#pragma once

#include <qvdbase/qvrzdb_sub.h>

#include <cstdint>

#include "maintenance/id_pairs.h"
#include "maintenance/record_index.h"

namespace qvdbase::maintenance {

class CategoryRenewal {
 public:
  // `record` is what every category record is decoded into; null pairs leave the lists as they are.
  CategoryRenewal(int16_t src, int16_t dst, qvrzOneCategoryRecord* record, IdPairs* pairs)
      : src_(src), dst_(dst), record_(record), pairs_(pairs) {}

  // Reads each category record from the source and stores it, its list renewed, in the new file.
  // Fails when either file has no such table or it cannot be read or written, when a record cannot
  // be decoded, and at the first identifier that is not among the pairs. The positions of both
  // files are not restored.
  [[nodiscard]] bool run();

 private:
  bool renewAll(uint64_t srcTable, uint64_t dstTable);
  bool renew(uint64_t recordID);
  bool store(uint64_t recordID, const unsigned char* payload, uint32_t size);

  int16_t src_;
  int16_t dst_;
  qvrzOneCategoryRecord* record_;
  IdPairs* pairs_;
  RecordIndex srcRecords_;
  RecordIndex dstRecords_;
};

}  // namespace qvdbase::maintenance
