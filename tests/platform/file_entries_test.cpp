// The entries of open files: shared descriptors, and a name that becomes that of another file
// between looking and opening.
#include "platform/handles/file_entries.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <limits>
#include <utility>

#include "kit/bytes.h"
#include "kit/fake_host.h"
#include "kit/open_descriptors.h"
#include "kit/other_process.h"
#include "kit/replaced_calls.h"
#include "kit/temp_folder.h"
#include "platform/handles/file_creation.h"
#include "platform/handles/open_files.h"

namespace qvdbase::test {
namespace {

using platform::Directory;
using platform::EntryName;
using platform::FileEntry;
using platform::Sharing;

class EntryTest : public testing::Test {
 protected:
  EntryTest() {
    writeFile(folder_ / "f", bytesOf("bytes"));
    writeFile(folder_ / "decoy", bytesOf("other"));
    EXPECT_TRUE(directory_.enterRoot());
    for (const auto& part : folder_.path().relative_path()) {
      EXPECT_TRUE(directory_.enter(EntryName(WideText(part.u16string()))));
    }
  }

  FileEntry* join(const char16_t* name, Sharing sharing) {
    return platform::joinEntry(directory_, EntryName(WideText(name)), sharing);
  }

  OtherProcess other_;  // before anything is opened here
  TempFolder folder_;
  Directory directory_;
};

// The first look at any name finds the decoy instead, and so does the first one after again().
class MistakenLook {
 public:
  explicit MistakenLook(const std::filesystem::path& decoy) {
    EXPECT_EQ(::stat(decoy.c_str(), &decoy_), 0);
    again();
    calls_->statusAt = [](int directory, const char* name, struct stat* result, int flags) {
      if (!std::exchange(isMistaken_, false)) {
        return platform::hostSystemCalls().statusAt(directory, name, result, flags);
      }
      *result = decoy_;
      return 0;
    };
  }

  static void again() { isMistaken_ = true; }

 private:
  inline static struct stat decoy_ = {};
  inline static bool isMistaken_ = false;
  ReplacedCalls calls_;
};

TEST_F(EntryTest, OpenersShareOneDescriptorOfEachKind) {
  const int before = openDescriptors();
  FileEntry* reader = join(u"f", Sharing::none);
  FileEntry* secondReader = join(u"f", Sharing::none);
  ASSERT_NE(reader, nullptr);
  EXPECT_EQ(secondReader, reader);
  EXPECT_EQ(openDescriptors(), before + 1);
  FileEntry* writer = join(u"f", Sharing::shared);
  FileEntry* secondWriter = join(u"f", Sharing::exclusive);
  EXPECT_EQ(writer, reader);
  EXPECT_EQ(secondWriter, reader);
  EXPECT_EQ(openDescriptors(), before + 2);
  EXPECT_TRUE(platform::leaveEntry(reader, Sharing::none));
  EXPECT_TRUE(platform::leaveEntry(reader, Sharing::none));
  EXPECT_TRUE(platform::leaveEntry(reader, Sharing::shared));
  EXPECT_EQ(openDescriptors(), before + 2);  // none goes before the last opener
  EXPECT_TRUE(platform::leaveEntry(reader, Sharing::exclusive));
  EXPECT_EQ(openDescriptors(), before);
}

TEST_F(EntryTest, AReaderUsesTheWritersDescriptor) {
  const int before = openDescriptors();
  FileEntry* writer = join(u"f", Sharing::exclusive);
  ASSERT_NE(writer, nullptr);
  EXPECT_EQ(join(u"f", Sharing::none), writer);
  EXPECT_EQ(openDescriptors(), before + 1);
  EXPECT_TRUE(platform::leaveEntry(writer, Sharing::exclusive));
  EXPECT_TRUE(platform::leaveEntry(writer, Sharing::none));
}

TEST_F(EntryTest, ARefusedWriterLeavesReadersNoDescriptorToWriteWith) {
  FileEntry* reader = join(u"f", Sharing::none);
  ASSERT_NE(reader, nullptr);
  const int others = other_.open(folder_.wide("f"), 3);
  ASSERT_NE(others, 0);
  const int before = openDescriptors();
  for (const Sharing sharing : {Sharing::exclusive, Sharing::shared}) {
    EXPECT_EQ(join(u"f", sharing), nullptr);
    EXPECT_EQ(openDescriptors(), before);
    EXPECT_EQ(::fcntl(platform::descriptorOf(*reader), F_GETFL) & O_ACCMODE, O_RDONLY);
  }
  EXPECT_EQ(other_.close(others), 1);
  EXPECT_EQ(join(u"f", Sharing::exclusive), reader);  // and one that is not refused has its own
  EXPECT_EQ(::fcntl(platform::descriptorOf(*reader), F_GETFL) & O_ACCMODE, O_RDWR);
  EXPECT_TRUE(platform::leaveEntry(reader, Sharing::exclusive));
  EXPECT_TRUE(platform::leaveEntry(reader, Sharing::none));
}

TEST_F(EntryTest, ExistsOnlyWhileItHasAnOpener) {
  struct stat status = {};
  ASSERT_EQ(::stat((folder_ / "f").c_str(), &status), 0);
  EXPECT_EQ(platform::findEntry(status.st_dev, status.st_ino), nullptr);
  FileEntry* entry = join(u"f", Sharing::none);
  EXPECT_EQ(platform::findEntry(status.st_dev, status.st_ino), entry);
  EXPECT_TRUE(platform::leaveEntry(entry, Sharing::none));
  EXPECT_EQ(platform::findEntry(status.st_dev, status.st_ino), nullptr);
}

TEST_F(EntryTest, GoesAlsoFromTheMiddleOfSeveral) {
  for (const char* name : {"a", "b", "c"}) writeFile(folder_ / name, bytesOf(name));
  FileEntry* entries[] = {join(u"a", Sharing::none), join(u"b", Sharing::none),
                          join(u"c", Sharing::none)};
  const dev_t device = entries[1]->device;
  const ino_t inode = entries[1]->inode;
  EXPECT_TRUE(platform::leaveEntry(entries[1], Sharing::none));
  EXPECT_EQ(platform::findEntry(device, inode), nullptr);
  for (const int i : {0, 2}) {
    EXPECT_EQ(platform::findEntry(entries[i]->device, entries[i]->inode), entries[i]);
    EXPECT_TRUE(platform::leaveEntry(entries[i], Sharing::none));
  }
}

// What counts is the file that was opened, whatever the name stood for before.
TEST_F(EntryTest, BelongsToTheFileThatWasOpened) {
  FileEntry* entry = nullptr;
  {
    MistakenLook look(folder_ / "decoy");
    entry = join(u"f", Sharing::exclusive);
  }
  ASSERT_NE(entry, nullptr);
  struct stat status = {};
  ASSERT_EQ(::stat((folder_ / "f").c_str(), &status), 0);
  EXPECT_EQ(entry->inode, status.st_ino);
  EXPECT_TRUE(platform::leaveEntry(entry, Sharing::exclusive));
}

// Where locks belong to the process, closing the surplus descriptor would drop the file's lock.
TEST_F(EntryTest, KeepsADescriptorThatTurnsOutToBeSurplusUntilItGoes) {
  const int before = openDescriptors();
  FileEntry* entry = join(u"f", Sharing::exclusive);
  ASSERT_NE(entry, nullptr);
  {
    MistakenLook look(folder_ / "decoy");
    EXPECT_EQ(join(u"f", Sharing::exclusive), nullptr);
    look.again();
    EXPECT_EQ(join(u"f", Sharing::shared), entry);
    look.again();
    EXPECT_EQ(join(u"f", Sharing::none), entry);
  }
  EXPECT_EQ(other_.open(folder_.wide("f"), 4), 0);
  EXPECT_TRUE(platform::leaveEntry(entry, Sharing::none));
  EXPECT_TRUE(platform::leaveEntry(entry, Sharing::shared));
  EXPECT_GT(openDescriptors(), before + 1);
  EXPECT_TRUE(platform::leaveEntry(entry, Sharing::exclusive));
  EXPECT_EQ(openDescriptors(), before);
  EXPECT_NE(other_.open(folder_.wide("f"), 3), 0);
}

TEST_F(EntryTest, ProtectsItsBytesFromAnEmptyingThatMistookTheFile) {
  const int before = openDescriptors();
  FileEntry* entry = join(u"f", Sharing::exclusive);
  ASSERT_NE(entry, nullptr);
  {
    MistakenLook look(folder_ / "decoy");
    EXPECT_FALSE(platform::emptyFile(directory_, EntryName(u"f"_w)));
  }
  EXPECT_EQ(other_.open(folder_.wide("f"), 4), 0);
  EXPECT_TRUE(platform::leaveEntry(entry, Sharing::exclusive));
  EXPECT_EQ(readFile(folder_ / "f").str(), "bytes");
  EXPECT_EQ(openDescriptors(), before);
}

TEST_F(EntryTest, WithoutMemoryIsRefusedAndLeavesNothing) {
  const int before = openDescriptors();
  FakeHost host;
  host.failFrom(Call::allocate);
  EXPECT_EQ(join(u"f", Sharing::none), nullptr);
  EXPECT_EQ(join(u"f", Sharing::exclusive), nullptr);
  EXPECT_EQ(openDescriptors(), before);
}

TEST_F(EntryTest, LocksTheWholeFileAlsoWhatIsAddedLater) {
  FileEntry* entry = join(u"f", Sharing::exclusive);
  ASSERT_NE(entry, nullptr);
  std::filesystem::resize_file(folder_ / "f", 1 << 20);
  EXPECT_EQ(other_.open(folder_.wide("f"), 4), 0);
  EXPECT_TRUE(platform::leaveEntry(entry, Sharing::exclusive));
}

// Whether another process could lock these bytes for itself.
bool othersCanLock(const std::filesystem::path& path, off_t start, off_t length) {
  const pid_t child = ::fork();
  if (child == 0) {
    const int descriptor = ::open(path.c_str(), O_RDWR);
    struct flock lock = {};
    lock.l_type = F_WRLCK;
    lock.l_start = start;
    lock.l_len = length;
    ::_exit(::fcntl(descriptor, F_GETLK, &lock) == 0 && lock.l_type == F_UNLCK ? 0 : 1);
  }
  int status = -1;
  EXPECT_EQ(::waitpid(child, &status, 0), child);
  return status == 0;
}

TEST_F(EntryTest, LockLeavesTheLast64BytesOfTheNumberRangeFree) {
  constexpr off_t kLast = std::numeric_limits<off_t>::max();
  for (const Sharing sharing : {Sharing::shared, Sharing::exclusive}) {
    FileEntry* entry = join(u"f", sharing);
    ASSERT_NE(entry, nullptr);
    EXPECT_FALSE(othersCanLock(folder_ / "f", 0, 1));
    EXPECT_FALSE(othersCanLock(folder_ / "f", kLast - 64, 1));
    EXPECT_TRUE(othersCanLock(folder_ / "f", kLast - 63, 0));
    EXPECT_TRUE(platform::leaveEntry(entry, sharing));
  }
}

TEST_F(EntryTest, LockIsOneThatOtherProgramsSee) {
  FileEntry* entry = join(u"f", Sharing::shared);
  ASSERT_NE(entry, nullptr);
  const pid_t child = ::fork();
  if (child == 0) {
    const int descriptor = ::open((folder_ / "f").c_str(), O_RDWR);
    struct flock lock = {};
    lock.l_type = F_WRLCK;
    ::_exit(::fcntl(descriptor, F_GETLK, &lock) == 0 && lock.l_type == F_RDLCK ? 0 : 1);
  }
  int status = -1;
  ASSERT_EQ(::waitpid(child, &status, 0), child);
  EXPECT_EQ(status, 0);
  EXPECT_TRUE(platform::leaveEntry(entry, Sharing::shared));
}

TEST(PlaceInTheTree, StaysWhereItIsWhenAStepFails) {
  TempFolder folder;
  Directory directory;
  ASSERT_TRUE(directory.enterRoot());
  FSRef before = {};
  FSRef after = {};
  ASSERT_TRUE(directory.identify(&before));
  EXPECT_FALSE(directory.enter(EntryName(u"no such entry"_w)));
  ASSERT_TRUE(directory.identify(&after));
  EXPECT_EQ(before.inode, after.inode);
}

TEST(PlaceInTheTree, BeforeTheRootIsNowhere) {
  Directory directory;
  FSRef ref = {};
  struct stat status = {};
  EXPECT_FALSE(directory.enter(EntryName(u"tmp"_w)));
  EXPECT_FALSE(directory.enter(EntryName(u""_w)));
  EXPECT_FALSE(directory.makeDirectory(EntryName(u"x"_w)));
  EXPECT_FALSE(directory.identify(&ref));
  EXPECT_FALSE(platform::regularFileStatus(directory, EntryName(u"x"_w), &status));
  EXPECT_FALSE(platform::createFile(directory, EntryName(u"x"_w)));
  EXPECT_FALSE(platform::entryExists(directory, EntryName(u"x"_w)));
}

}  // namespace
}  // namespace qvdbase::test
