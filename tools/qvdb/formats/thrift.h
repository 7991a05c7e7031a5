// The compact protocol of Thrift, in which Parquet writes its headers. Only what these need.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace qvdb::tool {

class ThriftWriter {
 public:
  // Fields of the structure that is being written; their numbers grow.
  void number(int field, int32_t value);
  void wideNumber(int field, int64_t value);
  void text(int field, std::string_view value);
  void numbers(int field, const std::vector<int32_t>& values);
  void texts(int field, const std::vector<std::string>& values);

  // A structure as a field, and a list of structures; each element is begun and ended.
  void beginStructure(int field);
  void beginList(int field, size_t count);
  void beginElement();
  void end();  // of a structure

  // The outermost structure ends with it.
  std::string finish();

 private:
  enum Type : uint8_t { kNumber = 5, kWideNumber = 6, kBinary = 8, kList = 9, kStructure = 12 };
  void header(int field, Type type);
  void listHeader(Type type, size_t count);
  void varint(uint64_t value);
  void zigzag(int64_t value);
  void bytes(std::string_view value);

  std::string out_;
  int last_ = 0;            // the number of the last field
  std::vector<int> outer_;  // of the structures around
};

}  // namespace qvdb::tool
