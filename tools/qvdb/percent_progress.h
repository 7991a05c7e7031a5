// Progress of an operation on a whole file, in percent.
#ifndef QVDB_TOOL_PERCENT_PROGRESS_H
#define QVDB_TOOL_PERCENT_PROGRESS_H

#include <qvdbase/qvdb.hpp>

#include "interrupt.h"
#include "progress.h"

namespace qvdb::tool {

// For the operation. Shows the percent, and throws Interrupted after Ctrl-C.
inline ProgressFunction percentOn(Progress& progress) {
  return [&progress](int percent) {
    throwIfInterrupted();
    progress.setTo(static_cast<uint64_t>(percent));
    return true;
  };
}

}  // namespace qvdb::tool

#endif
