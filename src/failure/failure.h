// How operations of the C++ layer fail: the one place that composes the sentence of an error, and
// that turns an answer of the host into a reason.
#pragma once

#include <qvdbase/qvdb/error.hpp>

#include <filesystem>
#include <string>
#include <system_error>

#include "platform/handles/open_failure.h"
#include "platform/host/host_failure.h"

namespace qvdbase::failure {

// Throws an Error on this file: "PATH: cannot OPERATION: WHY". `operation` is a literal. The path
// of the details is set to `path`.
[[noreturn]] void throwError(const std::filesystem::path& path, const char* operation,
                             qvdb::Reason reason, const std::string& why,
                             qvdb::ErrorDetails details = {});

// The same in the words of the reason alone.
[[noreturn]] void throwError(const std::filesystem::path& path, const char* operation,
                             qvdb::Reason reason, qvdb::ErrorDetails details = {});

// The same where no file is concerned: "cannot OPERATION: WHY".
[[noreturn]] void throwError(const char* operation, qvdb::Reason reason, const std::string& why);

// Who has a file open that is in use, as a sentence: "another process (4711, backup) is writing to
// it".
std::string wordsFor(const platform::LockHolder& holder);

// A file that could not be opened, or created.
[[noreturn]] void throwOpenFailure(const std::filesystem::path& path, const char* operation,
                                   const platform::OpenFailureFound& found);

// A folder, needed for the file `path`, that could not be created or looked at. `what` begins the
// reason and says which folder: "its folder cannot be created".
[[noreturn]] void throwFolderFailure(const std::filesystem::path& path, const char* operation,
                                     const std::string& what, const std::error_code& code);

// A file that could not be written.
[[noreturn]] void throwWriteFailure(const std::filesystem::path& path, const char* operation,
                                    const platform::WriteFailure& found,
                                    qvdb::ErrorDetails details = {});

}  // namespace qvdbase::failure
