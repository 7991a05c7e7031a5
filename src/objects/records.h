// What the parts of the layer that deal with records share.
#pragma once

#include <qvdbase/qvdb/record.hpp>

#include <cstdint>
#include <span>
#include <string>
#include <vector>

#include "QVDbase/record_find.h"
#include "format/identifiers.h"
#include "format/layout.h"
#include "objects/chain_walker.h"
#include "objects/open_database.h"

namespace qvdb::detail {

void storeInfo(const recordPart1& header, int64_t recordPos, RecordInfo* info);
// The same from the header's bytes.
inline void storeInfo(const unsigned char* head, int64_t recordPos, RecordInfo* info) {
  using namespace qvdbase;
  info->id.value = qvdbase::format::identifierNumber(head + qvdbase::format::record::kRecordID);
  info->create_time =
      qvdbase::format::loadBigEndian<uint32_t>(head + qvdbase::format::record::kCreateTime);
  info->modify_time =
      qvdbase::format::loadBigEndian<uint32_t>(head + qvdbase::format::record::kModifyTime);
  info->size =
      qvdbase::format::loadBigEndian<uint32_t>(head + qvdbase::format::record::kDataLength);
  info->capacity =
      qvdbase::format::loadBigEndian<uint32_t>(head + qvdbase::format::record::kDataCapacity);
  info->position = recordPos;
  info->data_position = recordPos + qvdbase::format::record::kData;
}
RecordInfo recordInfo(const recordPart1& header, int64_t recordPos);

// Throws too_large when there is not enough memory.
void resizeFor(const Operation& operation, std::vector<std::byte>* buffer, uint32_t size);

// Read the payload of a record whose header has been read: all of it, or as much of its beginning
// as the buffer takes. Throw data_damaged when it reaches beyond the end of the file.
void readWholePayload(const Operation& operation, const qvdbase::engine::FoundRecord& found,
                      std::vector<std::byte>* buffer);
void readPayloadStart(const Operation& operation, const qvdbase::engine::FoundRecord& found,
                      std::span<std::byte> buffer);

// Throws chain_damaged for the walker's last step.
[[noreturn]] void failDamagedChain(const Operation& operation, const ChainWalker& walker,
                                   const std::string& table);

}  // namespace qvdb::detail
