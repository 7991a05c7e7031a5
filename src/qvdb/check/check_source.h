// The check of a source that nobody else can change.
#pragma once

#include <qvdbase/qvdb/check.hpp>

#include "qvdb/raw/byte_source.h"

namespace qvdbase::check {

// Without the findings themselves: what they come to.
qvdb::CheckReport checkSource(const raw::ByteSource& source);

}  // namespace qvdbase::check
