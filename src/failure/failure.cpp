#include "failure/failure.h"

#include <utility>

using namespace qvdb;

namespace qvdbase::failure {

using platform::OpenFailure;
using platform::OpenFailureFound;
using platform::WriteFailure;
using platform::WriteObstacle;

namespace {

struct Cause {
  Reason reason;
  const char* why;
};

Cause causeOf(OpenFailure failure) {
  switch (failure) {
    case OpenFailure::folderMissing:
      return {Reason::no_such_file, "a folder in its path does not exist"};
    case OpenFailure::notAFolder:
      return {Reason::no_such_file, "something in its path is not a folder"};
    case OpenFailure::fileMissing:
      return {Reason::no_such_file, "there is no such file"};
    case OpenFailure::notAFile:
      return {Reason::not_a_file, "it is not a regular file"};
    case OpenFailure::nameTooLong:
      return {Reason::path_not_reachable, "a name in it is too long for the system"};
    case OpenFailure::accessDenied:
      return {Reason::access_denied, "the system denies access"};
    case OpenFailure::readOnlyVolume:
      return {Reason::read_only_file_system, "it is on a read-only file system"};
    case OpenFailure::inUse:
      return {Reason::in_use, "another process is writing to it"};
    case OpenFailure::isRunning:
      return {Reason::in_use, "it is a program that is running"};
    case OpenFailure::cannotLock:
      return {Reason::cannot_lock, "its file system does not lock files"};
    case OpenFailure::tooManyOpen:
      return {Reason::cannot_open, "too many files are open"};
    case OpenFailure::noSpace:
      return {Reason::disk_full, "the disk is full"};
    case OpenFailure::none:
    case OpenFailure::other:
      break;
  }
  return {Reason::cannot_open, "the system cannot open it"};
}

Cause causeOf(WriteObstacle obstacle) {
  switch (obstacle) {
    case WriteObstacle::full:
      return {Reason::disk_full, "the disk is full"};
    case WriteObstacle::sizeLimit:
      return {Reason::size_limit, "it would be longer than the limits of the system allow"};
    case WriteObstacle::readOnlyVolume:
      return {Reason::read_only_file_system, "it is on a read-only file system"};
    case WriteObstacle::unknown:
      break;
  }
  return {Reason::cannot_write, "the file cannot be written"};
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

void throwError(const std::filesystem::path& path, const char* operation, Reason reason) {
  throwError(path, operation, reason, std::string(to_string(reason)));
}

void throwError(const char* operation, Reason reason, const std::string& why) {
  throw Error(operation, reason, std::string("cannot ") + operation + ": " + why);
}

std::string wordsFor(const platform::LockHolder& holder) {
  if (holder.isThisProcess) return "this program has it open for writing already";
  if (holder.process == 0) return causeOf(OpenFailure::inUse).why;
  const std::string name = holder.name.empty() ? "" : ", " + holder.name;
  return "another process (" + std::to_string(holder.process) + name + ") is writing to it";
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
