// The C interface as a manual page, made from the comments of its header.
#pragma once

#include <string>

namespace qvdb::manual {

// qvdbase.3: the comment at the top, and each function with its own.
std::string headerPage(const std::string& header);

}  // namespace qvdb::manual
