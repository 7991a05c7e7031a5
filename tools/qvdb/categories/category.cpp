// The categories of a database, decoded by the library's own function.
#include "categories/category.h"

#include <cstdlib>
#include <memory>
#include <new>

#include "format/category.h"
#include "streams/interrupt.h"

namespace qvdb::tool {
namespace {

// What the decoder fills; its parts come from malloc.
struct Decoded {
  Decoded() = default;
  ~Decoded() {
    std::free(parts.firstIDs);
    std::free(parts.secondIDs);
    std::free(parts.extraData);
  }
  Decoded(const Decoded&) = delete;
  Decoded& operator=(const Decoded&) = delete;

  qvrzOneCategoryRecord parts = {};
};

void appendUtf8(std::string* text, uint32_t code) {
  const auto put = [text](uint32_t byte) { *text += static_cast<char>(byte); };
  if (code < 0x80) return put(code);
  if (code < 0x800) {
    put(0xC0 | code >> 6);
  } else if (code < 0x10000) {
    put(0xE0 | code >> 12);
    put(0x80 | (code >> 6 & 0x3F));
  } else {
    put(0xF0 | code >> 18);
    put(0x80 | (code >> 12 & 0x3F));
    put(0x80 | (code >> 6 & 0x3F));
  }
  put(0x80 | (code & 0x3F));
}

bool isLow(uint32_t unit) {
  return unit >= 0xDC00 && unit < 0xE000;
}

std::string nameOf(const qvrzOneCategoryRecord& record) {
  std::string name;
  for (size_t i = 0; i < std::size(record.categoryName) && record.categoryName[i] != 0; ++i) {
    uint32_t code = record.categoryName[i];
    const bool isHigh = code >= 0xD800 && code < 0xDC00;
    const uint32_t after = i + 1 < std::size(record.categoryName) ? record.categoryName[i + 1] : 0u;
    if (isHigh && isLow(after)) {
      code = 0x10000 + ((code - 0xD800) << 10) + (after - 0xDC00);
      ++i;
    } else if (isHigh || isLow(code)) {
      code = 0xFFFD;
    }
    appendUtf8(&name, code);
  }
  return name;
}

std::vector<Id> listOf(const uint64_t* ids, int32_t count) {
  std::vector<Id> list;
  for (int32_t i = 0; i < count; ++i) list.push_back(Id{ids[i]});
  return list;
}

Category decode(const Database& database, const Table& table, const RecordInfo& record,
                uint64_t fileSize) {
  Category category;
  category.record = record.id;
  category.isEmpty = record.size <= qvdbase::format::category::kCategoryName;
  if (category.isEmpty || record.size > fileSize) return category;
  Decoded decoded;
  qvrzOneCategoryRecord* parts = &decoded.parts;
  parts->extraData = static_cast<unsigned char*>(std::malloc(record.size));
  if (parts->extraData == nullptr) throw std::bad_alloc();
  const oneRecordInfoP1 info = {table.id().value,   record.id.value,     record.create_time,
                                record.modify_time, record.size,         record.capacity,
                                record.position,    record.data_position};
  category.isDecoded =
      InternalReadOneRecord2CategoryStruct(database.handle(), &info, &parts) == 1 &&
      parts->extraLength <= fileSize;  // where renumber gives up
  if (!category.isDecoded) return category;
  category.id = Id{parts->categoryID};
  category.name = nameOf(*parts);
  category.param = parts->categoryParam;
  category.related = Id{parts->relatedID};
  category.first = listOf(parts->firstIDs, parts->firstIDCount);
  category.second = listOf(parts->secondIDs, parts->secondIDCount);
  category.extraLength = parts->extraLength;
  return category;
}

}  // namespace

void forEachCategory(const Database& database, const Table& categories,
                     const std::function<void(const Category&)>& take) {
  const uint64_t fileSize = database.info().file_size;
  RecordRange records = categories.records();
  for (const Record& record : records) {
    throwIfInterrupted();
    take(decode(database, categories, record.info(), fileSize));
  }
}

}  // namespace qvdb::tool
