// The workloads, an entry of a table each.
#pragma once

#include <span>

#include "workloads/filled.h"
#include "workloads/turn.h"

namespace bench {

// Whether a turn is a number of operations, or works on the whole store and takes long.
enum class Length { operations, wholeStore };

struct Workload {
  const char* name;
  const char* summary;
  unsigned abilities;  // the stores that run it have one of these; all but those of names with 0
  Length length;
  bool looksUp;  // whether its operations find records by their keys
  // How many changes a turn makes to a store of so many records that later turns notice; none
  // where it is null.
  size_t (*changes)(size_t records);
  void (*run)(Filled&, Turn&);  // one turn
};

// In the order in which they run: those first that leave the store as it was.
std::span<const Workload> workloads();
const Workload* findWorkload(const std::string& name);

bool isRunBy(const Workload& workload, const StoreKind& kind);

// Operations of one turn: that read; that change the store, which are few beside its records.
constexpr size_t kReads = 10'000;
constexpr size_t kCommits = 200;
constexpr size_t kCommittingThreads = 8;
size_t changesOf(size_t records);
size_t operationsOfTransaction(size_t records);

// The turns, by the files in which they are defined: see workloads.cpp for what each does.

void append(Filled& f, Turn& turn);
void update(Filled& f, Turn& turn);
void grow(Filled& f, Turn& turn);
void remove(Filled& f, Turn& turn);
void mixInTransaction(Filled& f, Turn& turn);
void commitEach(Filled& f, Turn& turn);
void commitInThreads(Filled& f, Turn& turn);

void scanKeys(Filled& f, Turn& turn);
void scanValues(Filled& f, Turn& turn);
void lastTen(Filled& f, Turn& turn);
void lookUp(Filled& f, Turn& turn);
void lookUpAbsent(Filled& f, Turn& turn);
void openAndRead(Filled& f, Turn& turn);

void loadAll(Filled& f, Turn& turn);
void compactInOrder(Filled& f, Turn& turn);
void compactChanged(Filled& f, Turn& turn);

void inspect(Filled& f, Turn& turn);
void stepChain(Filled& f, Turn& turn);
void readInThreads(Filled& f, Turn& turn);
void readInThreadsReadOnly(Filled& f, Turn& turn);
void readInProcesses(Filled& f, Turn& turn);

void lookUpName(Filled& f, Turn& turn);
void walkNames(Filled& f, Turn& turn);
void addNames(Filled& f, Turn& turn);
void openAndReadName(Filled& f, Turn& turn);

void ycsbA(Filled& f, Turn& turn);
void ycsbB(Filled& f, Turn& turn);
void ycsbC(Filled& f, Turn& turn);
void ycsbD(Filled& f, Turn& turn);
void ycsbE(Filled& f, Turn& turn);
void ycsbF(Filled& f, Turn& turn);

}  // namespace bench
