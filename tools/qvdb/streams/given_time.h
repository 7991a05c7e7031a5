// A time that the user gives with an option.
#pragma once

#include <cstdint>
#include <string>

namespace qvdb::tool {

// Seconds since 1970. `option` is for the message. Throws Failure for what is no time.
int64_t timeOfOption(const std::string& option, const std::string& text);

}  // namespace qvdb::tool
