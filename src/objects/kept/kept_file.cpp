// Finding and opening the file in which indexes are kept.
#include "objects/kept/kept_file.h"

#include <qvdbase/qvdb/error.hpp>

#include <array>
#include <filesystem>
#include <utility>

#include "platform/handles/file_access.h"
#include "platform/handles/open_files.h"
#include "products/target_file.h"

using namespace qvdbase;

namespace qvdb::detail {
namespace {

constexpr uint32_t kOthersMayWrite = 0022;  // the group, and everybody

}  // namespace

std::string KeptFile::placeFor(const OpenDatabase& database) {
  try {
    std::string place = products::resolved(database.place, "keep indexes").native();
    const bool hasUsualEnd = std::string_view(place).ends_with(".qvd");
    place += hasUsualEnd ? "x" : ".qvdx";
    return place;
  } catch (const Error&) {
    return {};
  }
}

KeptFile::KeptFile(std::string place) : place_(std::move(place)) {
  const platform::PathKind kind =
      place_.empty() ? platform::PathKind::nothing : platform::kindOfPath(place_);
  if (kind == platform::PathKind::nothing) return;
  kind_ = KeptPlace::foreign;
  if (kind != platform::PathKind::regularFile) return;
  auto file = std::make_shared<platform::ReadOnlyFile>();
  if (!file->open(place_)) return;
  std::array<unsigned char, sizeof(format::kept::kMark)> beginning = {};
  const size_t count = file->readAt(0, beginning.data(), beginning.size());
  if (count == 0) kind_ = KeptPlace::empty;
  if (!format::kept::hasMark(beginning.data(), count)) return;
  kind_ = KeptPlace::index;
  file_ = std::move(file);
}

KeptPages::ReadAt KeptFile::readAt() const {
  return [file = file_](int64_t position, unsigned char* bytes, size_t count) {
    return file != nullptr && file->readAt(position, bytes, count) == count;
  };
}

bool KeptFile::isTrustedBeside(const Operation& operation) const {
  const platform::OpenFile* database = platform::findOpenFile(operation.db());
  platform::FileAccess own;
  platform::FileAccess its;
  if (file_ == nullptr || database == nullptr || !file_->access(&own) ||
      !platform::readAccess(platform::descriptorOf(*database->entry), &its)) {
    return false;
  }
  const uint32_t writers = own.mode & kOthersMayWrite;
  return own.owner == its.owner && (writers & ~its.mode) == 0 &&
         (writers == 0 || own.group == its.group) && own.accessList == its.accessList;
}

std::shared_ptr<KeptPages> KeptFile::open(const Operation& operation, format::kept::IndexKind kind,
                                          uint64_t table, std::string_view name) const {
  if (kind_ != KeptPlace::index || !isTrustedBeside(operation)) return nullptr;
  return KeptPages::open(readAt(), kind, table, name);
}

}  // namespace qvdb::detail
