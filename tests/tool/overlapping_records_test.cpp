// qvdb export of records that overlap, as only a damaged or hostile file has them: their bytes
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

}  // namespace
}  // namespace qvdbase::test
