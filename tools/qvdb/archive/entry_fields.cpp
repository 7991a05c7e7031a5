// What the list of imported files keeps of a file beside its mode and time.
#include "archive/entry_fields.h"

#include "format/imported_list.h"

namespace qvdb::tool {
namespace {

constexpr char kOwner = 'o';
constexpr char kAttribute = 'x';
constexpr char kFirstName = 'h';
constexpr int kCountBits = 35;  // those that a count of five bytes has

void appendCount(uint64_t value, std::string* to) {
  while (value >= 0x80) {
    to->push_back(static_cast<char>((value & 0x7F) | 0x80));
    value >>= 7;
  }
  to->push_back(static_cast<char>(value));
}

void appendText(std::string_view text, std::string* to) {
  appendCount(text.size(), to);
  to->append(text);
}

std::string field(char tag, std::string_view content) {
  std::string bytes(1, tag);
  appendText(content, &bytes);
  return bytes;
}

// Takes values from the front of some bytes; each false where they are not there.
class Values {
 public:
  explicit Values(std::string_view bytes) : left_(bytes) {}

  bool isAtEnd() const { return left_.empty(); }
  std::string_view rest() const { return left_; }

  bool tag(char* value) {
    if (left_.empty()) return false;
    *value = left_.front();
    left_.remove_prefix(1);
    return true;
  }

  bool count(uint64_t* value) {
    *value = 0;
    for (int shift = 0; shift < kCountBits; shift += 7) {
      char byte = 0;
      if (!tag(&byte)) return false;
      *value |= uint64_t{static_cast<uint8_t>(byte) & 0x7Fu} << shift;
      if (static_cast<uint8_t>(byte) < 0x80) return true;
    }
    return false;
  }

  bool number(uint32_t* value) {
    uint64_t wide = 0;
    if (!count(&wide) || wide > UINT32_MAX) return false;
    *value = static_cast<uint32_t>(wide);
    return true;
  }

  bool text(std::string_view* value) {
    uint64_t size = 0;
    if (!count(&size) || size > left_.size()) return false;
    *value = left_.substr(0, static_cast<size_t>(size));
    left_.remove_prefix(static_cast<size_t>(size));
    return true;
  }

 private:
  std::string_view left_;
};

// Calls take(tag, content, bytes) for each field; the list's reader has seen that they are sound.
template <typename Take>
void forEachField(std::string_view fields, Take take) {
  Values values(fields);
  while (!values.isAtEnd()) {
    const std::string_view before = values.rest();
    char tag = 0;
    std::string_view content;
    if (!values.tag(&tag) || !values.text(&content)) return;
    take(tag, content, before.substr(0, before.size() - values.rest().size()));
  }
}

bool isName(std::string_view text) {
  return !text.empty() && text.find('\0') == std::string_view::npos;
}

}  // namespace

std::optional<FileOwner> ownerIn(std::string_view fields) {
  std::optional<FileOwner> owner;
  forEachField(fields, [&](char tag, std::string_view content, std::string_view) {
    if (tag != kOwner || owner) return;
    Values values(content);
    FileOwner read;
    std::string_view user;
    std::string_view group;
    if (!values.number(&read.user) || !values.number(&read.group) || !values.text(&user) ||
        !values.text(&group)) {
      return;
    }
    // The highest numbers mean 'leave it' to the system.
    if (read.user == UINT32_MAX || read.group == UINT32_MAX) return;
    if (isName(user)) read.userName = user;
    if (isName(group)) read.groupName = group;
    owner = std::move(read);
  });
  return owner;
}

FileAttributes attributesIn(std::string_view fields) {
  FileAttributes attributes;
  forEachField(fields, [&](char tag, std::string_view content, std::string_view) {
    if (tag != kAttribute) return;
    Values values(content);
    std::string_view name;
    if (values.text(&name) && isName(name)) attributes.emplace(name, values.rest());
  });
  return attributes;
}

std::string fieldOf(const FileOwner& owner) {
  std::string content;
  appendCount(owner.user, &content);
  appendCount(owner.group, &content);
  appendText(owner.userName, &content);
  appendText(owner.groupName, &content);
  return field(kOwner, content);
}

std::string fieldsOf(const FileAttributes& attributes) {
  std::string fields;
  for (const auto& [name, value] : attributes) {
    std::string content;
    appendText(name, &content);
    fields += field(kAttribute, content + value);
  }
  return fields;
}

std::string_view firstNameIn(std::string_view fields) {
  std::string_view name;
  forEachField(fields, [&](char tag, std::string_view content, std::string_view) {
    if (tag == kFirstName && name.empty()) name = content;
  });
  return name;
}

std::string withoutFirstName(std::string_view fields) {
  std::string others;
  forEachField(fields, [&](char tag, std::string_view, std::string_view bytes) {
    if (tag != kFirstName) others += bytes;
  });
  return others;
}

std::string fieldOfFirstName(std::string_view name) {
  return field(kFirstName, name);
}

// Always in the same order, so that what has not changed has the same bytes.
std::string renewedFields(std::string_view old, std::string_view now, const FieldChoice& chosen) {
  if (!chosen.isAny()) return std::string(old);
  struct Known {
    char tag;
    bool isRenewed;
    std::string bytes = {};
  };
  Known known[] = {
      {kOwner, chosen.owners}, {kAttribute, chosen.attributes}, {kFirstName, chosen.hardLinks}};
  std::string others;
  const auto sortOut = [&](std::string_view fields, bool isNow) {
    forEachField(fields, [&](char tag, std::string_view, std::string_view bytes) {
      for (Known& each : known) {
        if (each.tag != tag) continue;
        if (each.isRenewed == isNow) each.bytes += bytes;
        return;
      }
      if (!isNow) others += bytes;
    });
  };
  sortOut(old, false);
  sortOut(now, true);
  std::string fields;
  for (const Known& each : known) fields += each.bytes;
  fields += others;
  // Where fields that are not known here leave no space, nothing of them is lost.
  const bool fits = fields.size() <= qvdbase::format::imported::kLongestFields;
  return fits ? fields : std::string(old);
}

}  // namespace qvdb::tool
