// Raw limits: what the bytes that a workload moves cost without a store. They take part in the
// workloads like stores, with names that begin with "raw-".
#pragma once

#include <filesystem>
#include <functional>
#include <memory>
#include <span>

#include "figures/figure.h"
#include "workloads/turn.h"

namespace bench {

// The bytes of a store of this size, in a file and in memory, each made when it is first used.
class RawStore;
std::shared_ptr<RawStore> makeRawStore(Size size, const std::filesystem::path& scratch);

struct RawLimit {
  const char* workload;
  const char* name;
  const char* summary;
  void (*run)(RawStore&, Turn&);  // one turn
};

std::span<const RawLimit> rawLimits();

}  // namespace bench
