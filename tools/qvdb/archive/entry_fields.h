// What the list of imported files keeps of a file beside its mode and time, where that was asked
// for: its owner, its extended attributes, its other names. docs/imported-files.md describes the
// fields.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>

namespace qvdb::tool {

// What an import stores, and what an export restores.
struct FieldChoice {
  bool owners = false;
  bool attributes = false;
  bool hardLinks = false;

  bool isAny() const { return owners || attributes || hardLinks; }
};

// Names are empty where the system knew none.
struct FileOwner {
  uint32_t user = 0;
  uint32_t group = 0;
  std::string userName;
  std::string groupName;
};

using FileAttributes = std::map<std::string, std::string>;

// The fields with the bytes that the list has. The first owner counts, and of two attributes of a
// name the first; what is no owner and no attribute by its bytes is passed over.
std::optional<FileOwner> ownerIn(std::string_view fields);
FileAttributes attributesIn(std::string_view fields);

// Of a file with several names all but the first lead to the first one. Empty for all others.
std::string_view firstNameIn(std::string_view fields);
std::string withoutFirstName(std::string_view fields);
std::string fieldOfFirstName(std::string_view name);

std::string fieldOf(const FileOwner& owner);
std::string fieldsOf(const FileAttributes& attributes);

// The fields of an entry after an import has looked at its file again: what was chosen is as it is
// now, and everything else stays.
std::string renewedFields(std::string_view old, std::string_view now, const FieldChoice& chosen);

}  // namespace qvdb::tool
