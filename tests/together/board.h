// What the processes of a test share, in memory that all of them see.
#pragma once

#include <sys/mman.h>

#include <atomic>
#include <cstdint>
#include <new>
#include <stdexcept>

namespace qvdbase::test {

struct Board {
  std::atomic<bool> isOver;  // the writer has done its work
  std::atomic<uint32_t> looks;
  std::atomic<uint64_t> deleted;  // a record that is not in the table any more; 0: none yet
};

class SharedBoard {
 public:
  SharedBoard() {
    void* memory =
        ::mmap(nullptr, sizeof(Board), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (memory == MAP_FAILED) throw std::runtime_error("no memory");
    board_ = new (memory) Board{};
  }
  ~SharedBoard() { ::munmap(board_, sizeof(Board)); }
  SharedBoard(const SharedBoard&) = delete;
  SharedBoard& operator=(const SharedBoard&) = delete;

  Board& operator*() const { return *board_; }
  Board* operator->() const { return board_; }

 private:
  Board* board_;
};

// Lets the readers end, also when the writer fails.
struct AtEnd {
  Board& board;
  ~AtEnd() { board.isOver = true; }
};

}  // namespace qvdbase::test
