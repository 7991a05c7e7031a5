// Times: one that the user gives with an option, and the present one.
#pragma once

#include <cstdint>
#include <string>

namespace qvdb::tool {

// Seconds since 1970. `option` is for the message. Throws Failure for what is no time.
int64_t timeOfOption(const std::string& option, const std::string& text);

// The present time, in seconds since 1970.
int64_t timeNow();

// Sets the clock that timeNow() reads; null for that of the machine. Tests use it.
void setClock(int64_t (*clock)());

}  // namespace qvdb::tool
