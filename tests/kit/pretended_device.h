// Lets one regular file pass for a block device: its status says so, and tells no size, as that of
// a device. Making a real one takes rights that tests do not have.
#pragma once

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>

#include "kit/replaced_calls.h"

namespace qvdbase::test {

class PretendedDevice {
 public:
  explicit PretendedDevice(const std::filesystem::path& file) {
    struct stat status = {};
    EXPECT_EQ(::stat(file.c_str(), &status), 0);
    inode_ = status.st_ino;
    calls_->status = [](int descriptor, struct stat* result) {
      return pretended(::fstat(descriptor, result), result);
    };
    calls_->statusAt = [](int directory, const char* name, struct stat* result, int flags) {
      return pretended(::fstatat(directory, name, result, flags), result);
    };
  }

 private:
  static int pretended(int outcome, struct stat* status) {
    if (outcome != 0 || status->st_ino != inode_) return outcome;
    status->st_mode = (status->st_mode & 07777) | S_IFBLK;
    status->st_size = 0;
    return outcome;
  }

  inline static ino_t inode_ = 0;
  ReplacedCalls calls_;
};

}  // namespace qvdbase::test
