// Another user of the machine, as a process with a user's own identity and no rights besides: what
// a database's mode and folder forbid is refused with its reason and changes nothing; what belongs
// to that user still does after root has worked on it; and root writes through no link that was
// planted. Only root can be another user: the tests are skipped for everyone else.
#include <grp.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <qvdbase/qvdb.hpp>

#include <functional>

#include "kit/bytes.h"
#include "kit/temp_folder.h"

namespace qvdbase::test {
namespace {

namespace fs = std::filesystem;
constexpr uid_t kUser = 65534;

// Why an operation failed, as the exit status of a process; 0 when it did not.
int reasonOf(const std::function<void()>& operation) {
  try {
    operation();
    return 0;
  } catch (const qvdb::Error& error) {
    return 1 + static_cast<int>(error.reason());
  }
}

// Runs the operation in a process of the other user, whose real identity it is too.
int asOtherUser(const std::function<void()>& operation) {
  const pid_t child = ::fork();
  if (child == 0) {
    if (::setgroups(0, nullptr) != 0 || ::setgid(kUser) != 0 || ::setuid(kUser) != 0) ::_exit(250);
    int status = 251;
    try {
      status = reasonOf(operation);
    } catch (const std::exception& exception) {
      std::fprintf(stderr, "%s\n", exception.what());
    }
    ::_exit(status);
  }
  int status = 0;
  EXPECT_EQ(::waitpid(child, &status, 0), child);
  EXPECT_TRUE(WIFEXITED(status));
  return WEXITSTATUS(status);
}

class OtherUser : public testing::Test {
 protected:
  void SetUp() override {
    if (::getuid() != 0) GTEST_SKIP() << "only root can be another user";
    ASSERT_EQ(::chmod(folder.path().c_str(), 0755), 0);
    auto database = qvdb::Database::create(path);
    database.add_table("notes").add(std::as_bytes(std::span("a note")));
    database.close();
    if (asOtherUser([this] { fs::directory_iterator(folder.path()); }) != 0) {
      GTEST_SKIP() << "other users cannot reach the folders of tests";
    }
  }

  void give(const fs::path& what, mode_t mode) {
    ASSERT_EQ(::chown(what.c_str(), kUser, kUser), 0);
    ASSERT_EQ(::chmod(what.c_str(), mode), 0);
  }
  static struct stat statusOf(const fs::path& of) {
    struct stat status = {};
    EXPECT_EQ(::stat(of.c_str(), &status), 0);
    return status;
  }

  std::function<void()> opening(qvdb::Mode mode) const {
    return [this, mode] { qvdb::Database::open(path, mode); };
  }

  TempFolder folder;
  const fs::path path = folder / "a.qvd";
};

constexpr int kDenied = 1 + static_cast<int>(qvdb::Reason::access_denied);

TEST_F(OtherUser, IsRefusedADatabaseThatIsPrivate) {
  ASSERT_EQ(::chmod(path.c_str(), 0600), 0);
  EXPECT_EQ(asOtherUser(opening(qvdb::Mode::read_only)), kDenied);
  EXPECT_EQ(asOtherUser(opening(qvdb::Mode::exclusive)), kDenied);
  EXPECT_EQ(asOtherUser([this] { qvdb::check(path); }), kDenied);
}

TEST_F(OtherUser, ReadsWhatItMayReadAndChangesNothing) {
  ASSERT_EQ(::chmod(path.c_str(), 0644), 0);
  const Bytes before = readFile(path);
  EXPECT_EQ(asOtherUser(opening(qvdb::Mode::read_only)), 0);
  EXPECT_EQ(asOtherUser(opening(qvdb::Mode::exclusive)), kDenied);
  EXPECT_NE(asOtherUser([this] { qvdb::compact(path); }), 0);
  EXPECT_NE(asOtherUser([this] { qvdb::repair(path); }), 0);
  EXPECT_NE(asOtherUser([this] { qvdb::Database::create(folder / "new.qvd"); }), 0);
  EXPECT_EQ(readFile(path), before);
  EXPECT_EQ(std::distance(fs::directory_iterator(folder.path()), {}), 1);
}

TEST_F(OtherUser, KeepsItsDatabaseWhenRootCompactsIt) {
  give(folder.path(), 0700);
  give(path, 0600);
  qvdb::compact(path);
  const struct stat status = statusOf(path);
  EXPECT_EQ(status.st_uid, kUser);
  EXPECT_EQ(status.st_gid, kUser);
  EXPECT_EQ(status.st_mode & 07777, 0600u);
  EXPECT_EQ(asOtherUser([this] {
              auto database = qvdb::Database::open(path, qvdb::Mode::exclusive);
              database.table("notes").add(std::as_bytes(std::span("another")));
            }),
            0);
}

TEST_F(OtherUser, CompactsItsOwnDatabaseInItsOwnFolder) {
  give(folder.path(), 0700);
  give(path, 0640);
  EXPECT_EQ(asOtherUser([this] { qvdb::compact(path); }), 0);
  EXPECT_EQ(statusOf(path).st_uid, kUser);
  EXPECT_EQ(statusOf(path).st_mode & 07777, 0640u);
}

TEST_F(OtherUser, HasNoLinkOfItsOwnFollowedToAFileOfRoot) {
  ASSERT_EQ(::chmod(folder.path().c_str(), 01777), 0);
  const TempFolder home;  // of root alone
  writeFile(home / "victim", bytesOf("precious"));
  ASSERT_EQ(asOtherUser([&] {
              fs::create_symlink(home / "victim", folder / "new.qvd");
              fs::create_symlink(home / "made", folder / "dangling.qvd");
            }),
            0);
  for (const char* target : {"new.qvd", "dangling.qvd"}) {
    SCOPED_TRACE(target);
    EXPECT_NE(reasonOf([&] { qvdb::compact(path, folder / target); }), 0);
    EXPECT_NE(reasonOf([&] { qvdb::salvage(path, folder / target); }), 0);
    EXPECT_NE(reasonOf([&] { qvdb::Database::create(folder / target); }), 0);
  }
  EXPECT_EQ(readFile(home / "victim"), bytesOf("precious"));
  EXPECT_FALSE(fs::exists(home / "made"));
}

}  // namespace
}  // namespace qvdbase::test
