// The table of workloads. What is measured is the time of one record, if nothing else is said.
#include "workloads/workload.h"

#include <algorithm>

namespace bench {
namespace {

constexpr auto kShort = Length::operations;
constexpr auto kWhole = Length::wholeStore;

// What YCSB D and E add in a turn.
size_t additionsOf(size_t) {
  return kReads / 20;
}

size_t transactionChanges(size_t records) {
  return operationsOfTransaction(records) / 2;
}

size_t commitsOf(size_t) {
  return kCommits;
}

constexpr Workload kWorkloads[] = {
    {"scan-ids", "walk all records, reading identifiers only", 0, kShort, false, nullptr, scanKeys},
    {"scan-payloads", "walk all records, reading their values", kLookUp, kShort, false, nullptr,
     scanValues},
    {"last-10", "read the ten records that were added last", kOrdered, kShort, false, nullptr,
     lastTen},
    {"lookup", "read a record that is there, chosen at random", kLookUp, kShort, true, nullptr,
     lookUp},
    {"absent", "look up a record that is not there", kLookUp, kShort, true, nullptr, lookUpAbsent},
    {"open+read", "open the closed store and read one record by its key", kLookUp | kChain | kOpens,
     kShort, false, nullptr, openAndRead},
    {"check", "read the whole closed store to see that it is sound", kInspect, kWhole, false,
     nullptr, inspect},
    {"reader-threads", "walk and look up in two threads, a Reader each, of an exclusive opener",
     kSideBySide, kWhole, false, nullptr, readInThreads},
    {"reader-threads-shared", "the same of a database that is open for reading only", kSideBySide,
     kWhole, false, nullptr, readInThreadsReadOnly},
    {"reader-processes", "the same work in two processes, which open it for reading only",
     kSideBySide, kWhole, false, nullptr, readInProcesses},
    {"chain-step", "search for an absent record by walking the chain", kChain, kShort, false,
     nullptr, stepChain},
    {"ycsb-c", "YCSB C: read popular records", kLookUp, kShort, true, nullptr, ycsbC},
    {"ycsb-b", "YCSB B: read popular records (95 %), update them", kLookUp, kShort, true, nullptr,
     ycsbB},
    {"ycsb-a", "YCSB A: read popular records (50 %), update them", kLookUp, kShort, true, nullptr,
     ycsbA},
    {"ycsb-f", "YCSB F: read popular records (50 %), or read and then update them", kLookUp, kShort,
     true, nullptr, ycsbF},
    {"ycsb-d", "YCSB D: read new records (95 %), add some", kLookUp, kShort, true, additionsOf,
     ycsbD},
    {"ycsb-e", "YCSB E: walk 1 to 100 records from a popular one (95 %), add some", kOrdered,
     kShort, true, additionsOf, ycsbE},
    {"key-lookup", "read a record by a key of the user's own", kNames, kShort, true, nullptr,
     lookUpName},
    {"key-prefix", "read the records whose keys begin so, some 20 or more; of one record", kNames,
     kShort, true, nullptr, walkNames},
    {"key-open+read", "open the closed store and read one record by a key of the user's own",
     kNames, kShort, true, nullptr, openAndReadName},
    {"update", "write a value of the same size over a random record's", kLookUp, kShort, true,
     nullptr, update},
    {"append", "add a record with a call of its own", 0, kShort, false, changesOf, append},
    {"key-add", "add a record with a key of the user's own that no other may have", kNames, kShort,
     true, changesOf, addNames},
    {"grow", "write a value half as large again over a random record's", kLookUp, kShort, true,
     changesOf, grow},
    {"delete", "remove a random record", kLookUp, kShort, true, changesOf, remove},
    {"transaction", "an operation of 1,000 in one transaction: add, write over, read and remove",
     kTransact, kShort, true, transactionChanges, mixInTransaction},
    {"commit", "add a record, which the device has when the call returns", kDurable, kShort, false,
     commitsOf, commitEach},
    {"commit-threads", "the same by eight threads at once", kThreads, kShort, false, commitsOf,
     commitInThreads},
    {"batch", "fill a new store in the way it recommends for many records", 0, kWhole, false,
     nullptr, loadAll},
    {"key-batch", "the same with a key of the user's own for each record", kNames, kWhole, false,
     nullptr, loadAll},
    {"compact", "give dead space back after half as many changes as there are records", kCompact,
     kWhole, false, nullptr, compactChanged},
    {"compact-in-order", "the same of a store without dead space", kCompact, kWhole, false, nullptr,
     compactInOrder},
};

}  // namespace

std::span<const Workload> workloads() {
  return kWorkloads;
}

const Workload* findWorkload(const std::string& name) {
  const auto* found = std::find_if(std::begin(kWorkloads), std::end(kWorkloads),
                                   [&](const Workload& workload) { return workload.name == name; });
  return found == std::end(kWorkloads) ? nullptr : found;
}

bool isRunBy(const Workload& workload, const StoreKind& kind) {
  constexpr unsigned kFew = kNames | kOpens;
  if (workload.abilities == 0) return (kind.abilities & kFew) == 0;
  return (workload.abilities & kind.abilities) != 0;
}

size_t operationsOfTransaction(size_t records) {
  return std::min<size_t>(1000, records / 10);
}

size_t changesOf(size_t records) {
  return std::clamp<size_t>(records / 20, 1, 2000);
}

}  // namespace bench
