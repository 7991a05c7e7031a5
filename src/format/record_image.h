// A record block's header as bytes in memory, for those who handle many blocks at a time.
#pragma once

#include "format/layout.h"

namespace qvdbase {

// The 55 bytes of a header, in the file's order. Mark and header size are those of the format,
// whatever the memory copy holds.
void encodeRecordHeader(const recordPart1& header, unsigned char image[record::kData]);

// The link to the next record, in such an image.
void putNextRecordPos(unsigned char* image, int64_t nextRecordPos);

}  // namespace qvdbase
