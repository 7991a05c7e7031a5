// Payloads that the system cannot read everywhere: as few bytes as possible are lost, and reported.
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>

#include "kit/file_image.h"
#include "kit/replaced_calls.h"
#include "recovery/salvage/salvage_kit.h"
#include "recovery/survey/window.h"

namespace qvdbase::test {
namespace {

namespace fs = std::filesystem;

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
      const off_t after = position + static_cast<off_t>(count);
      if (!isFile || position >= end_ || after <= begin_) {
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

  // Three records; the payload of the second is from 4746 to 24746.
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

TEST_F(Unreadable, BytesOfAPayloadBecomeZerosAndAreReported) {
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

TEST_F(Unreadable, BytesAtTheEndOfAPayloadAreReportedToo) {
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

TEST_F(Unreadable, TableDataIsReportedWithoutARecord) {
  FileImage image;
  const size_t table = image.addTable("notes", 0x11);
  image.setTableData(table, pattern(20'000));
  const qvdb::SalvageReport report = salvage(image, 8192, 12'288);
  EXPECT_EQ(report.records_cut, 0u);
  EXPECT_EQ(report.bytes_unreadable, 4096u);
  EXPECT_EQ(report.notes, std::vector<std::string>{kNote});
}

// A host that fails once, in the read of `size` bytes at a position, and then never again.
class OneFailure {
 public:
  OneFailure(off_t position, size_t size) {
    position_ = position;
    size_ = size;
    isOver_ = false;
    calls_->readAt = [](int descriptor, void* buffer, size_t count, off_t at) -> ssize_t {
      if (isOver_ || at != position_ || count != size_) {
        return ::pread(descriptor, buffer, count, at);
      }
      isOver_ = true;
      errno = EIO;
      return -1;
    };
  }
  bool isOver() const { return isOver_; }

 private:
  inline static off_t position_ = 0;
  inline static size_t size_ = 0;
  inline static bool isOver_ = false;
  ReplacedCalls calls_;
};

// One failed read of the header gave the new file another database identifier, and one of a slot
// its table another name.
TEST_F(Unreadable, HeaderAndSlotsAreReadASecondTime) {
  const Bytes source = threeRecords().build();
  writeFile(folder / "a.qvd", source);
  for (const auto& [position, size] : {std::pair<off_t, size_t>{0, 22}, {22, 144}}) {
    fs::remove(folder / "b.qvd");
    const OneFailure failure(position, size);
    const qvdb::SalvageReport report = qvdb::salvage(folder / "a.qvd", folder / "b.qvd");
    EXPECT_TRUE(failure.isOver());
    EXPECT_TRUE(report.notes.empty()) << report.notes.front();
    EXPECT_EQ(readFile(folder / "b.qvd").at(0, 16), source.at(0, 16));
    EXPECT_EQ(saved().name, "notes");
  }
}

TEST_F(Unreadable, HeaderIsNotCalledDamaged) {
  const qvdb::SalvageReport report = salvage(threeRecords(), 4, 22);
  EXPECT_EQ(report.notes,
            (std::vector<std::string>{
                "The version of the source cannot be read; the new file has 100.",
                "The database identifier of the source cannot be read; the new file has a new one.",
                "The system cannot read the source at 4."}));
  EXPECT_EQ(readFile(folder / "b.qvd").at(0, 6), bytesOf("QVdb").add(hex("0064")));
  EXPECT_EQ(contentsOf(saved()).size(), 3u);
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
