// A caller's progress function between C++ and C: percents that never fall, exceptions that do not
// cross C functions, and what became of it all.
#pragma once

#include <qvdbase/qvdbase.h>
#include <qvdbase/qvdb/maintenance.hpp>

#include <exception>

namespace qvdbase::upkeep {

class Reporter {
 public:
  explicit Reporter(const qvdb::ProgressFunction& function) : function_(function) {}
  Reporter(const Reporter&) = delete;
  Reporter& operator=(const Reporter&) = delete;

  // Whether there is a function to call.
  bool isAsked() const { return static_cast<bool>(function_); }

  // Calls the function. False when the operation is to stop; it may not be called again then. Keeps
  // what the function throws; only the cancellation of its thread passes.
  bool report(int percent);

  // Rethrows what the function threw; otherwise returns whether it asked to stop.
  bool wantsToStop() const;

  // The progress functions to hand to the C functions, with the reporter as their argument. Packs
  // call with the percent second.
  static uint16_t packProgress(int userData, int percent, void* reporter);
  static uint16_t repairProgress(int percent, int userData, void* reporter);

 private:
  const qvdb::ProgressFunction& function_;
  int highest_ = -1;
  bool stops_ = false;
  std::exception_ptr exception_;
};

}  // namespace qvdbase::upkeep
