// What the user may have meant by the name of a command that there is not.
#pragma once

#include <string>
#include <string_view>

namespace qvdb::tool {

// "did you mean 'qvdb create'?", or nothing.
std::string suggestionFor(std::string_view word);

}  // namespace qvdb::tool
