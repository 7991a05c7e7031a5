// Writing out records that overlap, as only a damaged or hostile file has them: their bytes
// together grow with the square of the file's size.
#include <filesystem>

#include "kit/file_image.h"
#include "tool/tool_fixture.h"

namespace qvdbase::test {
namespace {

namespace fs = std::filesystem;

class OverlappingRecords : public ToolTest {
 protected:
  static constexpr size_t kRecords = 100;

  // Every record claims all bytes up to the end of the file.
  void SetUp() override {
    FileImage image;
    const size_t table = image.addTable("files", 0x11);
    std::vector<int64_t> positions;
    for (size_t i = 0; i < kRecords; ++i) positions.push_back(image.addRecord(table, i + 1, {}));
    Bytes file = image.build();
    for (const int64_t position : positions) {
      const uint64_t length = file.size() - static_cast<uint64_t>(position) - kHeadLength - 1;
      file.putBe(static_cast<size_t>(position) + kDataLength, 4, length);
      file.putBe(static_cast<size_t>(position) + kDataLength + 4, 4, length);
      together += length;
    }
    writeFile(path(), file);
    size = file.size();
    allowDamage();
  }

  uint64_t written() {
    uint64_t sum = 0;
    for (const auto& entry : fs::directory_iterator(path("out"))) sum += entry.file_size();
    return sum;
  }

  // A patch that keeps every record of the table.
  std::string patchOfNothing() {
    const std::string id = parsedJson(line({"info", "--json", "test.qvd"}))["id"];
    return R"({"qvdb":"patch","format":1,"of":")" + id +
           R"(","signature":"QVdb","version":100,"id":")" + id + R"("})" +
           "\n"
           R"({"table":"files","id":"0x0000000000000011","version":100,"flags":[0,0],)"
           R"("from":"0x0000000000000011"})"
           "\n"
           R"({"end":"table"})"
           "\n"
           R"({"end":"patch"})"
           "\n";
  }

  static constexpr size_t kHeadLength = 55;
  static constexpr size_t kDataLength = 47;
  uint64_t together = 0;
  uint64_t size = 0;
};

TEST_F(OverlappingRecords, AreNotExportedBeyondTheSizeOfTheFile) {
  ASSERT_GT(together, 10 * size);
  fails({"export", "test.qvd", "files", "out"}, 1,
        {"test.qvd", "'files'", "overlap", "qvdb check", "--force"});
  EXPECT_LE(written(), size);
}

TEST_F(OverlappingRecords, AreAllExportedWithForce) {
  done({"export", "--force", "test.qvd", "files", "out"});
  EXPECT_EQ(written(), together);
}

// Of a file that cannot be completed nothing is left.
TEST_F(OverlappingRecords, AreNotWrittenForOtherProgramsBeyondTheSizeOfTheFile) {
  for (const Words& words : {Words{"export", "--copy", "rows", "test.qvd"},
                             Words{"export", "--parquet", "rows", "test.qvd"},
                             Words{"export", "--copy", "rows", "test.qvd", "files"},
                             Words{"dump", "--copy", "-o", "rows", "test.qvd"},
                             Words{"dump", "-o", "rows", "test.qvd"}}) {
    fails(words, 1, {"test.qvd", "'files'", "overlap", "qvdb check"});
    EXPECT_FALSE(fs::exists(path("rows")));
  }
  done({"export", "--force", "--copy", "rows", "test.qvd"});
  EXPECT_GT(fs::file_size(path("rows")), together);
}

TEST_F(OverlappingRecords, AreNotCopiedByAPatch) {
  const Bytes before = contents();
  fails({"patch", "test.qvd"}, 1, {"test.qvd", "overlap", "qvdb check"}, patchOfNothing());
  EXPECT_EQ(contents(), before);
}

// A record of five bytes, which says that two gigabytes are reserved for it.
TEST_F(OverlappingRecords, ASingleOneThatClaimsMoreThanTheFileIsNotCopiedByAPatch) {
  FileImage image;
  const size_t table = image.addTable("files", 0x11);
  const int64_t position = image.addRecord(table, 1, bytesOf("small"));
  Bytes file = image.build();
  file.putBe(static_cast<size_t>(position) + kDataLength + 4, 4, 0x7FFF'FFFF);
  writeFile(path(), file);
  fails({"patch", "test.qvd"}, 1,
        {"test.qvd", "cannot be patched", "record 0x0000000000000001",
         "claims more bytes than the file has", "qvdb salvage"},
        patchOfNothing());
  EXPECT_EQ(contents(), file);
}

}  // namespace
}  // namespace qvdbase::test
