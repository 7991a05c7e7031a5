// Progress of an operation on a whole file, in percent.
#pragma once

#include <qvdbase/qvdb.hpp>

#include "streams/interrupt.h"
#include "streams/progress.h"
#include "streams/waiting.h"

namespace qvdb::tool {

// Runs an operation with a function that shows the percent and throws Interrupted after Ctrl-C;
// again while the database is in use, as --wait allows.
template <typename Operation>
auto withPercent(const char* doing, Operation operation) {
  Progress progress(doing, 100, nullptr);
  const ProgressFunction show = [&progress](int percent) {
    throwIfInterrupted();
    progress.setTo(static_cast<uint64_t>(percent));
    return true;
  };
  return whileInUse([&] { return operation(show); });
}

}  // namespace qvdb::tool
