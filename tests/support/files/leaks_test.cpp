// No operation, however it ends, leaves a descriptor or memory unreleased.
#include <gtest/gtest.h>
#include <qvdbase/QVFile.h>

#include <functional>
#include <string>

#include "kit/bytes.h"
#include "kit/fake_host.h"
#include "kit/open_descriptors.h"
#include "kit/temp_folder.h"
#include "platform/paths/fs_ref.h"

namespace qvdbase::test {
namespace {

struct Operation {
  const char* name;
  int (*run)(TempFolder& folder);
};

int openAndClose(TempFolder& folder, int permission) {
  int16_t number = 0;
  const int result = QVFile().QVOpenFile(folder.wide("f"), permission, &number);
  if (result == 1) QVFile().QVCloseFile(number);
  return result;
}

const Operation kOperations[] = {
    {"root",
     [](TempFolder&) {
       FSRef ref;
       return QVFile().GetRootFSRef(&ref);
     }},
    {"walk",
     [](TempFolder& folder) {
       FSRef ref;
       return QVFile().QVGetParentDirectoryFSRef(folder.wide("d"), &ref);
     }},
    {"walk to a file",
     [](TempFolder& folder) {
       FSRef ref;
       return QVFile().QVGetParentDirectoryFSRef(folder.wide("f"), &ref);
     }},
    {"walk through a file",
     [](TempFolder& folder) {
       return QVFile().QVGetParentDirectoryFSRef(folder.wide("f/x"), nullptr);
     }},
    {"create directories",
     [](TempFolder& folder) { return QVFile().QVCreateAllDirectory(folder.wide("d/e"), nullptr); }},
    {"create", [](TempFolder& folder) { return QVFile().QVCreateFile(folder.wide("new"), 0); }},
    {"create over", [](TempFolder& folder) { return QVFile().QVCreateFile(folder.wide("f"), 0); }},
    {"create with flag 1",
     [](TempFolder& folder) { return QVFile().QVCreateFile(folder.wide("f"), 1); }},
    {"delete", [](TempFolder& folder) { return QVFile().QVDeleteFile(folder.wide("f")); }},
    {"delete a directory",
     [](TempFolder& folder) { return QVFile().QVDeleteFile(folder.wide("d")); }},
    {"open with 0", [](TempFolder& folder) { return openAndClose(folder, 0); }},
    {"open with 1", [](TempFolder& folder) { return openAndClose(folder, 1); }},
    {"open with 3", [](TempFolder& folder) { return openAndClose(folder, 3); }},
    {"open with 4", [](TempFolder& folder) { return openAndClose(folder, 4); }},
    {"open with 5", [](TempFolder& folder) { return openAndClose(folder, 5); }},
};

using Call = FakeHost::Call;
constexpr Call kCalls[] = {Call::open,   Call::close,         Call::status,
                           Call::length, Call::makeDirectory, Call::lock,
                           Call::read,   Call::truncate,      Call::allocate};

TEST(Leaks, NoDescriptorStaysOpenAfterAnyOperation) {
  for (const Operation& operation : kOperations) {
    TempFolder folder;
    std::filesystem::create_directory(folder / "d");
    writeFile(folder / "f", bytesOf("bytes"));
    const int before = openDescriptors();
    operation.run(folder);
    EXPECT_EQ(openDescriptors(), before) << operation.name;
  }
}

// Every call to the host fails once, one after the other.
TEST(Leaks, NoDescriptorStaysOpenWhateverFails) {
  for (const Operation& operation : kOperations) {
    for (const Call call : kCalls) {
      for (int step = 0;; ++step) {
        TempFolder folder;
        std::filesystem::create_directory(folder / "d");
        writeFile(folder / "f", bytesOf("bytes"));
        const int before = openDescriptors();
        FakeHost host;
        host.failOnce(call, step);
        operation.run(folder);
        host.heal();
        EXPECT_EQ(openDescriptors(), before)
            << operation.name << ", call " << static_cast<int>(call) << ", step " << step;
        if (!host.failed()) break;
      }
    }
  }
}

// Beside an opener, what fails must not take anything from it either.
TEST(Leaks, NoDescriptorStaysOpenBesideAnOpenerWhateverFails) {
  for (const Operation& operation : kOperations) {
    for (const Call call : kCalls) {
      for (int step = 0;; ++step) {
        TempFolder folder;
        std::filesystem::create_directory(folder / "d");
        writeFile(folder / "f", bytesOf("bytes"));
        const int before = openDescriptors();
        int16_t number = 0;
        ASSERT_EQ(QVFile().QVOpenFile(folder.wide("f"), 1, &number), 1);
        FakeHost host;
        host.failOnce(call, step);
        operation.run(folder);
        host.heal();
        char byte = 0;
        EXPECT_EQ(QVFile().QVReadFile(number, &byte, 1, nullptr), 1) << operation.name;
        EXPECT_EQ(byte, 'b');
        EXPECT_EQ(QVFile().QVCloseFile(number), 1);
        EXPECT_EQ(openDescriptors(), before)
            << operation.name << ", call " << static_cast<int>(call) << ", step " << step;
        if (!host.failed()) break;
      }
    }
  }
}

// A signal may interrupt a call anywhere; the operation continues as if nothing had happened.
TEST(Interruption, ChangesNoResult) {
  for (const Operation& operation : kOperations) {
    for (const Call call : {Call::open, Call::lock, Call::truncate}) {
      for (int step = 0;; ++step) {
        TempFolder folder;
        std::filesystem::create_directory(folder / "d");
        writeFile(folder / "f", bytesOf("bytes"));
        TempFolder undisturbed;
        std::filesystem::create_directory(undisturbed / "d");
        writeFile(undisturbed / "f", bytesOf("bytes"));
        FakeHost host;
        const int expected = operation.run(undisturbed);
        host.failOnce(call, step, EINTR);
        const int result = operation.run(folder);
        host.heal();
        EXPECT_EQ(result, expected) << operation.name << ", step " << step;
        if (!host.failed()) break;
      }
    }
  }
}

TEST(Descriptors, AreClosedInProgramsThatTheProcessStarts) {
  TempFolder folder;
  writeFile(folder / "f", bytesOf("bytes"));
  const int before = openDescriptors();
  int16_t numbers[2] = {};
  ASSERT_EQ(QVFile().QVOpenFile(folder.wide("f"), 1, &numbers[0]), 1);
  ASSERT_EQ(QVFile().QVOpenFile(folder.wide("f"), 3, &numbers[1]), 1);
  int ours = 0;
  int found = 0;
  for (int descriptor = 3; descriptor < 1024; ++descriptor) {
    struct stat status = {};
    struct stat wanted = {};
    if (::fstat(descriptor, &status) != 0) continue;
    ASSERT_EQ(::stat((folder / "f").c_str(), &wanted), 0);
    if (status.st_ino != wanted.st_ino || status.st_dev != wanted.st_dev) continue;
    ++found;
    if ((::fcntl(descriptor, F_GETFD) & FD_CLOEXEC) != 0) ++ours;
  }
  EXPECT_EQ(found, openDescriptors() - before);
  EXPECT_EQ(found, 2);
  EXPECT_EQ(ours, found);
  for (const int16_t number : numbers) EXPECT_EQ(QVFile().QVCloseFile(number), 1);
}

}  // namespace
}  // namespace qvdbase::test
