// Progress of long work: one line on standard error that is written again and again, only on a
// terminal.
#pragma once

#include <chrono>
#include <cstdint>
#include <string>

namespace qvdb::tool {

class Progress {
 public:
  // "importing 120 of 1000 files"; a total of 0 is not known and not shown. Without things only the
  // percent is shown: "packing 12 %".
  Progress(const char* doing, uint64_t total, const char* things);
  ~Progress();
  Progress(const Progress&) = delete;
  Progress& operator=(const Progress&) = delete;

  void step();
  void setTo(uint64_t done);

  // Removes the line.
  void clear();

 private:
  void show();

  std::string doing_;
  uint64_t total_;
  std::string things_;
  uint64_t done_ = 0;
  bool isShown_ = false;
  bool isTerminal_;
  std::chrono::steady_clock::time_point next_;
};

}  // namespace qvdb::tool
