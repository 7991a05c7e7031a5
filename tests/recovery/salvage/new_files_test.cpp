// The files that a salvage makes: nothing is written over, they appear when they are finished, and
// whatever goes wrong, none of them stays.
#include <sys/stat.h>
#include <unistd.h>
#include <qvdbase/qvdb/error.hpp>

#include <algorithm>
#include <cstring>
#include <fstream>

#include "kit/file_image.h"
#include "kit/replaced_calls.h"
#include "recovery/salvage/salvage_kit.h"

namespace qvdbase::test {
namespace {

namespace fs = std::filesystem;

struct Stop {};

FileImage innerImage() {
  FileImage image;
  image.addRecord(image.addTable("inner", 0x44), 0x901, bytesOf("inside"));
  return image;
}

// A source "a.qvd" whose first record, at 4630, holds a database.
class NewFiles : public testing::Test {
 protected:
  NewFiles() {
    FileImage image;
    const size_t table = image.addTable("notes", 0x11);
    image.addRecord(table, 0xA1, innerImage().build());
    image.addRecord(table, 0xA2, bytesOf("second"));
    writeFile(source(), image.build());
  }

  fs::path source() const { return folder / "a.qvd"; }
  fs::path target() const { return folder / "b.qvd"; }

  // Everything in the folder, by its path there.
  std::vector<std::string> files() const {
    std::vector<std::string> names;
    for (const auto& entry : fs::recursive_directory_iterator(folder.path())) {
      names.push_back(entry.path().lexically_relative(folder.path()).native());
    }
    std::sort(names.begin(), names.end());
    return names;
  }

  // Salvages and expects an error; returns it as text.
  std::string refusal(const fs::path& from, const fs::path& to, qvdb::Reason reason,
                      const qvdb::SalvageOptions& options,
                      const qvdb::BlockVisitor& visitor = {}) const {
    try {
      qvdb::salvage(from, to, visitor, options);
    } catch (const qvdb::Error& error) {
      EXPECT_EQ(error.reason(), reason) << error.what();
      return error.what();
    }
    ADD_FAILURE() << "no error";
    return {};
  }

  // What helps where anything has the name already.
  qvdb::Remedy remedyFor(const fs::path& to, const qvdb::SalvageOptions& options) const {
    try {
      qvdb::salvage(source(), to, {}, options);
    } catch (const qvdb::Error& error) {
      EXPECT_EQ(error.reason(), qvdb::Reason::file_exists) << error.what();
      return error.remedy();
    }
    ADD_FAILURE() << "no error";
    return {};
  }

  qvdb::SalvageOptions extracting() const { return {.extract_to = folder / "out"}; }

  TempFolder folder;
};

using Words = std::vector<std::string>;

// ---- nothing is written over

TEST_F(NewFiles, OfAnExtractionAreNotWrittenOverItsOwnSource) {
  qvdb::salvage(source(), target(), {}, extracting());
  const fs::path stored = folder / "out/4630.bin";
  const Bytes before = readFile(stored);
  ASSERT_EQ(before, innerImage().build());
  const Words there = files();

  const std::string first =
      refusal(stored, folder / "c.qvd", qvdb::Reason::file_exists, extracting());
  EXPECT_NE(first.find((folder / "out/manifest.jsonl").native()), std::string::npos) << first;
  EXPECT_EQ(files(), there);

  fs::remove(folder / "out/manifest.jsonl");
  const std::string second =
      refusal(stored, folder / "c.qvd", qvdb::Reason::file_exists, extracting());
  EXPECT_NE(second.find(stored.native()), std::string::npos) << second;
  EXPECT_EQ(readFile(stored), before);
  EXPECT_FALSE(fs::exists(folder / "c.qvd"));
}

TEST_F(NewFiles, OfAnExtractionAreNotWrittenThroughALink) {
  fs::create_directory(folder / "out");
  fs::create_symlink(folder / "elsewhere", folder / "out/4630.bin");
  refusal(source(), target(), qvdb::Reason::file_exists, extracting());
  EXPECT_EQ(files(), (Words{"a.qvd", "out", "out/4630.bin"}));
}

TEST_F(NewFiles, MustNotBeOneAnother) {
  fs::create_directory(folder / "out");
  refusal(source(), folder / "out/4630.bin", qvdb::Reason::file_exists, extracting());
  EXPECT_EQ(files(), (Words{"a.qvd", "out"}));
}

TEST_F(NewFiles, GoUnderAnotherNameOrIntoAnotherFolderWhereTheirsIsTaken) {
  EXPECT_EQ(remedyFor(source(), {}), qvdb::Remedy::other_name);
  fs::create_directory(folder / "out");
  const fs::path extracted = folder / "out/4630.bin";
  EXPECT_EQ(remedyFor(extracted, extracting()), qvdb::Remedy::other_name);
  writeFile(extracted, bytesOf("precious"));
  EXPECT_EQ(remedyFor(target(), extracting()), qvdb::Remedy::other_folder);
  EXPECT_EQ(readFile(extracted), bytesOf("precious"));
}

TEST_F(NewFiles, DoNotReplaceWhatHasAppearedMeanwhile) {
  refusal(source(), target(), qvdb::Reason::file_exists, {}, [&](const qvdb::FoundBlock&) {
    if (!fs::exists(target())) writeFile(target(), bytesOf("precious"));
  });
  EXPECT_EQ(files(), (Words{"a.qvd", "b.qvd"}));
  EXPECT_EQ(readFile(target()), bytesOf("precious"));
}

// ---- they appear when they are finished

TEST_F(NewFiles, HaveTheirNameOnlyWhenTheyAreFinished) {
  int blocks = 0;
  qvdb::salvage(source(), target(), [&](const qvdb::FoundBlock&) {
    ++blocks;
    EXPECT_FALSE(fs::exists(target()));
  });
  EXPECT_EQ(blocks, 2);
  EXPECT_EQ(files(), (Words{"a.qvd", "b.qvd"}));
}

// ---- none stays of a salvage that failed

TEST_F(NewFiles, GoWhenTheVisitorThrows) {
  qvdb::SalvageOptions options;
  options.extract_to = folder / "made/for/this";
  options.create_folders = true;
  EXPECT_THROW(qvdb::salvage(
                   source(), target(), [](const qvdb::FoundBlock&) { throw Stop(); }, options),
               Stop);
  EXPECT_EQ(files(), (Words{"a.qvd"}));
}

TEST_F(NewFiles, GoWithoutWhatWasInTheirFolderBefore) {
  fs::create_directory(folder / "out");
  writeFile(folder / "out/mine", bytesOf("mine"));
  EXPECT_THROW(qvdb::salvage(
                   source(), target(), [](const qvdb::FoundBlock&) { throw Stop(); }, extracting()),
               Stop);
  EXPECT_EQ(files(), (Words{"a.qvd", "out", "out/mine"}));
}

TEST_F(NewFiles, GoWhenPayloadsCannotBeExtracted) {
  writeFile(folder / "out", bytesOf("no folder"));
  refusal(source(), target(), qvdb::Reason::cannot_write, extracting());
  EXPECT_EQ(files(), (Words{"a.qvd", "out"}));
}

// The name could by then be that of another user's file.
TEST_F(NewFiles, AreNotOpenedASecondTimeByTheirTemporaryName) {
  ReplacedCalls calls;
  calls->openAt = [](int directory, const char* name, int flags, mode_t mode) {
    const bool isNew = std::strncmp(name, ".qvdb-", 6) == 0;
    EXPECT_TRUE(!isNew || (flags & O_EXCL) != 0) << name;
    return ::openat(directory, name, flags, mode);
  };
  EXPECT_TRUE(qvdb::salvage(source(), target(), {}, extracting()).verified);
}

TEST_F(NewFiles, GoWhenTheDeviceDoesNotTakeTheirName) {
  ReplacedCalls calls;
  calls->sync = [](int descriptor) {
    struct stat status = {};
    if (::fstat(descriptor, &status) != 0 || !S_ISDIR(status.st_mode)) return ::fsync(descriptor);
    errno = EIO;
    return -1;
  };
  refusal(source(), target(), qvdb::Reason::cannot_write, extracting());
  EXPECT_EQ(files(), (Words{"a.qvd"}));
}

TEST_F(NewFiles, GoWhenTheSourceWasChangedMeanwhile) {
  qvdb::SalvageOptions options = extracting();
  options.deep_to = folder / "inside";
  int changes = 0;
  refusal(source(), target(), qvdb::Reason::in_use, options, [&](const qvdb::FoundBlock&) {
    std::ofstream(source(), std::ios::binary | std::ios::app) << 'x';
    ++changes;
  });
  EXPECT_GT(changes, 0);
  EXPECT_EQ(files(), (Words{"a.qvd"}));
}

}  // namespace
}  // namespace qvdbase::test
