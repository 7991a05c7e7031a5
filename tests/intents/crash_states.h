// The states in which a crash can leave a file, made of the writes and syncs that were recorded.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <iterator>
#include <map>
#include <random>
#include <set>
#include <vector>

#include "intents/recovery.h"
#include "intents/staged_transactions.h"
#include "kit/bytes.h"
#include "kit/test_extent.h"

namespace qvdbase::test {

// One write or sync.
struct Step {
  bool isSync = false;
  size_t position = 0;
  Bytes bytes;
  size_t returned = 0;          // changes that had returned when it was made
  size_t begun = 0;             // and that had begun
  std::set<size_t> loose = {};  // tables that an operation outside of any transaction is changing
};

inline void writeInto(Bytes* file, size_t position, const Bytes& bytes, size_t count) {
  if (file->size() < position + count) file->resize(position + count);
  std::copy_n(bytes.begin(), count, file->begin() + static_cast<std::ptrdiff_t>(position));
}

inline bool isIntent(const Bytes& block) {
  return block.size() > 13 && block.at(0, 11) == hex("87 0040").text("QVintent");
}

// The states in which a host that ends can leave a file: all, or so many of them.
class PowerStates {
 public:
  PowerStates(const Bytes& durable, const std::vector<const Step*>& writes, size_t unit,
              std::mt19937_64* random)
      : durable_(durable), unit_(unit), random_(random) {
    Bytes now = durable;
    lengths_.insert(durable.size());
    for (const Step* write : writes) {
      writeInto(&now, write->position, write->bytes, write->bytes.size());
      lengths_.insert(now.size());
      const size_t last = (write->position + write->bytes.size() - 1) / unit;
      for (size_t k = write->position / unit; k <= last; ++k) {
        std::vector<Bytes>& known = versions_[k];
        if (known.empty()) known.push_back(sector(durable, k));
        if (sector(now, k) != known.back()) known.push_back(sector(now, k));
      }
    }
  }

  template <typename Try>
  void forSome(size_t most, const Try& tried) {
    size_t all = lengths_.size();
    for (const auto& [k, known] : versions_) all = std::min(all * known.size(), most + 1);
    for (size_t i = 0; i < std::min(all, most); ++i) tried(all <= most ? numbered(i) : drawn());
  }

 private:
  Bytes sector(const Bytes& file, size_t k) const {
    const size_t begin = std::min(file.size(), k * unit_);
    return file.at(begin, std::min(file.size() - begin, unit_));
  }

  template <typename Choose>
  Bytes built(const Choose& choose) const {
    auto length = lengths_.begin();
    std::advance(length, static_cast<std::ptrdiff_t>(choose(lengths_.size())));
    Bytes file = durable_;
    file.resize(std::max(file.size(), *length));
    for (const auto& [k, known] : versions_) {
      const Bytes& version = known[choose(known.size())];
      const size_t begin = k * unit_;
      if (begin >= file.size()) continue;
      writeInto(&file, begin, version, std::min(version.size(), file.size() - begin));
    }
    file.resize(*length);
    return file;
  }

  Bytes numbered(size_t index) const {
    return built([&](size_t count) {
      const size_t chosen = index % count;
      index /= count;
      return chosen;
    });
  }

  // Mostly the last versions, mostly the first ones, or any.
  Bytes drawn() const {
    const size_t density = (*random_)() % 3;
    return built([&](size_t count) {
      if ((*random_)() % 4 != 0 && density < 2) return density == 0 ? count - 1 : size_t{0};
      return static_cast<size_t>((*random_)() % count);
    });
  }

  const Bytes& durable_;
  const size_t unit_;
  std::mt19937_64* random_;
  std::set<size_t> lengths_;
  std::map<size_t, std::vector<Bytes>> versions_;
};

// The file after recovery, in memory.
inline Bytes recovered(Bytes file) {
  const intents::RecoveryPlan plan = intents::plan(BytesReader(file));
  EXPECT_TRUE(plan.contradicted.empty()) << "nothing else has written to the file";
  EXPECT_NE(plan.pending, intents::Pending::damagedWord);
  for (const intents::PlannedWrite& write : plan.writes) {
    writeInto(&file, static_cast<size_t>(write.position),
              Bytes(write.bytes.begin(), write.bytes.end()), write.bytes.size());
  }
  std::fill_n(file.begin() + 4558, 24, uint8_t{0});
  return file;
}

// How many sequences a family tries: QVDBASE_TEST_SEQUENCES in the environment, or a sample, or
// everything.
inline uint64_t sequencesToTry(uint64_t sample, uint64_t everything) {
  const char* const given = std::getenv("QVDBASE_TEST_SEQUENCES");
  if (given != nullptr && *given != '\0') return std::strtoull(given, nullptr, 10);
  return testEverything() ? everything : sample;
}

}  // namespace qvdbase::test
