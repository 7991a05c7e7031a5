// Reads the owner and the extended attributes of a file, and gives them to one.
#include "archive/file_fields.h"

#include <fcntl.h>
#include <grp.h>
#include <pwd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <vector>

#include "format/imported_list.h"
#include "streams/failure.h"
#include "streams/text.h"

#if defined(__linux__) && __has_include(<sys/xattr.h>)
#include <sys/xattr.h>
#define QVDB_HAS_ATTRIBUTES 1
#endif

namespace qvdb::tool {
namespace {

constexpr std::string_view kPrivileges = "security.capability";

// What belongs to the file. Others, such as labels, belong to the rules of one machine.
bool isKept(std::string_view name) {
  return name.starts_with("user.") || name.starts_with("trusted.") || name == kPrivileges ||
         name == "system.posix_acl_access" || name == "system.posix_acl_default";
}

void leaveOutAttribute(const std::string& path, const std::string& name, const std::string& why) {
  complain("left out: " + path + ": attribute '" + escaped(name) + "': " + why);
}

#ifdef QVDB_HAS_ATTRIBUTES
// Calls ask(buffer, size), as the system's functions want it, until all fits. False with errno set.
template <typename Ask>
bool readGrowing(std::vector<char>* buffer, size_t* size, Ask ask) {
  for (;;) {
    const ssize_t wanted = ask(nullptr, size_t{0});
    if (wanted < 0) return false;
    buffer->resize(static_cast<size_t>(wanted) + 1);
    const ssize_t got = ask(buffer->data(), buffer->size());
    if (got < 0 && errno == ERANGE) continue;
    if (got < 0) return false;
    *size = static_cast<size_t>(got);
    return true;
  }
}

bool hasNone(int error) {
  return error == ENOTSUP || error == ENOENT || error == ENODATA;
}

FileAttributes attributesOf(const std::string& path) {
  FileAttributes attributes;
  std::vector<char> names;
  size_t size = 0;
  if (!readGrowing(&names, &size,
                   [&](char* to, size_t room) { return ::llistxattr(path.c_str(), to, room); })) {
    if (!hasNone(errno)) {
      complain("left out: " + path + ": its attributes: " + std::strerror(errno));
    }
    return attributes;
  }
  std::vector<char> value;
  for (size_t at = 0; at < size;) {
    const std::string name(names.data() + at);
    at += name.size() + 1;
    if (!isKept(name)) continue;
    size_t length = 0;
    if (readGrowing(&value, &length, [&](char* to, size_t room) {
          return ::lgetxattr(path.c_str(), name.c_str(), to, room);
        })) {
      attributes.emplace(name, std::string(value.data(), length));
    } else if (!hasNone(errno)) {
      leaveOutAttribute(path, name, std::strerror(errno));
    }
  }
  return attributes;
}
#else
FileAttributes attributesOf(const std::string&) {
  return {};
}
#endif

// Without those for which an entry has no place: the largest first.
void limitTo(size_t most, FileAttributes* attributes, const std::string& path) {
  while (fieldsOf(*attributes).size() > most) {
    const auto largest = std::max_element(
        attributes->begin(), attributes->end(),
        [](const auto& a, const auto& b) { return a.second.size() < b.second.size(); });
    leaveOutAttribute(path, largest->first, "the list of names has no space for so many bytes");
    attributes->erase(largest);
  }
}

}  // namespace

void requireAttributes([[maybe_unused]] const char* option) {
#ifndef QVDB_HAS_ATTRIBUTES
  throw wrongUsage(std::string(option) + ": this system has no extended attributes");
#endif
}

const std::string& FieldReader::userName(uid_t user) {
  const auto [place, isNew] = users_.try_emplace(user);
  if (isNew) {
    if (const passwd* const found = ::getpwuid(user)) place->second = found->pw_name;
  }
  return place->second;
}

const std::string& FieldReader::groupName(gid_t group) {
  const auto [place, isNew] = groups_.try_emplace(group);
  if (isNew) {
    if (const ::group* const found = ::getgrgid(group)) place->second = found->gr_name;
  }
  return place->second;
}

std::string FieldReader::of(const std::string& path, const std::string& name,
                            const struct stat& status) {
  std::string fields;
  std::string first;
  if (chosen_.hardLinks && S_ISREG(status.st_mode) && status.st_nlink > 1) {
    const auto [place, isNew] =
        firstNames_.try_emplace(std::pair(status.st_dev, status.st_ino), name);
    if (!isNew) first = fieldOfFirstName(place->second);
  }
  if (chosen_.owners) {
    fields +=
        fieldOf({status.st_uid, status.st_gid, userName(status.st_uid), groupName(status.st_gid)});
  }
  // Links have no attributes that a user could set.
  if (chosen_.attributes && !S_ISLNK(status.st_mode)) {
    FileAttributes attributes = attributesOf(path);
    limitTo(qvdbase::format::imported::kLongestFields - fields.size() - first.size(), &attributes,
            path);
    fields += fieldsOf(attributes);
  }
  return fields + first;
}

FieldWriter::Numbers FieldWriter::numbersOf(const FileOwner& owner) {
  const auto [user, isNewUser] = users_.try_emplace(owner.userName);
  if (isNewUser && !owner.userName.empty()) {
    if (const passwd* const found = ::getpwnam(owner.userName.c_str()))
      user->second = found->pw_uid;
  }
  const auto [group, isNewGroup] = groups_.try_emplace(owner.groupName);
  if (isNewGroup && !owner.groupName.empty()) {
    const ::group* const found = ::getgrnam(owner.groupName.c_str());
    if (found != nullptr) group->second = found->gr_gid;
  }
  return {user->second.value_or(owner.user), group->second.value_or(owner.group)};
}

void FieldWriter::setOwner(int file, std::string_view fields, const std::string& path) {
  const auto owner = chosen_.owners ? ownerIn(fields) : std::nullopt;
  if (!owner) return;
  const Numbers numbers = numbersOf(*owner);
  if (::fchown(file, numbers.user, numbers.group) != 0) throw systemFailure(path, "set its owner");
}

void FieldWriter::setOwnerOfLink(int folder, const char* name, std::string_view fields,
                                 const std::string& path) {
  const auto owner = chosen_.owners ? ownerIn(fields) : std::nullopt;
  if (!owner) return;
  const Numbers numbers = numbersOf(*owner);
  if (::fchownat(folder, name, numbers.user, numbers.group, AT_SYMLINK_NOFOLLOW) != 0) {
    throw systemFailure(path, "set its owner");
  }
}

void FieldWriter::setAttributes([[maybe_unused]] int file, std::string_view fields,
                                const std::string& path, bool withPrivileges) {
  if (!chosen_.attributes) return;
  for (const auto& [name, value] : attributesIn(fields)) {
    if (!isKept(name)) continue;
    const auto refuse = [&, each = &name](const char* why) {
      leaveOutAttribute(path, *each, why);
      ++refused_;
    };
    if (name == kPrivileges && !withPrivileges) {
      refuse("it gives privileges; --same-permissions restores it");
      continue;
    }
#ifdef QVDB_HAS_ATTRIBUTES
    if (::fsetxattr(file, name.c_str(), value.data(), value.size(), 0) != 0) {
      refuse(std::strerror(errno));
    }
#endif
  }
}

}  // namespace qvdb::tool
