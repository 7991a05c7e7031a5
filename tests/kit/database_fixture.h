// The fixture for tests on databases: a folder of its own, shorthands for the C interface, and a
// check of every database file at the end.
//
//   using AddTable = DatabaseTest;
//   TEST_F(AddTable, StoresTheName) {
//     const int16_t db = create();                 "test.qvd" in the test's folder
//     const uint64_t table = addTable(db, "notes");
//     EXPECT_EQ(slot(0).name(), "notes");          read by the format, not by the library
//   }
//
// When the test ends, the handles that it left open are closed, and every file in the folder that
// begins with the database letters, or that was made or opened through the fixture, is walked by
// the independent checker. A finding fails the test unless it was announced:
//
//   expectDamage("test.qvd", {"R5"});   these codes (file_checker.h), no more and no fewer
//   expectDamage("test.qvd");           some finding or other
//   allowDamage("test.qvd");            not checked at all
//
// Those that add something expect success and fail the test otherwise.
#pragma once

#include <gtest/gtest.h>
#include <qvdbase/qvdbase.h>

#include <cstdint>
#include <filesystem>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "kit/bytes.h"
#include "kit/file_checker.h"
#include "kit/file_image.h"
#include "kit/file_reader.h"
#include "kit/temp_folder.h"

namespace qvdbase::test {

inline constexpr const char* kDefaultFile = "test.qvd";

class DatabaseTest : public testing::Test {
 protected:
  // ---- files and handles; all names are relative to the test's folder ----

  std::filesystem::path path(const std::string& name = kDefaultFile) const;
  const QVWCHAR* wide(const std::string& name = kDefaultFile) { return folder.wide(name); }
  // A fresh database, open with permission 3.
  int16_t create(const std::string& name = kDefaultFile, int version = 100);
  int16_t open(const std::string& name = kDefaultFile, int permission = 3);
  // Writes a file made by hand and opens it.
  int16_t put(const FileImage& image, const std::string& name = kDefaultFile, int permission = 3);
  int16_t put(const Bytes& content, const std::string& name = kDefaultFile, int permission = 3);
  void close(int16_t db);
  // Closes and opens again; the handle may be another one.
  int16_t reopen(int16_t db, int permission = 3);

  // ---- what lies in the file, read without the library ----

  Bytes contents(const std::string& name = kDefaultFile) const;
  size_t fileSize(const std::string& name = kDefaultFile) const;
  HeaderFields header(const std::string& name = kDefaultFile) const;
  SlotFields slot(size_t index, const std::string& name = kDefaultFile) const;
  RecordFields record(int64_t position, const std::string& name = kDefaultFile) const;
  TableDataFields tableData(int64_t position, const std::string& name = kDefaultFile) const;
  ReadDatabase database(const std::string& name = kDefaultFile) const;

  // ---- the C interface, expecting success ----

  uint64_t addTable(int16_t db, const std::string& name);
  void setTableData(int16_t db, uint64_t table, const Bytes& data, uint32_t reserve = 0);
  uint64_t addRecord(int16_t db, uint64_t table, const Bytes& payload, uint32_t reserve = 0);
  void assignRecord(int16_t db, uint64_t table, uint64_t id, const Bytes& payload,
                    uint32_t reserve = 0);
  oneRecordInfoP1 info(int16_t db, uint64_t table, uint64_t record);
  Bytes payload(int16_t db, uint64_t table, uint64_t record);
  std::vector<uint64_t> list(int16_t db, uint64_t table);
  uint32_t numberOfRecords(int16_t db, uint64_t table);

  // ---- the file position of a handle ----

  static int64_t position(int16_t db);  // -1 when there is none
  static void seek(int16_t db, int64_t position);

  // Runs the operation from three positions (at the start, inside, beyond the end of the file) and
  // expects to find each again afterwards.
  template <typename Operation>
  void expectPositionKept(int16_t db, Operation&& operation) {
    for (const int64_t start : {int64_t{0}, int64_t{77}, int64_t{1} << 40}) {
      seek(db, start);
      operation();
      EXPECT_EQ(position(db), start) << "the position was not restored";
    }
  }

  // Runs the operation and expects the file to be, byte for byte, what it was.
  template <typename Operation>
  void expectUnchanged(Operation&& operation, const std::string& name = kDefaultFile) {
    const Bytes before = contents(name);
    operation();
    EXPECT_TRUE(sameBytes(contents(name), before)) << "the file was changed";
  }

  // ---- announcements for the check at the end ----

  void expectDamage(const std::string& name = kDefaultFile, std::set<std::string> codes = {});
  void allowDamage(const std::string& name = kDefaultFile);

  void TearDown() override;

  TempFolder folder;

 private:
  void checkOne(const std::filesystem::path& file);

  std::map<int16_t, std::string> open_;  // handle to name
  std::set<std::filesystem::path> databases_;
  std::map<std::filesystem::path, std::set<std::string>> damaged_;
  std::set<std::filesystem::path> unchecked_;
};

}  // namespace qvdbase::test
