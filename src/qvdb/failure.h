// How operations of this layer fail: the one place that puts the sentence of an error together, and
// the ones that turn what the host said into a reason.
#pragma once

#include <qvdbase/qvdb/error.hpp>

#include <filesystem>
#include <string>

#include "platform/host_failure.h"
#include "platform/open_failure.h"

namespace qvdb::detail {

// Throws an Error on this file: "PATH: cannot OPERATION: WHY". `operation` is a literal. The path
// of the details is set to `path`.
[[noreturn]] void throwError(const std::filesystem::path& path, const char* operation,
                             Reason reason, const std::string& why, ErrorDetails details = {});

// A file that could not be opened, or created.
[[noreturn]] void throwOpenFailure(const std::filesystem::path& path, const char* operation,
                                   const qvdbase::platform::OpenFailureFound& found);

// A file that could not be written.
[[noreturn]] void throwWriteFailure(const std::filesystem::path& path, const char* operation,
                                    const qvdbase::platform::WriteFailure& found,
                                    ErrorDetails details = {});

}  // namespace qvdb::detail
