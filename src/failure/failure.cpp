#include "failure/failure.h"

#include <algorithm>
#include <iterator>
#include <utility>

#include "platform/handles/byte_holder.h"

using namespace qvdb;

namespace qvdbase::failure {

using platform::OpenFailure;
using platform::OpenFailureFound;
using platform::WriteFailure;
using platform::WriteObstacle;

namespace {

struct Cause {
  OpenFailure failure;
  Reason reason;
  const char* why;
};

constexpr Cause kCauses[] = {
    {OpenFailure::folderMissing, Reason::no_such_file, "a folder in its path does not exist"},
    {OpenFailure::notAFolder, Reason::no_such_file, "something in its path is not a folder"},
    {OpenFailure::fileMissing, Reason::no_such_file, "there is no such file"},
    {OpenFailure::notAFile, Reason::not_a_file, "it is not a regular file"},
    {OpenFailure::nameTooLong, Reason::path_not_reachable,
     "a name in it is too long for the system"},
    {OpenFailure::accessDenied, Reason::access_denied, "the system denies access"},
    {OpenFailure::readOnlyVolume, Reason::read_only_file_system,
     "it is on a read-only file system"},
    {OpenFailure::inUse, Reason::in_use, "another process is writing to it"},
    {OpenFailure::isRunning, Reason::in_use, "it is a program that is running"},
    {OpenFailure::cannotLock, Reason::cannot_lock, "its file system does not lock files"},
    {OpenFailure::tooManyOpen, Reason::cannot_open, "too many files are open"},
    {OpenFailure::noSpace, Reason::disk_full, "the disk is full"}};

constexpr Cause kOther = {OpenFailure::other, Reason::cannot_open, "the system cannot open it"};

Cause causeOf(OpenFailure failure) {
  const auto* const found =
      std::find_if(std::begin(kCauses), std::end(kCauses),
                   [&](const Cause& each) { return each.failure == failure; });
  return found != std::end(kCauses) ? *found : kOther;
}

Cause causeOf(WriteObstacle obstacle) {
  if (obstacle == WriteObstacle::full) return causeOf(OpenFailure::noSpace);
  if (obstacle == WriteObstacle::readOnlyVolume) return causeOf(OpenFailure::readOnlyVolume);
  if (obstacle == WriteObstacle::unknown) {
    return {OpenFailure::other, Reason::cannot_write, "the file cannot be written"};
  }
  return {OpenFailure::other, Reason::size_limit,
          "it would be longer than the limits of the system allow"};
}

// The words of the system are added only where no reason of ours says the same.
std::string withSystemsWords(const Cause& cause, const std::error_code& code) {
  const bool isGeneral =
      cause.reason == Reason::cannot_open || cause.reason == Reason::cannot_write;
  return isGeneral && code ? std::string(cause.why) + " (" + code.message() + ")" : cause.why;
}

[[noreturn]] void throwCause(const std::filesystem::path& path, const char* operation,
                             const Cause& cause, const std::error_code& code,
                             const std::string& subject = {}, ErrorDetails details = {}) {
  details.system_code = code;
  throwError(path, operation, cause.reason, subject + withSystemsWords(cause, code),
             std::move(details));
}

ErrorDetails withCode(const std::error_code& code) {
  ErrorDetails details;
  details.system_code = code;
  return details;
}

}  // namespace

void throwError(const std::filesystem::path& path, const char* operation, Reason reason,
                const std::string& why, ErrorDetails details) {
  details.path = path;
  throw Error(operation, reason, path.native() + ": cannot " + operation + ": " + why,
              std::move(details));
}

void throwError(const std::filesystem::path& path, const char* operation, Reason reason,
                ErrorDetails details) {
  throwError(path, operation, reason, std::string(to_string(reason)), std::move(details));
}

void throwError(const char* operation, Reason reason, const std::string& why) {
  throw Error(operation, reason, std::string("cannot ") + operation + ": " + why);
}

std::string wordsFor(const platform::LockHolder& holder) {
  if (holder.isThisProcess) return "this program has it open for writing already";
  if (holder.process == 0) return causeOf(OpenFailure::inUse).why;
  const std::string who = platform::inParentheses(holder);
  return "another process" + who + " is writing to it";
}

void throwOpenFailure(const std::filesystem::path& path, const char* operation,
                      const OpenFailureFound& found) {
  if (found.failure == OpenFailure::inUse) {
    throwError(path, operation, Reason::in_use, wordsFor(found.holder), withCode(found.code));
  }
  if (found.fileSystem != nullptr) {
    throwError(path, operation, Reason::cannot_lock,
               std::string("its file system (") + found.fileSystem + ") does not lock files",
               withCode(found.code));
  }
  throwCause(path, operation, causeOf(found.failure), found.code);
}

void throwFolderFailure(const std::filesystem::path& path, const char* operation,
                        const std::string& what, const std::error_code& code) {
  const OpenFailureFound found = platform::createFailureOf(code);
  Cause cause = causeOf(found.failure);
  if (found.failure == OpenFailure::other) cause.why = "the system refuses";
  if (cause.reason == Reason::no_such_file) cause.reason = Reason::path_not_reachable;
  throwCause(path, operation, cause, found.code, what + ": ");
}

void throwWriteFailure(const std::filesystem::path& path, const char* operation,
                       const WriteFailure& found, ErrorDetails details) {
  throwCause(path, operation, causeOf(found.obstacle), found.code, {}, std::move(details));
}

}  // namespace qvdbase::failure
