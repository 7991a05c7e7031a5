// What the parts of the layer that deal with records share.
#pragma once

#include <qvdbase/qvdb/bytes.hpp>
#include <qvdbase/qvdb/record.hpp>

#include <cstdint>
#include <span>
#include <vector>

#include "QVDbase/record_find.h"
#include "format/identifiers.h"
#include "format/layout.h"
#include "format/payload_checksum.h"
#include "objects/open_database.h"
#include "objects/walks/chain_walker.h"

namespace qvdb::detail {

inline constexpr const char* kRead = "read the record";

void storeInfo(const recordPart1& header, int64_t recordPos, RecordInfo* info);
// The same from the header's bytes.
inline void storeInfo(const unsigned char* head, int64_t recordPos, RecordInfo* info) {
  using namespace qvdbase::format;
  info->id.value = identifierNumber(head + record::kRecordID);
  info->create_time = loadBigEndian<uint32_t>(head + record::kCreateTime);
  info->modify_time = loadBigEndian<uint32_t>(head + record::kModifyTime);
  info->size = loadBigEndian<uint32_t>(head + record::kDataLength);
  info->capacity = loadBigEndian<uint32_t>(head + record::kDataCapacity);
  info->position = recordPos;
  info->data_position = recordPos + record::kData;
}
RecordInfo recordInfo(const recordPart1& header, int64_t recordPos);

// What a caller passes, as the engine takes it.
inline const unsigned char* bytesOf(ByteView bytes) {
  return reinterpret_cast<const unsigned char*>(bytes.data());
}

// Throws too_large when there is not enough memory.
void resizeFor(const Operation& operation, std::vector<std::byte>* buffer, size_t size);

// Appends bytes. Throws likewise.
void appendTo(const Operation& operation, std::vector<std::byte>* buffer, ByteView bytes);

// Throws data_damaged when a payload reaches beyond the end of the file.
void requireInsideFile(const Operation& operation, const RecordInfo& info);

// Read a payload by what its record's header says now: its first `size` bytes, after what the
// buffer holds, or a part that it covers. Throw data_damaged when it reaches beyond the end of the
// file, and payload_damaged when it is the whole payload and does not agree with its checksum.
void appendPayload(const Operation& operation, Id table, const RecordInfo& info, uint32_t size,
                   std::vector<std::byte>* buffer);
void readPayload(const Operation& operation, Id table, const RecordInfo& info, uint64_t offset,
                 std::span<std::byte> part);

// What the checksum of a whole payload in memory says of it. Throws cannot_read.
qvdbase::format::PayloadState stateOf(const Operation& operation, Id table, const RecordInfo& info,
                                      const void* payload);

// Throws payload_damaged when that is that it is rotten.
inline void requireSound(const Operation& operation, Id table, const RecordInfo& info,
                         const void* payload) {
  if (!qvdbase::format::hasChecksumSpace(info.size, info.capacity)) return;
  if (stateOf(operation, table, info, payload) == qvdbase::format::PayloadState::rotten) {
    operation.failPayload(info);
  }
}

// Whether a whole payload that lies in memory together with the rest of its block is anything but
// rotten. `checksum` is null where the block has no space for one.
inline bool isSoundInMemory(Id table, const RecordInfo& info, const void* payload,
                            const unsigned char* checksum) {
  if (checksum == nullptr || !qvdbase::format::isChecksum(checksum)) return true;
  const qvdbase::format::PayloadIdentity identity = {table.value, info.id.value, info.modify_time,
                                                     info.size};
  return stateOfPayload(checksum, identity, payload) != qvdbase::format::PayloadState::rotten;
}

// Throws chain_damaged for the walker's last step. The operation knows the table.
[[noreturn]] void failDamagedChain(const Operation& operation, const ChainWalker& walker);

}  // namespace qvdb::detail
