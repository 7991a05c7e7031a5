// Where a salvage writes to. Never over anything: what is there may be all that is left.
#include "qvdb/salvage/target.h"

#include <system_error>

#include "qvdb/failure.h"

namespace qvdbase::salvage {
namespace {

namespace fs = std::filesystem;

constexpr const char* kOperation = "write the salvaged database";

[[noreturn]] void failOn(const fs::path& path, qvdb::Reason reason) {
  qvdb::detail::throwError(path, kOperation, reason, std::string(qvdb::to_string(reason)));
}

fs::path judged(const fs::path& given) {
  std::error_code error;
  fs::path place = fs::absolute(given, error);
  if (error || given.empty()) failOn(given, qvdb::Reason::path_not_reachable);
  if (fs::exists(fs::symlink_status(place, error))) failOn(given, qvdb::Reason::file_exists);
  if (!fs::is_directory(place.parent_path(), error)) {
    failOn(given, qvdb::Reason::path_not_reachable);
  }
  return place;
}

}  // namespace

Target::Target(const fs::path& given) : given_(given), place_(judged(given)), file_(place_) {
  platform::forgetHostFailure();
}

void Target::place() {
  switch (file_.place(false)) {
    case platform::Placing::occupied:
      fail(qvdb::Reason::file_exists);
    case platform::Placing::failed:
      fail(qvdb::Reason::cannot_write);
    case platform::Placing::done:
      break;
  }
  if (platform::syncFolderOf(place_.native())) return;
  platform::removeFile(place_.native());
  fail(qvdb::Reason::cannot_write);
}

void Target::fail(qvdb::Reason reason) const {
  failOn(given_, reason);
}

void Target::failMaking() const {
  qvdb::detail::throwOpenFailure(given_, kOperation, platform::lastCreateFailure());
}

void Target::failWriting() const {
  qvdb::detail::throwWriteFailure(given_, kOperation, platform::findWriteFailure(0));
}

}  // namespace qvdbase::salvage
