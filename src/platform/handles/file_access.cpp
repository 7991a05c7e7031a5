// Reading and giving permissions, access lists and attributes.
#include "platform/handles/file_access.h"

#include <string_view>

#include "platform/host/system_calls.h"

namespace qvdbase::platform {
namespace {

constexpr const char* kAccessList = "system.posix_acl_access";
constexpr std::string_view kOfUsers = "user.";
constexpr mode_t kPermissions = 0777;

bool hasNone(int error) {
  return error == ENOTSUP || error == EOPNOTSUPP || error == ENOSYS || error == EPERM;
}

// What a call stores in a buffer, whose size it reports when it is given none. Another process may
// make it longer in between: that is a failure like others.
template <typename Call>
bool readWhole(Call call, std::string* bytes) {
  const ssize_t size = call(nullptr, size_t{0});
  if (size < 0) return false;
  bytes->resize(static_cast<size_t>(size));
  if (size == 0) return true;
  const ssize_t got = call(bytes->data(), bytes->size());
  if (got < 0) return false;
  bytes->resize(static_cast<size_t>(got));
  return true;
}

bool readAttribute(int descriptor, const std::string& name, std::string* value) {
  return readWhole(
      [&](char* buffer, size_t size) {
        return systemCalls().readAttribute(descriptor, name.c_str(), buffer, size);
      },
      value);
}

bool readAttributes(int descriptor, FileAccess* access) {
  std::string names;  // each with a zero after it
  const bool isListed =
      readWhole([&](char* buffer,
                    size_t size) { return systemCalls().listAttributes(descriptor, buffer, size); },
                &names);
  if (!isListed) return hasNone(errno);
  for (size_t start = 0; start < names.size();) {
    const std::string name = names.c_str() + start;
    start += name.size() + 1;
    std::string value;
    const bool isWanted = name == kAccessList || name.starts_with(kOfUsers);
    if (!isWanted) continue;
    if (!readAttribute(descriptor, name, &value)) return false;
    if (name == kAccessList) {
      access->accessList = value;
    } else {
      access->attributes.push_back({name, value});
    }
  }
  return true;
}

bool writeAttribute(int descriptor, const char* name, const std::string& value) {
  return systemCalls().writeAttribute(descriptor, name, value.data(), value.size()) == 0;
}

// Only a privileged process may give a file away; another one may still give it to a group that it
// is in. Returns whether the file has the group.
bool giveOwner(int descriptor, const FileAccess& access) {
  struct stat now = {};
  if (systemCalls().status(descriptor, &now) != 0) return false;
  if (now.st_uid == access.owner && now.st_gid == access.group) return true;
  if (systemCalls().changeOwner(descriptor, access.owner, access.group) == 0) return true;
  constexpr auto kKeep = static_cast<uid_t>(-1);
  return now.st_gid == access.group ||
         systemCalls().changeOwner(descriptor, kKeep, access.group) == 0;
}

// The rights of a group that is no longer the file's are dropped; its members now belong to the
// others.
mode_t withoutGroup(mode_t mode) {
  const mode_t group = (mode & S_IRWXG) >> 3;
  return mode & (S_IRWXU | group);
}

}  // namespace

bool readAccess(int descriptor, FileAccess* access) {
  struct stat status = {};
  if (systemCalls().status(descriptor, &status) != 0) return false;
  FileAccess found;
  found.mode = static_cast<uint32_t>(status.st_mode & kPermissions);
  found.owner = status.st_uid;
  found.group = status.st_gid;
  if (!readAttributes(descriptor, &found)) return false;
  *access = std::move(found);
  return true;
}

// The owner first: changing it can take permissions away. Attributes before the mode, which may
// forbid to write them. An access list that the folder has given the new file would show its
// entries once the mode lets it.
bool giveAccess(int descriptor, const FileAccess& access) {
  const bool hasGroup = giveOwner(descriptor, access);
  static_cast<void>(systemCalls().removeAttribute(descriptor, kAccessList));
  for (const FileAttribute& each : access.attributes) {
    if (!writeAttribute(descriptor, each.name.c_str(), each.value)) return false;
  }
  if (!access.accessList.empty()) {
    if (!hasGroup || !writeAttribute(descriptor, kAccessList, access.accessList)) return false;
  }
  const auto mode = static_cast<mode_t>(access.mode) & kPermissions;
  return systemCalls().changeMode(descriptor, hasGroup ? mode : withoutGroup(mode)) == 0;
}

}  // namespace qvdbase::platform
