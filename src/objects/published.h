// A number that threads read without waiting for those that change it.
#pragma once

#include <atomic>

namespace qvdb::detail {

// One thread at a time stores it: the one that has the turn of the database. Others read it at any
// time. It orders nothing else: who has to know more takes the turn.
template <typename Number>
class Published {
 public:
  Published(Number number = 0) : number_(number) {}
  Published(const Published&) = delete;
  Published& operator=(const Published& other) { return *this = static_cast<Number>(other); }

  operator Number() const { return number_.load(std::memory_order_relaxed); }

  Published& operator=(Number number) {
    number_.store(number, std::memory_order_relaxed);
    return *this;
  }
  Published& operator++() { return *this = static_cast<Number>(*this + 1); }

 private:
  std::atomic<Number> number_;
};

}  // namespace qvdb::detail
