// Lets a test meet the permissions of files as an ordinary user does, also when root runs it.
//
//   Unprivileged user(folder.path());
//   if (!user) GTEST_SKIP() << "...";
#pragma once

#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>

namespace qvdbase::test {

// While it lives, root acts as an ordinary user, who may use the folder; processes that are started
// meanwhile do too. For an ordinary user nothing changes.
class Unprivileged {
 public:
  explicit Unprivileged(const std::filesystem::path& folder) : wasRoot_(::geteuid() == 0) {
    if (wasRoot_)
      works_ = kCanDropRights && ::chmod(folder.c_str(), 0777) == 0 && ::seteuid(kNobody) == 0;
  }
  ~Unprivileged() {
    if (wasRoot_ && works_ && ::seteuid(0) != 0) std::abort();
  }
  Unprivileged(const Unprivileged&) = delete;
  Unprivileged& operator=(const Unprivileged&) = delete;

  explicit operator bool() const { return works_; }

 private:
  // The leak checker of a sanitizer build cannot look at a process that gave up its rights.
#if defined(__SANITIZE_ADDRESS__)
  static constexpr bool kCanDropRights = false;
#elif defined(__has_feature)
  static constexpr bool kCanDropRights = !__has_feature(address_sanitizer);
#else
  static constexpr bool kCanDropRights = true;
#endif
  static constexpr uid_t kNobody = 65534;
  bool wasRoot_;
  bool works_ = true;
};

}  // namespace qvdbase::test
