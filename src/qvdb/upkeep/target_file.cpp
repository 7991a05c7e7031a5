// Files that appear under their name only when they are finished.
#include "qvdb/upkeep/target_file.h"

#include <system_error>

#include "platform/open_failure.h"
#include "platform/placing.h"
#include "qvdb/failure.h"
#include "qvdb/native_path.h"
#include "qvdb/open_database.h"

namespace qvdb::detail {

namespace fs = std::filesystem;
namespace platform = qvdbase::platform;

void failOn(const fs::path& path, const char* operation, Reason reason, const std::string& why) {
  throwError(path, operation, reason, why);
}

fs::path resolved(const fs::path& path, const char* operation) {
  std::error_code error;
  if (path.empty()) failOn(path, operation, Reason::path_not_reachable, "the path is empty");
  fs::path result = fs::weakly_canonical(fs::absolute(path, error), error);
  if (error) failOn(path, operation, Reason::path_not_reachable, error.message());
  return result;
}

namespace {

// Opened past the checks of Database::open: what is replaced need not be a database.
Database openExclusively(const fs::path& path, const char* operation) {
  const std::vector<QVWCHAR> wide = nativePath(path, operation);
  constexpr int kExclusive = static_cast<int>(Mode::exclusive);
  const std::int16_t handle = OpenDBaseW(wide.data(), kExclusive);
  if (handle != 0) return Database::adopt(handle, path, Mode::exclusive);
  throwOpenFailure(path, operation, platform::findOpenFailure(wide.data(), kExclusive));
}

}  // namespace

HeldFile::HeldFile(const fs::path& path, const char* operation)
    : file_(openExclusively(path, operation)) {
  if (platform::writersOf(file_.handle()) > 1) {
    failOn(path, operation, Reason::in_use, "this program has it open in another place");
  }
}

TargetFile::TargetFile(const fs::path& target, const char* operation, bool overwrite)
    : given_(target),
      place_(resolved(target, operation).native()),
      operation_(operation),
      temporary_(place_) {
  platform::forgetHostFailure();
  const fs::path place = place_;
  static_cast<void>(nativePath(place, operation));
  std::error_code error;
  const fs::file_status status = fs::status(place, error);
  if (fs::exists(status)) {
    if (!fs::is_regular_file(status)) {
      failOn(given_, operation_, Reason::not_a_file, "something that is no file stands there");
    }
    replaces_ = overwrite || fs::file_size(place, error) == 0;
    if (!replaces_) failOn(given_, operation_, Reason::file_exists, "the file exists already");
    replaced_ = HeldFile(place, operation_);
  }
  fs::create_directories(place.parent_path(), error);
}

void TargetFile::place() {
  switch (temporary_.place(replaces_)) {
    case platform::Placing::occupied:
      failOn(given_, operation_, Reason::file_exists, "a file of that name has appeared meanwhile");
    case platform::Placing::failed:
      failOn(given_, operation_, Reason::cannot_write,
             "the system does not let the new file take its place");
    case platform::Placing::done:
      break;
  }
  if (platform::syncFolderOf(place_)) return;
  failOn(given_, operation_, Reason::cannot_write,
         "the new file is in its place, but the system reports a failure of the device");
}

void TargetFile::failMaking() const {
  throwOpenFailure(given_, operation_, platform::lastCreateFailure());
}

void TargetFile::failWriting() const {
  failWriting(platform::findWriteFailure(0));
}

void TargetFile::failWriting(const platform::WriteFailure& found) const {
  throwWriteFailure(given_, operation_, found);
}

}  // namespace qvdb::detail
