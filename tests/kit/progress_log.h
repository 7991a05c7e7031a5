// A progress function that writes down how it is called, and does what the test wants.
//
//   ProgressLog log;
//   PackOneDB2NewW(src, dst, 7, ProgressLog::function);
//   EXPECT_EQ(log.percents(), (std::vector<int>{1, 98, 99, 100}));
//
// The function finds its log through the object that exists: one at a time.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <vector>

namespace qvdbase::test {

class ProgressLog {
 public:
  struct Entry {
    int first;
    int second;
    void* third;

    bool operator==(const Entry&) const = default;
  };

  ProgressLog() { current() = this; }
  ~ProgressLog() { current() = nullptr; }
  ProgressLog(const ProgressLog&) = delete;
  ProgressLog& operator=(const ProgressLog&) = delete;

  // Returns 0 from the call of this index, counted from 0; never while it is -1.
  int stopAt = -1;
  // What the other calls return.
  uint16_t goOn = 1;
  // Runs in each call, with its index.
  std::function<void(size_t)> during;

  std::vector<Entry> entries;

  // The second numbers, where the packs hand the percent, and the first, where link repair does.
  std::vector<int> percents() const {
    std::vector<int> result;
    for (const Entry& entry : entries) result.push_back(entry.second);
    return result;
  }
  std::vector<int> repairPercents() const {
    std::vector<int> result;
    for (const Entry& entry : entries) result.push_back(entry.first);
    return result;
  }

  static uint16_t function(int first, int second, void* third) {
    ProgressLog& log = *current();
    const size_t index = log.entries.size();
    log.entries.push_back({first, second, third});
    if (log.during) log.during(index);
    return static_cast<int>(index) == log.stopAt ? uint16_t{0} : log.goOn;
  }

 private:
  static ProgressLog*& current() {
    static ProgressLog* log = nullptr;
    return log;
  }
};

}  // namespace qvdbase::test
