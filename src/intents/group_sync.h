// A sync for the commits of several threads: one of them waits for the device, without the turn of
// the file, while others append theirs.
#pragma once

#include <atomic>
#include <cstdint>
#include <system_error>

#include "platform/handles/sync.h"

namespace qvdbase::intents {

class GroupSync {
 public:
  // In the turn of the file. Commits up to `ticket` have been appended, and are on the device once
  // it has succeeded.
  GroupSync(int16_t file, uint64_t ticket) : outside_(file), ticket_(ticket) {}
  GroupSync(const GroupSync&) = delete;
  GroupSync& operator=(const GroupSync&) = delete;

  // Once, by the thread that has begun it, without the turn.
  void run() noexcept;

  // Until it is over. Needs no turn, and can be called within one.
  void wait() const noexcept;
  bool isOver() const noexcept { return state_ != State::begun; }

  // Once it is over, and in a process made by fork, which has nobody who would end it: keeps the
  // file open no longer, though threads that have waited may still have to wake up.
  void leave() { outside_.leave(); }

  uint64_t ticket() const { return ticket_; }
  // Once it is over.
  bool hasSucceeded() const noexcept { return state_ == State::succeeded; }
  const std::error_code& host() const { return host_; }  // what the host has answered

 private:
  enum class State : uint32_t { begun, succeeded, failed };

  platform::SyncOutside outside_;
  const uint64_t ticket_;
  std::error_code host_;
  std::atomic<State> state_ = State::begun;
};

}  // namespace qvdbase::intents
