// A time that the user gives with an option.
#include "streams/given_time.h"

#include "streams/failure.h"
#include "streams/text.h"

namespace qvdb::tool {

int64_t timeOfOption(const std::string& option, const std::string& text) {
  if (const auto time = parseTime(text)) return *time;
  throw wrongUsage(option + ": '" + text +
                   "' is no time; write 2024-05-01T12:34:56, 2024-05-01 (UTC) or @SECONDS");
}

}  // namespace qvdb::tool
