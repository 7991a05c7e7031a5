// What the parts of the layer that deal with records share.
#pragma once

#include <qvdbase/qvdb/record.hpp>

#include <cstdint>
#include <string>
#include <vector>

#include "format/layout.h"
#include "qvdb/chain_walker.h"
#include "qvdb/open_database.h"

namespace qvdb::detail {

RecordInfo recordInfo(const recordPart1& header, std::int64_t recordPos);

// Throws too_large when there is not enough memory.
void resizeFor(const Operation& operation, std::vector<std::byte>* buffer, std::uint32_t size);

// Throws chain_damaged for the walker's last step.
[[noreturn]] void failDamagedChain(const Operation& operation, const ChainWalker& walker,
                                   const std::string& table);

}  // namespace qvdb::detail
