// A file on its way to its place.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <string>
#include <vector>

#include "kit/bytes.h"
#include "kit/replaced_calls.h"
#include "kit/temp_folder.h"
#include "platform/handles/new_file.h"
#include "platform/host/host_failure.h"

namespace qvdbase::test {
namespace {

namespace fs = std::filesystem;
using platform::HeldFile;
using platform::NewFile;
using platform::OpenFailure;
using platform::Placing;
using platform::Waits;

int withoutCall(int, const char*, int, const char*) {
  errno = ENOSYS;
  return -1;
}

int twoNamesForAMoment(int, const char*, int, const char*, int) {
  ADD_FAILURE() << "there would be two names of one file for a moment";
  return -1;
}

mode_t modeOf(const fs::path& path) {
  struct stat status = {};
  EXPECT_EQ(::lstat(path.c_str(), &status), 0);
  return status.st_mode & 07777;
}

class NewFileTest : public testing::Test {
 protected:
  fs::path place() const { return folder_ / "place"; }

  // Makes a file that holds "new".
  void make(NewFile& file) {
    ASSERT_TRUE(file.create(place().native()));
    ASSERT_TRUE(file.writeAt(0, "new", 3));
  }

  // The names in the folder, sorted.
  std::vector<std::string> names() const {
    std::vector<std::string> result;
    for (const auto& each : fs::directory_iterator(folder_.path())) {
      result.push_back(each.path().filename().native());
    }
    std::sort(result.begin(), result.end());
    return result;
  }

  TempFolder folder_;
};

TEST_F(NewFileTest, IsItsOwnersAloneUnderARecognisableNameUntilItIsPlaced) {
  const mode_t mask = ::umask(0);
  NewFile file;
  make(file);
  ::umask(mask);
  ASSERT_EQ(names().size(), 1u);
  const std::string name = names()[0];
  EXPECT_EQ(name.size(), std::string(".qvdb-0123456789abcdef.tmp").size());
  EXPECT_TRUE(name.starts_with(".qvdb-") && name.ends_with(".tmp")) << name;
  EXPECT_EQ(name.find_first_not_of("0123456789abcdef", 6), name.size() - 4) << name;
  EXPECT_EQ(modeOf(folder_ / name), 0600u);
  EXPECT_EQ(file.place({}, Waits::forName), Placing::done);
  EXPECT_EQ(names(), std::vector<std::string>{"place"});
  EXPECT_EQ(readFile(place()), bytesOf("new"));
}

TEST_F(NewFileTest, GoesWithTheObjectUnlessItWasPlaced) {
  {
    NewFile file;
    make(file);
  }
  EXPECT_TRUE(names().empty());
}

// What another user has put under the first name that was tried.
fs::path planted;
fs::path lead;

TEST_F(NewFileTest, IsNeverMadeThroughALinkThatIsThere) {
  lead = folder_ / "elsewhere";
  writeFile(lead, bytesOf("mine"));
  planted.clear();
  ReplacedCalls calls;
  calls->openAt = [](int directory, const char* name, int flags, mode_t mode) {
    if ((flags & O_CREAT) != 0 && planted.empty()) {
      planted = lead.parent_path() / name;
      fs::create_symlink(lead, planted);
    }
    return ::openat(directory, name, flags, mode);
  };
  {
    NewFile file;
    make(file);
    EXPECT_EQ(file.place({}, Waits::no), Placing::done);
  }
  EXPECT_FALSE(planted.empty());
  EXPECT_TRUE(fs::is_symlink(planted));
  EXPECT_EQ(readFile(lead), bytesOf("mine"));
  EXPECT_EQ(readFile(place()), bytesOf("new"));
}

TEST_F(NewFileTest, IsNotPlacedWhenItsTemporaryNameHasBecomeThatOfAnotherFile) {
  {
    NewFile file;
    make(file);
    const fs::path temporary = folder_ / names().at(0);
    fs::remove(temporary);
    writeFile(temporary, bytesOf("a file of another user"));
    EXPECT_EQ(file.place({}, Waits::no), Placing::failed);
  }
  EXPECT_FALSE(fs::exists(place()));
  EXPECT_EQ(names().size(), 1u);  // not ours to remove
}

// ---- where nothing is ----

TEST_F(NewFileTest, GetsItsNameInOneStep) {
  ReplacedCalls calls;
  if (calls->renameNewAt(-1, "", -1, "") != 0 && errno == ENOSYS) {
    GTEST_SKIP() << "the host has no such call";
  }
  calls->linkAt = twoNamesForAMoment;
  NewFile file;
  make(file);
  EXPECT_EQ(file.place({}, Waits::no), Placing::done);
  EXPECT_EQ(fs::hard_link_count(place()), 1u);
}

TEST_F(NewFileTest, LeavesWhatIsThereAloneWithAndWithoutTheHostsCall) {
  writeFile(place(), bytesOf("old"));
  for (const bool hasCall : {true, false}) {
    ReplacedCalls calls;
    if (!hasCall) calls->renameNewAt = withoutCall;
    NewFile file;
    make(file);
    EXPECT_EQ(file.place({}, Waits::no), Placing::occupied);
    EXPECT_EQ(readFile(place()), bytesOf("old"));
  }
  EXPECT_EQ(names(), std::vector<std::string>{"place"});
}

TEST_F(NewFileTest, IsPlacedWithoutTheHostsCallToo) {
  ReplacedCalls calls;
  calls->renameNewAt = withoutCall;
  NewFile file;
  make(file);
  EXPECT_EQ(file.place({}, Waits::no), Placing::done);
  EXPECT_EQ(names(), std::vector<std::string>{"place"});
  EXPECT_EQ(fs::hard_link_count(place()), 1u);
}

TEST_F(NewFileTest, IsPlacedWhereFilesHaveOneNameOnly) {
  ReplacedCalls calls;
  calls->renameNewAt = withoutCall;
  calls->linkAt = [](int, const char*, int, const char*, int) {
    errno = EPERM;
    return -1;
  };
  {
    NewFile file;
    make(file);
    EXPECT_EQ(file.place({}, Waits::no), Placing::done);
  }
  NewFile second;
  make(second);
  EXPECT_EQ(second.place({}, Waits::no), Placing::occupied);
}

TEST_F(NewFileTest, ReportsARenameThatTheHostRefuses) {
  ReplacedCalls calls;
  calls->renameNewAt = [](int, const char*, int, const char*) {
    errno = EACCES;
    return -1;
  };
  calls->linkAt = twoNamesForAMoment;
  NewFile file;
  make(file);
  EXPECT_EQ(file.place({}, Waits::no), Placing::failed);
}

// ---- in place of another file ----

TEST_F(NewFileTest, TakesThePlaceOfTheFileThatIsHeld) {
  writeFile(place(), bytesOf("old"));
  HeldFile old;
  ASSERT_EQ(old.hold(place().native()).failure, OpenFailure::none);
  NewFile file;
  make(file);
  EXPECT_EQ(file.place({.file = &old}, Waits::no), Placing::done);
  EXPECT_EQ(readFile(place()), bytesOf("new"));
}

TEST_F(NewFileTest, DoesNotTakeThePlaceOfAnotherFileThanTheOneThatIsHeld) {
  writeFile(place(), bytesOf("old"));
  HeldFile old;
  ASSERT_EQ(old.hold(place().native()).failure, OpenFailure::none);
  NewFile file;
  make(file);
  writeFile(folder_ / "other", bytesOf("acknowledged"));
  fs::rename(folder_ / "other", place());
  EXPECT_EQ(file.place({.file = &old}, Waits::no), Placing::changed);
  EXPECT_EQ(readFile(place()), bytesOf("acknowledged"));
  fs::remove(place());
  EXPECT_EQ(file.place({.file = &old}, Waits::no), Placing::changed);
  EXPECT_FALSE(fs::exists(place()));
}

TEST_F(NewFileTest, AFileIsHeldBesideReadersButNotBesideWriters) {
  writeFile(place(), bytesOf("old"));
  HeldFile reader;
  ASSERT_TRUE(reader.lookAt(place().native()));
  HeldFile writer;
  EXPECT_EQ(writer.hold(place().native()).failure, OpenFailure::none);
  HeldFile second;
  EXPECT_EQ(second.hold(place().native()).failure, OpenFailure::inUse);
}

// ---- what the device has ----

std::vector<std::string> order;

TEST_F(NewFileTest, IsOnTheDeviceBeforeItGetsItsNameWhichFollows) {
  order.clear();
  ReplacedCalls calls;
  calls->sync = [](int descriptor) {
    struct stat status = {};
    EXPECT_EQ(::fstat(descriptor, &status), 0);
    order.push_back(S_ISDIR(status.st_mode) ? "folder" : "file");
    return ::fsync(descriptor);
  };
  calls->renameNewAt = [](int fromFolder, const char* from, int toFolder, const char* to) {
    order.push_back("rename");
    return ::renameat(fromFolder, from, toFolder, to);
  };
  NewFile file;
  make(file);
  EXPECT_EQ(file.place({}, Waits::forName), Placing::done);
  EXPECT_EQ(order, (std::vector<std::string>{"file", "rename", "folder"}));
}

TEST_F(NewFileTest, IsNotPlacedWhenTheDeviceDoesNotTakeIt) {
  ReplacedCalls calls;
  calls->sync = [](int) {
    errno = EIO;
    return -1;
  };
  {
    NewFile file;
    make(file);
    EXPECT_EQ(file.place({}, Waits::forContents), Placing::notStored);
  }
  EXPECT_TRUE(names().empty());
}

// A signal may arrive while the device works; that breaks off every second call here.
int syncs = 0;

TEST_F(NewFileTest, WaitsForTheDeviceAgainWhenASignalInterrupts) {
  syncs = 0;
  ReplacedCalls calls;
  calls->sync = [](int descriptor) {
    errno = EINTR;
    return ++syncs % 2 == 1 ? -1 : ::fsync(descriptor);
  };
  NewFile file;
  make(file);
  EXPECT_EQ(file.place({}, Waits::forName), Placing::done);
  EXPECT_EQ(syncs, 4);  // the file and the folder, each twice
}

// ---- private folders ----

TEST_F(NewFileTest, ComesOutOfAFolderThatNoOtherUserCanEnter) {
  auto folder = std::make_unique<platform::PrivateFolder>();
  const mode_t mask = ::umask(0);
  ASSERT_TRUE(folder->make(place().native()));
  ::umask(mask);
  const fs::path path = folder->filePath();
  EXPECT_EQ(modeOf(path.parent_path()), 0700u);
  EXPECT_EQ(path.parent_path().parent_path(), folder_.path());
  writeFile(path, bytesOf("made"));
  NewFile file;
  ASSERT_TRUE(file.takeOver(place().native(), std::move(folder)));
  EXPECT_EQ(file.place({}, Waits::forName), Placing::done);
  EXPECT_EQ(names(), std::vector<std::string>{"place"});
  EXPECT_EQ(readFile(place()), bytesOf("made"));
}

// Gives the name of a private folder to one that every user can enter, which is returned.
fs::path exchange(const fs::path& privateFolder) {
  fs::rename(privateFolder, privateFolder.native() + "-away");
  fs::create_directory(privateFolder);
  fs::permissions(privateFolder, fs::perms::all);
  return privateFolder;
}

TEST_F(NewFileTest, IsMadeInItsPrivateFolderWhoeverTakesTheNameOfThat) {
  auto folder = std::make_unique<platform::PrivateFolder>();
  ASSERT_TRUE(folder->make(place().native()));
  const std::string path = folder->routinePath();
  const fs::path stranger = exchange(fs::path(folder->filePath()).parent_path());
  writeFile(path, bytesOf("made"));
  EXPECT_TRUE(fs::is_empty(stranger));
  NewFile file;
  ASSERT_TRUE(file.takeOver(place().native(), std::move(folder)));
  EXPECT_EQ(file.place({}, Waits::forName), Placing::done);
  EXPECT_EQ(readFile(place()), bytesOf("made"));
}

TEST_F(NewFileTest, IsPlacedWhereItsPrivateFolderWasMade) {
  const fs::path inner = folder_ / "inner";
  fs::create_directory(inner);
  auto folder = std::make_unique<platform::PrivateFolder>();
  ASSERT_TRUE(folder->make((inner / "place").native()));
  writeFile(folder->routinePath(), bytesOf("made"));
  fs::rename(inner, folder_ / "moved");
  fs::create_directory(folder_ / "elsewhere");
  fs::create_directory_symlink(folder_ / "elsewhere", inner);
  NewFile file;
  ASSERT_TRUE(file.takeOver((inner / "place").native(), std::move(folder)));
  EXPECT_EQ(file.place({}, Waits::forName), Placing::done);
  EXPECT_TRUE(fs::is_empty(folder_ / "elsewhere"));
  EXPECT_EQ(readFile(folder_ / "moved/place"), bytesOf("made"));
}

int makeAndExchange(int directory, const char* name, mode_t mode) {
  const int result = platform::hostSystemCalls().makeDirectoryAt(directory, name, mode);
  const fs::path folder = fs::path("/proc/self/fd") / std::to_string(directory);
  if (result == 0) exchange(fs::read_symlink(folder) / name);
  return result;
}

TEST_F(NewFileTest, IsMadeInNoFolderThatOthersCanEnter) {
  ReplacedCalls calls;
  calls->makeDirectoryAt = makeAndExchange;
  platform::PrivateFolder folder;
  EXPECT_FALSE(folder.make(place().native()));
  EXPECT_EQ(platform::lastHostFailure().value(), EACCES);
  EXPECT_FALSE(folder.isExposed());
}

int openWithoutDescriptorPaths(int directory, const char* name, int flags, mode_t mode) {
  if (std::string(name) != "proc") {
    return platform::hostSystemCalls().openAt(directory, name, flags, mode);
  }
  errno = ENOENT;
  return -1;
}

TEST_F(NewFileTest, IsReachedByNamesThatNoOtherUserCanChangeWhereDescriptorsHaveNoPaths) {
  ReplacedCalls calls;
  calls->openAt = openWithoutDescriptorPaths;
  platform::PrivateFolder folder;
  ASSERT_TRUE(folder.make(place().native()));
  EXPECT_EQ(folder.routinePath(), folder.filePath());
}

TEST_F(NewFileTest, IsNotMadeWhereOthersCanChangeNamesAndDescriptorsHaveNoPaths) {
  ReplacedCalls calls;
  calls->openAt = openWithoutDescriptorPaths;
  const fs::path inner = folder_ / "inner";
  fs::create_directory(inner);
  for (const auto& [open, where] : {std::pair{inner, inner}, std::pair{folder_.path(), inner}}) {
    fs::permissions(folder_.path(), fs::perms::owner_all);
    fs::permissions(inner, fs::perms::owner_all);
    fs::permissions(open, fs::perms::all);
    {
      platform::PrivateFolder folder;
      EXPECT_FALSE(folder.make((where / "place").native())) << open;
      EXPECT_TRUE(folder.isExposed());
    }
    EXPECT_TRUE(fs::is_empty(inner));
    fs::permissions(open, fs::perms::all | fs::perms::sticky_bit);
    platform::PrivateFolder folder;
    EXPECT_TRUE(folder.make((where / "place").native())) << open;
  }
}

TEST_F(NewFileTest, GoesWithItsPrivateFolder) {
  {
    platform::PrivateFolder folder;
    ASSERT_TRUE(folder.make(place().native()));
    writeFile(folder.filePath(), bytesOf("half"));
  }
  EXPECT_TRUE(names().empty());
}

}  // namespace
}  // namespace qvdbase::test
