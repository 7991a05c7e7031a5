// The compact protocol of Thrift.
#include "formats/thrift.h"

namespace qvdb::tool {

void ThriftWriter::number(int field, int32_t value) {
  header(field, kNumber);
  zigzag(value);
}

void ThriftWriter::wideNumber(int field, int64_t value) {
  header(field, kWideNumber);
  zigzag(value);
}

void ThriftWriter::text(int field, std::string_view value) {
  header(field, kBinary);
  bytes(value);
}

void ThriftWriter::numbers(int field, const std::vector<int32_t>& values) {
  header(field, kList);
  listHeader(kNumber, values.size());
  for (const int32_t value : values) zigzag(value);
}

void ThriftWriter::texts(int field, const std::vector<std::string>& values) {
  header(field, kList);
  listHeader(kBinary, values.size());
  for (const std::string& value : values) bytes(value);
}

void ThriftWriter::beginStructure(int field) {
  header(field, kStructure);
  beginElement();
}

void ThriftWriter::beginList(int field, size_t count) {
  header(field, kList);
  listHeader(kStructure, count);
}

void ThriftWriter::beginElement() {
  outer_.push_back(last_);
  last_ = 0;
}

void ThriftWriter::end() {
  out_ += '\0';
  last_ = outer_.back();
  outer_.pop_back();
}

std::string ThriftWriter::finish() {
  out_ += '\0';
  return std::move(out_);
}

// The difference to the field before, which is 1 to 15 in all of Parquet's structures.
void ThriftWriter::header(int field, Type type) {
  out_ += static_cast<char>((field - last_) << 4 | type);
  last_ = field;
}

void ThriftWriter::listHeader(Type type, size_t count) {
  if (count < 15) {
    out_ += static_cast<char>(count << 4 | type);
    return;
  }
  out_ += static_cast<char>(0xF0 | type);
  varint(count);
}

void ThriftWriter::varint(uint64_t value) {
  for (; value >= 0x80; value >>= 7) out_ += static_cast<char>(value | 0x80);
  out_ += static_cast<char>(value);
}

void ThriftWriter::zigzag(int64_t value) {
  varint(static_cast<uint64_t>(value) << 1 ^ static_cast<uint64_t>(value >> 63));
}

void ThriftWriter::bytes(std::string_view value) {
  varint(value.size());
  out_ += value;
}

}  // namespace qvdb::tool
