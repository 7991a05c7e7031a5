// JSON that a command has written.
#pragma once

#include <nlohmann/json.hpp>
#include <string>

namespace qvdbase::test {

// Throws nlohmann::json::exception when `text` is not JSON. In a source of its own, because the
// parser takes longer to compile than most tests that use it.
nlohmann::json parsedJson(const std::string& text);

}  // namespace qvdbase::test
