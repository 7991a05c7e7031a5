// Files that appear under their name only when they are finished.
#include "products/target_file.h"

#include <algorithm>
#include <system_error>
#include <utility>
#include <vector>

#include "failure/failure.h"
#include "failure/native_path.h"
#include "platform/handles/open_failure.h"
#include "platform/handles/open_files.h"
#include "platform/handles/read_only_file.h"
#include "platform/paths/host_path.h"
#include "platform/paths/placing.h"

using namespace qvdb;

namespace qvdbase::products {

namespace fs = std::filesystem;

using failure::throwError;

fs::path resolved(const fs::path& path, const char* operation) {
  std::error_code error;
  if (path.empty()) throwError(path, operation, Reason::path_not_reachable, "the path is empty");
  fs::path result = fs::weakly_canonical(fs::absolute(path, error), error);
  if (error == std::errc::permission_denied) {
    failure::throwFolderFailure(path, operation, "its folder cannot be reached", error);
  }
  if (error) {
    ErrorDetails details;
    details.system_code = {error.value(), std::system_category()};
    throwError(path, operation, Reason::path_not_reachable, error.message(), std::move(details));
  }
  return result;
}

namespace {

constexpr const char* kNoFile = "something that is no file has that name";

// Creates the folder and those in its path. Returns those that are new.
std::vector<fs::path> createFolders(const fs::path& folder, std::error_code* error) {
  std::vector<fs::path> created;
  std::error_code ignored;
  for (fs::path at = folder; at.has_relative_path() && !fs::exists(at, ignored);
       at = at.parent_path()) {
    created.push_back(at);
  }
  fs::create_directories(folder, *error);
  return created;
}

// A device that fails, or no descriptor that is left for the folder to wait for.
[[noreturn]] void throwUnsynced(const fs::path& file, const char* operation,
                                const std::string& whoCannot) {
  ErrorDetails details;
  details.system_code = platform::lastHostFailure();
  std::string why = whoCannot + " wait until the device has its name";
  if (details.system_code) why += " (" + details.system_code.message() + ")";
  throwError(file, operation, Reason::cannot_write, why, std::move(details));
}

// Waits until the device has the folder's name in the folder above it.
bool syncName(const fs::path& folder) {
  platform::Directory above;
  return platform::walkToParent(folder.native(), &above) != nullptr && platform::syncFolder(above);
}

}  // namespace

void requireFolder(const fs::path& file, const char* operation, Missing missing) {
  std::error_code error;
  const fs::path folder = fs::absolute(file, error).parent_path();
  if (error) {
    throwError(file, operation, Reason::path_not_reachable,
               "the current folder is not known (" + error.message() + ")");
  }
  if (missing != Missing::fail) {
    const std::vector<fs::path> created = createFolders(folder, &error);
    if (error) failure::throwFolderFailure(file, operation, "its folder cannot be created", error);
    const bool isSynced =
        missing == Missing::areCreated || std::all_of(created.begin(), created.end(), syncName);
    if (!isSynced) {
      throwUnsynced(file, operation, "its folder was created, but the system cannot");
    }
  }
  const fs::file_status status = fs::status(folder, error);
  if (fs::is_directory(status)) return;
  if (!fs::status_known(status)) {
    failure::throwFolderFailure(file, operation, "its folder cannot be reached", error);
  }
  if (fs::exists(status)) {
    throwError(file, operation, Reason::path_not_reachable, folder.native() + " is not a folder");
  }
  ErrorDetails details;
  details.remedy = Remedy::create_folder;
  throwError(file, operation, Reason::path_not_reachable,
             "the folder " + folder.native() + " does not exist", std::move(details));
}

platform::FileAccess accessOf(const fs::path& file, const char* operation) {
  platform::ReadOnlyFile source;
  platform::FileAccess access;
  const fs::path place = resolved(file, operation);
  if (!source.open(place.native())) {
    const std::vector<QVWCHAR> wide = failure::nativePath(place, operation);
    failure::throwOpenFailure(file, operation,
                              platform::findOpenFailure(wide.data(), platform::kReadOnly));
  }
  if (source.access(&access)) return access;
  throwError(file, operation, Reason::cannot_read,
             "its permissions, access list or attributes cannot be read");
}

TargetFile::TargetFile(const fs::path& target, const char* operation, const TargetRules& rules)
    : given_(target), place_(resolved(target, operation)), operation_(operation), rules_(rules) {
  platform::forgetHostFailure();
  judge();
}

TargetFile::TargetFile(int folder, const std::string& name, const fs::path& path,
                       const char* operation, const TargetRules& rules)
    : given_(path), place_(path), operation_(operation), rules_(rules) {
  file_.emplace();
  platform::forgetHostFailure();
  if (!file_->createIn(folder, name)) failMaking();
  if (rules_.existing == Existing::isKept) return;
  const auto found = held_.holdEntry(file_->folder(), platform::EntryName(std::string_view(name)));
  switch (found.failure) {
    case platform::OpenFailure::none:
      refuseSeveralNames();
      break;
    case platform::OpenFailure::inUse:
      fail(Reason::in_use, failure::wordsFor(found.holder));
    case platform::OpenFailure::notAFile:
      fail(Reason::not_a_file, kNoFile);
    default:
      isAnythingReplaced_ = true;
  }
}

void TargetFile::fail(Reason reason, const std::string& why, Remedy remedy) const {
  ErrorDetails details;
  details.remedy = remedy;
  throwError(given_, operation_, reason, why, std::move(details));
}

Missing TargetFile::missingFolders() const {
  if (!rules_.createFolders) return Missing::fail;
  return rules_.waits == platform::Waits::forName ? Missing::areCreatedAndSynced
                                                  : Missing::areCreated;
}

void TargetFile::judge() {
  if (!place_.has_filename()) fail(Reason::not_a_file, "it names a folder");
  std::error_code error;
  const bool isLink = fs::is_symlink(fs::symlink_status(given_, error));
  const fs::file_status status = fs::status(place_, error);
  if (!fs::exists(status)) {
    const bool isKept = rules_.existing == Existing::isKept;
    if (isLink) {
      fail(isKept ? Reason::file_exists : Reason::path_not_reachable,
           "it is a symbolic link that leads nowhere", Remedy::remove_link);
    }
    return requireFolder(place_, operation_, missingFolders());
  }
  const bool isFile = fs::is_regular_file(status);
  if (rules_.existing != Existing::isKept && !isFile) {
    fail(Reason::not_a_file, kNoFile);
  }
  const bool isReplaced =
      rules_.existing == Existing::isReplaced ||
      (rules_.existing == Existing::isReplacedIfEmpty && fs::file_size(place_, error) == 0);
  if (!isReplaced) fail(Reason::file_exists, "the file exists already", rules_.ifTaken);
  hold();
}

void TargetFile::hold() {
  if (rules_.replacedFile != 0) return holdOpen();
  const platform::OpenFailureFound found = held_.hold(place_.native());
  const bool isDenied = found.failure == platform::OpenFailure::accessDenied;
  if (found.failure == platform::OpenFailure::fileMissing) return;  // it has gone meanwhile
  const bool isLookedAt = isDenied && rules_.mayBeReadOnly && held_.lookAt(place_.native());
  if (found.failure != platform::OpenFailure::none && !isLookedAt) {
    failure::throwOpenFailure(given_, operation_, found);
  }
  refuseSeveralNames();
  if (held_.access(&heldAccess_)) return;
  fail(Reason::cannot_read, "its access list or its attributes cannot be read");
}

void TargetFile::holdOpen() {
  if (!held_.holdOpen(rules_.replacedFile)) fail(Reason::not_open, "it was closed");
  refuseSeveralNames();
  if (held_.access(&heldAccess_)) return;
  fail(Reason::cannot_read, "its access list or its attributes cannot be read");
}

void TargetFile::refuseSeveralNames() const {
  if (held_.nameCount() <= 1) return;
  fail(Reason::bad_argument,
       "it has " + std::to_string(held_.nameCount()) +
           " names (hard links), of which only this one would get the new file; remove it first");
}

platform::NewFile& TargetFile::create(const platform::FileAccess* source) {
  const bool hasAccess = held_.isHeld() || source != nullptr;
  file_.emplace();
  const bool isMade = file_->create(
      place_.native(), hasAccess ? platform::OpenTo::owner : platform::OpenTo::allButMasked);
  if (!isMade) failMaking();
  giveAccess(source);
  return *file_;
}

void TargetFile::giveAccess(const platform::FileAccess* source) {
  const platform::FileAccess* access = held_.isHeld() ? &heldAccess_ : source;
  if (access == nullptr || file_->setAccess(*access)) return;
  fail(Reason::cannot_write,
       "its permissions, access list or attributes cannot be given to the new file");
}

const std::string& TargetFile::makePrivateFolder() {
  private_ = std::make_unique<platform::PrivateFolder>();
  if (private_->make(place_.native())) return private_->routinePath();
  if (!private_->isExposed()) failMaking();
  fail(Reason::access_denied,
       "other users may write to its folder or to one above it, and could exchange what is being "
       "written; choose another folder");
}

void TargetFile::takeOver(const platform::FileAccess& source) {
  file_.emplace();
  if (!file_->takeOver(place_.native(), std::move(private_))) failWriting();
  giveAccess(&source);
}

void TargetFile::place() {
  switch (
      file_->place({.isAnything = isAnythingReplaced_, .file = held_.isHeld() ? &held_ : nullptr},
                   rules_.waits)) {
    case platform::Placing::done:
      return;
    case platform::Placing::occupied:
      fail(Reason::file_exists, "a file of that name has appeared meanwhile", rules_.ifTaken);
    case platform::Placing::changed:
      fail(Reason::in_use, "another program has replaced it meanwhile");
    case platform::Placing::failed:
      fail(Reason::cannot_write, "the system does not let the new file take its place");
    case platform::Placing::notStored:
      failWriting();
    case platform::Placing::notNamed:
      if (held_.isHeld() || isAnythingReplaced_) {
        throwUnsynced(given_, operation_, "the new file is in its place, but the system cannot");
      }
      file_->takeBack();
      throwUnsynced(given_, operation_, "the system cannot");
  }
}

void TargetFile::failMaking() const {
  failure::throwOpenFailure(given_, operation_, platform::lastCreateFailure());
}

void TargetFile::failWriting(const platform::WriteFailure& found) const {
  failure::throwWriteFailure(given_, operation_, found);
}

}  // namespace qvdbase::products
