#include "report/remarks.h"

#include <algorithm>
#include <iterator>

namespace bench {
namespace {

struct Remark {
  const char* workload;
  const char* text;
};

// What docs/performance.md explains in its sections, as short as it can be said.
constexpr const char* kLookup = "three headers are checked before a record is believed";
constexpr const char* kUpdate =
    "an update is a call of the system; the best peers write into a mapping or a buffer";
constexpr const char* kThreeWrites =
    "three writes, so that every prefix of them is a readable file; the best peers write into a "
    "mapping or a log";
constexpr const char* kOpening =
    "path, locks, header, slot and the kept index are each asked of the system";
constexpr const char* kKeys = "each record is read, and its key made again, before it is believed";
constexpr const char* kCompact =
    "the source is judged and read twice, the copy read back and compared; LMDB copies in one pass";

constexpr Remark kRemarks[] = {
    {"last-10", "a walk is set up anew for each ten records, in both directions"},
    {"lookup", kLookup},
    {"absent", "the entry into an operation, and five places of the index"},
    {"open+read", kOpening},
    {"ycsb-a", kUpdate},
    {"ycsb-b", kUpdate},
    {"ycsb-c", kLookup},
    {"ycsb-d", "an addition is three writes"},
    {"ycsb-e", "a walk is set up anew for some fifty records; an addition is three writes"},
    {"ycsb-f", kUpdate},
    {"key-lookup", kKeys},
    {"key-prefix", kKeys},
    {"key-open+read", kOpening},
    {"update", kUpdate},
    {"append", kThreeWrites},
    {"key-add", kThreeWrites},
    {"grow", kThreeWrites},
    {"delete", kThreeWrites},
    {"transaction", "links in the neighbours of each record; a page of a peer takes many changes"},
    {"commit", "the best peers append to a log only, and leave their data for later"},
    {"commit-threads", "the best peers append to a log only, and leave their data for later"},
    {"key-batch", "each key is looked for in the batch and in the index, and entered by itself"},
    {"compact", kCompact},
    {"compact-in-order", kCompact},
};

}  // namespace

std::string whyBehind(const std::string& workload) {
  const auto* found = std::find_if(std::begin(kRemarks), std::end(kRemarks),
                                   [&](const Remark& each) { return workload == each.workload; });
  return found == std::end(kRemarks) ? "" : found->text;
}

}  // namespace bench
