// Database files built by hand, sound ones and damaged ones, without the library.
//
//   FileImage image;
//   const size_t notes = image.addTable("notes", 0x11);
//   const int64_t a = image.addRecord(notes, 0xA1, bytesOf("first"));
//   const int64_t b = image.addRecord(notes, 0xA2, bytesOf("second"), {.reserve = 20});
//   image.record(b).prevRecordPos = 0;                     damage: the chain is broken backwards
//   image.slot(notes).recordCount = 3;                     damage: the slot counts too many
//   writeFile(path, image.build());
//
// Blocks stand one behind the other in the order of the calls, from 4630 on; the links and the
// slots are kept as the library would keep them. Everything can be changed afterwards, field by
// field, through header(), slot(), record() and tableData(); positions do not move by that.
#pragma once

#include <array>
#include <cstdint>
#include <map>
#include <string_view>

#include "kit/file_fields.h"

namespace qvdbase::test {

struct RecordOptions {
  uint32_t reserve = 0;  // dataCapacity becomes the larger of this and the data's length
  uint32_t createTime = 1000;
  uint32_t modifyTime = 1000;
  uint8_t fill = 0;  // what the room behind the data holds
};

class FileImage {
 public:
  FileImage();

  // The next slot, filled and counted. Returns its index; the identifier is made of `id`.
  size_t addTable(std::string_view name, uint64_t id);

  // A record at the end of the file, linked behind the table's last one. Returns its position.
  int64_t addRecord(size_t table, uint64_t id, const Bytes& data,
                    const RecordOptions& options = {});

  // A table-data block at the end of the file, the table's current one from now on. Returns its
  // position.
  int64_t setTableData(size_t table, const Bytes& data, uint32_t reserve = 0);

  // Blocks and bytes that nothing points to.
  int64_t addDeadRecord(const RecordFields& record);
  int64_t addDeadTableData(const TableDataFields& block);
  int64_t addRaw(const Bytes& bytes);

  HeaderFields& header() { return header_; }
  SlotFields& slot(size_t index) { return slots_.at(index); }
  RecordFields& record(int64_t position) { return records_.at(position); }
  TableDataFields& tableData(int64_t position) { return tableData_.at(position); }

  // Where the next block would go.
  int64_t end() const { return end_; }

  // The whole file. A block whose encoded length was changed spoils only what lies behind it.
  Bytes build() const;

 private:
  int64_t place(size_t length);

  HeaderFields header_;
  std::array<SlotFields, kSlots> slots_;
  std::map<int64_t, RecordFields> records_;
  std::map<int64_t, TableDataFields> tableData_;
  std::map<int64_t, Bytes> raw_;
  int64_t end_ = static_cast<int64_t>(kDirectoryEnd);
};

}  // namespace qvdbase::test
