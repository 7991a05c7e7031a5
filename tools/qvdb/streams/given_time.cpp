// Times: one that the user gives with an option, and the present one.
#include "streams/given_time.h"

#include <chrono>

#include "streams/failure.h"
#include "streams/text.h"

namespace qvdb::tool {
namespace {

int64_t (*theClock)() = nullptr;

}  // namespace

int64_t timeOfOption(const std::string& option, const std::string& text) {
  if (const auto time = parseTime(text)) return *time;
  throw wrongUsage(option + ": '" + text +
                   "' is no time; write 2024-05-01T12:34:56, 2024-05-01 (UTC) or @SECONDS");
}

int64_t timeNow() {
  if (theClock != nullptr) return theClock();
  const auto now = std::chrono::system_clock::now().time_since_epoch();
  return std::chrono::duration_cast<std::chrono::seconds>(now).count();
}

void setClock(int64_t (*clock)()) {
  theClock = clock;
}

}  // namespace qvdb::tool
