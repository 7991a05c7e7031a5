// Fuzz target: decodes the input as a category record, and encodes what came out.
//
// The first four bytes are the length that the record claims to have, modulo a little more than the
// input; the payload is the rest. The encoder must give back the bytes that the decoder took, and
// the renewal of identifiers must not touch more than the second list.
#include <qvdbase/qvdbase.h>
#include <qvdbase/qvrzdb_sub.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <vector>

#include "fuzz/hostile_file.h"

namespace {

using namespace qvdbase::fuzz;

constexpr int64_t kPayload = 1;  // a payload at 0 counts as none

void renew(qvrzOneCategoryRecord* category) {
  if (category->secondIDCount <= 0) return;
  const uint64_t first = category->secondIDs[0];
  const UUIDMapping pairs[] = {{first, 0x1234}, {first, 0x5678}};
  const int renewed = InternalConvertOldCategoryID2New(&category, pairs, 2);
  require(renewed == 0 || renewed == 1, "the answer is 0 or 1");
  require(category->secondIDs[0] == 0x1234, "the first pair counts");
  for (int32_t i = 0; i < category->secondIDCount; ++i) {
    if (category->secondIDs[i] == 0x1234) category->secondIDs[i] = first;
  }
}

void encodeAgain(const qvrzOneCategoryRecord& category, const uint8_t* payload, size_t size) {
  uint32_t length = 0;
  unsigned char* const encoded = InternalPutOneCategory2Buffer(0, &category, &length);
  if (encoded == nullptr) return;
  require(length >= 96, "the fixed fields are there");
  // Free bytes that reach beyond the record are not read.
  const size_t taken = length <= size ? length : length - category.extraLength;
  require(taken <= size && std::equal(encoded, encoded + taken, payload),
          "what was decoded is encoded again");
  std::free(encoded);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 4) return 0;
  uint32_t claimed = 0;
  for (size_t i = 0; i < 4; ++i) claimed = claimed << 8 | data[i];
  const uint8_t* const payload = data + 4;
  const size_t payloadSize = size - 4;

  const std::filesystem::path path = scratchPath("category.bin");
  writeBytes(path, data + 4 - kPayload, payloadSize + kPayload);
  const WorkLimits limits(size);
  const int16_t db = OpenDBaseW(widePath(path).data(), 1);
  require(db != 0, "any file opens");
  oneRecordInfoP1 info = {};
  info.dataPos = kPayload;
  info.dataLength = claimed % static_cast<uint32_t>(payloadSize + 50);
  qvrzOneCategoryRecord category = {};
  category.extraData = static_cast<unsigned char*>(std::calloc(info.dataLength + 1, 1));
  qvrzOneCategoryRecord* pointer = &category;
  const int result = InternalReadOneRecord2CategoryStruct(db, &info, &pointer);
  require(result == 0 || result == 1, "the answer is 0 or 1");
  if (result == 1 && info.dataLength > 8 && category.extraLength <= info.dataLength) {
    renew(&category);
    if (info.dataLength <= payloadSize) encodeAgain(category, payload, info.dataLength);
  }
  require(CloseDBase(db) != 0, "an open database closes");
  std::free(category.firstIDs);
  std::free(category.secondIDs);
  std::free(category.extraData);
  return 0;
}
