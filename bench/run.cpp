#include "run.h"

#include <stdlib.h>
#include <sys/resource.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <map>

#include "figures/measure.h"
#include "figures/statistics.h"
#include "scratch.h"
#include "workloads/raw.h"
#include "workloads/workload.h"

namespace bench {
namespace {

constexpr Plan kShortTurns{};
constexpr Plan kLongTurns{.warmUpVisits = 1, .warmUpTurns = 0, .turns = 1};
constexpr Plan kFewShortTurns{.visits = 2, .turns = 2, .attempts = 1};
constexpr Plan kFewLongTurns{.visits = 3, .warmUpTurns = 0, .turns = 1, .attempts = 1};

constexpr size_t kHuge = 5'000'000;  // records, with which turns take so long that few have to do

Plan planOf(const Workload& workload, const RunOptions& options) {
  const bool isShort = workload.length == Length::operations;
  const bool areFew = options.isQuick || options.size.records >= kHuge;
  if (areFew) return isShort ? kFewShortTurns : kFewLongTurns;
  return isShort ? kShortTurns : kLongTurns;
}

class Run {
 public:
  explicit Run(const RunOptions& options) : options_(options) {
    if (std::filesystem::exists(options.output)) results_ = load(options.output);
    const Machine machine = machineOf(scratch_.path());
    if (!results_.figures.empty() && results_.machine != machine) {
      failed(options.output.string() + " is of another machine: remove it, or name another file");
    }
    results_.machine = machine;
  }

  void measure(const Workload& workload) {
    const Plan plan = planOf(workload, options_);
    std::vector<std::map<std::string, double>> notes;
    const std::vector<Participant> participants = participantsOf(workload, notes);
    if (participants.empty()) return;
    const std::vector<Measured> measured = bench::measure(participants, plan, random_);
    for (size_t i = 0; i < measured.size(); ++i) {
      const Figure figure{
          workload.name,    participants[i].name, options_.size, measured[i].processor,
          measured[i].wall, measured[i].attempts, notes[i]};
      results_.put(figure);
      print(figure);
    }
    save(results_, options_.output);
  }

 private:
  bool isWanted(const Workload& workload, const std::string& store) const {
    if (!options_.stores.empty() && !options_.stores.contains(store)) return false;
    return !options_.isContinued || results_.find(workload.name, store, options_.size) == nullptr;
  }

  // Their notes are at the same places in `notes`, which holds still while they take part.
  std::vector<Participant> participantsOf(const Workload& workload,
                                          std::vector<std::map<std::string, double>>& notes) {
    std::vector<Participant> participants;
    notes.resize(storeKinds().size() + rawLimits().size());
    for (const StoreKind& kind : storeKinds()) {
      if (!isRunBy(workload, kind) || !isWanted(workload, kind.name)) continue;
      participants.push_back(participantOf(workload, kind, notes[participants.size()]));
    }
    for (const RawLimit& limit : rawLimits()) {
      if (limit.workload != std::string_view(workload.name) || !isWanted(workload, limit.name)) {
        continue;
      }
      participants.push_back(participantOf(limit));
    }
    return participants;
  }

  Participant participantOf(const Workload& workload, const StoreKind& kind,
                            std::map<std::string, double>& notes) {
    auto& filled = filled_[kind.name];
    if (filled == nullptr) filled = std::make_unique<Filled>(kind, options_.size, scratch_.path());
    Filled& f = *filled;
    const size_t changes = workload.changes ? workload.changes(options_.size.records) : 0;
    return {kind.name,
            [&f, &workload, changes](size_t turns) {
              f.provideFor(turns * changes);
              f.store().expectLookups(workload.looksUp);
            },
            [&f, &workload, &notes] {
              Turn turn;
              workload.run(f, turn);
              notes = turn.notes();
              return turn.sample();
            },
            [&f] { f.verifySample(); }};
  }

  Participant participantOf(const RawLimit& limit) {
    if (raw_ == nullptr) raw_ = makeRawStore(options_.size, scratch_.path());
    return {limit.name, [](size_t) {},
            [this, &limit] {
              Turn turn;
              limit.run(*raw_, turn);
              return turn.sample();
            },
            [] {}};
  }

  static void print(const Figure& figure) {
    const std::vector<double>& counted = countedOf(figure);
    std::printf("%-22s %-18s %12.0f ns  +-%3.0f %%%s\n", figure.workload.c_str(),
                figure.store.c_str(), medianOf(counted), spreadOf(counted) * 100,
                isSteady(counted) ? "" : "  unsteady");
    std::fflush(stdout);
  }

  const RunOptions& options_;
  Scratch scratch_;
  Results results_;
  std::map<std::string, std::unique_ptr<Filled>> filled_;
  std::shared_ptr<RawStore> raw_;
  std::mt19937_64 random_{std::random_device{}()};
};

}  // namespace

Scratch::Scratch() {
  const char* base = std::getenv("TMPDIR");
  std::string pattern = std::string(base != nullptr ? base : "/tmp") + "/qvdbase-bench-XXXXXX";
  if (mkdtemp(pattern.data()) == nullptr) failed("cannot create a folder in TMPDIR");
  path_ = pattern;
}

Scratch::~Scratch() {
  std::error_code ignored;
  std::filesystem::remove_all(path_, ignored);
}

bool run(const RunOptions& options) {
  const auto start = std::chrono::steady_clock::now();
  Run run(options);
  for (const Workload& workload : workloads()) {
    if (!options.workloads.empty() && !options.workloads.contains(workload.name)) continue;
    const std::chrono::duration<double> spent = std::chrono::steady_clock::now() - start;
    if (options.seconds > 0 && spent.count() > options.seconds) return false;
    run.measure(workload);
  }
  return true;
}

void printPeakMemory(const std::string& store, Size size, bool looksUp) {
  const Scratch scratch;
  for (const StoreKind& kind : storeKinds()) {
    if (kind.name != store) continue;
    Filled f(kind, size, scratch.path());
    Turn turn;
    f.load(turn);
    f.store().scanKeys();
    f.store().scanValues();
    f.store().expectLookups(looksUp);
    Bytes value;
    if (looksUp) f.store().get(f.at(0).key, &value);
  }
  rusage usage;
  getrusage(RUSAGE_SELF, &usage);
  std::printf("%ld\n", usage.ru_maxrss);
}

namespace {

const char* describe(unsigned abilities) {
  switch (abilities) {
    case 0:
      return "every store";
    case kLookUp:
      return "every store but qvdbase-c";
    case kOrdered:
      return "stores that keep an order";
    case kCompact:
      return "every store but qvdbase-c";
    case kInspect:
    case kSideBySide:
      return "qvdbase";
    case kChain:
      return "qvdbase-c";
    case kTransact:
      return "stores with transactions over reads and writes";
    case kDurable:
      return "stores that can wait for the device";
    case kThreads:
      return "of these, stores that threads share";
    case kLookUp | kChain | kOpens:
      return "every store, and qvdbase-kept";
    case kNames:
      return "stores with such keys";
  }
  return "";
}

}  // namespace

void listWorkloads() {
  for (const Workload& workload : workloads()) {
    std::printf("%-21s  %-75s  %s\n", workload.name, workload.summary,
                describe(workload.abilities));
  }
  std::printf("\nRaw limits:\n");
  for (const RawLimit& limit : rawLimits()) {
    std::printf("%-21s  %s: %s\n", limit.workload, limit.name, limit.summary);
  }
  std::printf("\nStores:\n");
  for (const StoreKind& kind : storeKinds()) {
    std::printf("%-21s  %s\n", kind.name.c_str(), kind.summary.c_str());
  }
}

}  // namespace bench
