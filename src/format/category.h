// The category records, the one kind of payload that the library understands, and the tables that
// they belong to.
//
// After the fixed fields the payload has a count of identities (int32) and these, a second such
// list, and a counted run of bytes (uint32). Numbers are big-endian.
#pragma once

#include <cstdint>

#include "format/layout.h"

namespace qvdbase::format {

inline constexpr const char* kCategoryTable = "QVrz_Category";
inline constexpr const char* kRecordTable = "QVrz_Record";  // whose records the second lists name
inline constexpr const char* kInfoTable = "QVrz_Info";

// Fixed fields, offsets from the start of the payload.
namespace category {
inline constexpr int64_t kNameSize = 64;

inline constexpr int64_t kCategoryID = 0;                              // identity
inline constexpr int64_t kCategoryName = kCategoryID + kIdentitySize;  // 16-bit characters
inline constexpr int64_t kCategoryParam = kCategoryName + kNameSize;   // uint32
inline constexpr int64_t kRelatedID = kCategoryParam + 4;              // identity
inline constexpr int64_t kFirstIDCount = kRelatedID + kIdentitySize;   // int32
inline constexpr int64_t kFirstIDs = kFirstIDCount + 4;                // the first list
static_assert(kFirstIDs == 88);
}  // namespace category

}  // namespace qvdbase::format
