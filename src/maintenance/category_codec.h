// The category codec as the renumbering pack uses it.
#pragma once

#include <qvdbase/qvrzdb_sub.h>

#include <cstdint>

namespace qvdbase::maintenance {

enum class CategoryDecoding {
  failed,
  untouched,  // there is no category in the payload; the record is unchanged
  decoded,
};

// Where the decoder puts the free bytes.
enum class ExtraData {
  callersBuffer,  // into the record's own buffer
  newBuffer,  // into a zero-filled one that it allocates, as large as the payload claims; a claim
              // above the length of the file fails like an allocation
};

// InternalReadOneRecord2CategoryStruct, with the outcome in full.
CategoryDecoding decodeCategory(int16_t db, const oneRecordInfoP1& info, ExtraData extraData,
                                qvrzOneCategoryRecord* record);

// Releases the record's lists and free bytes and sets the pointers to null.
void releaseCategoryParts(qvrzOneCategoryRecord* record);

}  // namespace qvdbase::maintenance
