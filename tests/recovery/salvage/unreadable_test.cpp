// Payloads that the system cannot read everywhere: as little as can be is given up, and told.
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>

#include "kit/file_image.h"
#include "kit/replaced_calls.h"
#include "recovery/salvage/salvage_kit.h"
#include "recovery/survey/window.h"

namespace qvdbase::test {
namespace {

constexpr const char* kNote =
    "The system cannot read the source at 8192; 4096 bytes of payload are zeros instead.";

// A host that cannot read some bytes of one file. Reads that begin before them end there.
class BadSectors {
 public:
  BadSectors(const std::filesystem::path& file, off_t begin, off_t end) {
    struct stat status = {};
    EXPECT_EQ(::stat(file.c_str(), &status), 0);
    file_ = status.st_ino;
    begin_ = begin;
    end_ = end;
    calls_->readAt = [](int descriptor, void* buffer, size_t count, off_t position) -> ssize_t {
      struct stat read = {};
      const bool isFile = ::fstat(descriptor, &read) == 0 && read.st_ino == file_;
      const off_t behind = position + static_cast<off_t>(count);
      if (!isFile || position >= end_ || behind <= begin_) {
        return ::pread(descriptor, buffer, count, position);
      }
      if (position < begin_) {
        return ::pread(descriptor, buffer, static_cast<size_t>(begin_ - position), position);
      }
      errno = EIO;
      return -1;
    };
  }

 private:
  inline static ino_t file_ = 0;
  inline static off_t begin_ = 0;
  inline static off_t end_ = 0;
  ReplacedCalls calls_;
};

// The bytes with zeros from `begin` to before `end`.
Bytes holed(const Bytes& bytes, size_t begin, size_t end) {
  return bytes.with(begin, Bytes().zeros(end - begin));
}

class Unreadable : public testing::Test {
 protected:
  qvdb::SalvageReport salvage(const FileImage& image, off_t begin, off_t end,
                              const qvdb::SalvageOptions& options = {}) {
    writeFile(folder / "a.qvd", image.build());
    const BadSectors bad(folder / "a.qvd", begin, end);
    return qvdb::salvage(folder / "a.qvd", folder / "b.qvd", {}, options);
  }

  // Three records; the payload of the second stands from 4746 to 24746.
  FileImage threeRecords() {
    FileImage image;
    const size_t table = image.addTable("notes", 0x11);
    image.addRecord(table, 0xA1, bytesOf("first"));
    image.addRecord(table, 0xA2, pattern(20'000));
    image.addRecord(table, 0xA3, bytesOf("third"));
    return image;
  }

  ReadTable saved() { return readDatabase(folder / "b.qvd").tables.at(0); }

  TempFolder folder;
};

// A device that gives all the bytes that it is asked for, or none.
class AllOrNothing : public survey::ByteSource {
 public:
  int64_t size() const override { return 100'000; }
  size_t readAt(int64_t position, void* buffer, size_t count) const override {
    if (position < 10'512 && position + static_cast<int64_t>(count) > 10'000) return 0;
    std::memset(buffer, 'x', count);
    return count;
  }
};

TEST(WindowOnADevice, HasTheBytesNextToThoseThatCannotBeRead) {
  const AllOrNothing device;
  survey::Window window(device);
  for (int64_t position = 8000; position < 12'000; position += 100) {
    const bool isGood = position + 100 <= 10'000 || position >= 10'512;
    EXPECT_EQ(window.at(position, 100) != nullptr, isGood) << position;
  }
  EXPECT_EQ(window.unreadableAt(), 10'500);
}

TEST_F(Unreadable, BytesOfAPayloadBecomeZerosAndAreTold) {
  const qvdb::SalvageReport report = salvage(threeRecords(), 8192, 12'288);
  EXPECT_EQ(report.records_written, 3u);
  EXPECT_EQ(report.records_cut, 1u);
  EXPECT_EQ(report.bytes_unreadable, 4096u);
  EXPECT_EQ(report.notes, std::vector<std::string>{kNote});
  EXPECT_TRUE(report.verified);
  EXPECT_EQ(contentsOf(saved()),
            (Contents{{0xA1, bytesOf("first")},
                      {0xA2, holed(pattern(20'000), 8192 - 4746, 12'288 - 4746)},
                      {0xA3, bytesOf("third")}}));
}

TEST_F(Unreadable, BytesAtTheEndOfAPayloadAreToldToo) {
  const qvdb::SalvageReport report = salvage(threeRecords(), 24'740, 24'746);
  EXPECT_EQ(report.bytes_unreadable, 6u);
  EXPECT_EQ(report.records_cut, 1u);
  EXPECT_EQ(contentsOf(saved())[1].second, holed(pattern(20'000), 19'994, 20'000));
}

TEST_F(Unreadable, SectorsTakeNoMoreWithThemThanThemselves) {
  const size_t payload = size_t{5} << 19;  // two and a half pieces
  constexpr size_t kFirst = 4685;          // where it begins
  FileImage image;
  image.addRecord(image.addTable("notes", 0x11), 0xA1, pattern(payload));
  constexpr off_t kBad = (off_t{1} << 20) + 8192;
  const qvdb::SalvageReport report = salvage(image, kBad, kBad + 8192);
  EXPECT_EQ(report.bytes_unreadable, 8192u);
  EXPECT_TRUE(sameBytes(contentsOf(saved())[0].second,
                        holed(pattern(payload), static_cast<size_t>(kBad) - kFirst,
                              static_cast<size_t>(kBad) + 8192 - kFirst)));
}

TEST_F(Unreadable, TableDataIsToldWithoutARecord) {
  FileImage image;
  const size_t table = image.addTable("notes", 0x11);
  image.setTableData(table, pattern(20'000));
  const qvdb::SalvageReport report = salvage(image, 8192, 12'288);
  EXPECT_EQ(report.records_cut, 0u);
  EXPECT_EQ(report.bytes_unreadable, 4096u);
  EXPECT_EQ(report.notes, std::vector<std::string>{kNote});
}

TEST_F(Unreadable, PayloadsAreMarkedInTheManifest) {
  salvage(threeRecords(), 8192, 12'288, {.extract_to = folder / "out"});
  EXPECT_EQ(readFile(folder / "out/4691.bin"), holed(pattern(20'000), 8192 - 4746, 12'288 - 4746));
  const std::string manifest = readFile(folder / "out/manifest.jsonl").str();
  EXPECT_NE(manifest.find("\"unreadable\":0}\n{\"file\":\"4691.bin\""), std::string::npos);
  EXPECT_NE(manifest.find("\"unreadable\":4096}\n{\"file\":\"24747.bin\""), std::string::npos);
}

}  // namespace
}  // namespace qvdbase::test
