// One salvage from survey to verified file: what qvdb::salvage and qvdb::undelete share.
#pragma once

#include <qvdbase/qvdb/salvage.hpp>

#include "qvdb/raw/byte_source.h"
#include "qvdb/salvage/plan.h"

namespace qvdbase::salvage {

qvdb::SalvageReport run(const raw::ByteSource& source, const raw::Survey& survey,
                        const std::filesystem::path& target, const qvdb::BlockVisitor& visitor,
                        const qvdb::SalvageOptions& options, const Wanted& wanted = {});

}  // namespace qvdbase::salvage
