// Files that are made from a database: who may do what with them, and what happens when their place
// is not what it was.
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <algorithm>
#include <functional>
#include <set>

#include "kit/maintenance_fixture.h"
#include "kit/other_process.h"
#include "kit/recorded_calls.h"
#include "kit/replaced_calls.h"
#include "kit/unprivileged.h"
#include "objects/layer_fixture.h"

namespace qvdbase::test {
namespace {

namespace fs = std::filesystem;
using qvdb::Reason;

constexpr gid_t kGroup = 4711;
constexpr const char* kAccessList = "system.posix_acl_access";

// The host's form of: owner rw, user 65534 r, group -, mask r, others -.
const Bytes& accessList() {
  static const Bytes list =
      hex("02000000 0100 0600 ffffffff 0200 0400 feff0000 0400 0000 ffffffff 1000 0400 ffffffff "
          "2000 0000 ffffffff");
  return list;
}

struct stat statusOf(const fs::path& path) {
  struct stat status = {};
  EXPECT_EQ(::lstat(path.c_str(), &status), 0) << path;
  return status;
}

mode_t modeOf(const fs::path& path) {
  return statusOf(path).st_mode & 07777;
}

std::string attribute(const fs::path& path, const char* name) {
  char value[200];
  const ssize_t size = ::getxattr(path.c_str(), name, value, sizeof value);
  return size < 0 ? "(none)" : std::string(value, static_cast<size_t>(size));
}

bool setAttribute(const fs::path& path, const char* name, const std::string& value) {
  return ::setxattr(path.c_str(), name, value.data(), value.size(), 0) == 0;
}

// The portable library knows of none, and so cannot keep any.
bool keepsAttributes() {
  errno = 0;
  static_cast<void>(platform::hostSystemCalls().listAttributes(-1, nullptr, 0));
  return errno != ENOTSUP;
}

class Umask {
 public:
  explicit Umask(mode_t mask) : before_(::umask(mask)) {}
  ~Umask() { ::umask(before_); }
  Umask(const Umask&) = delete;
  Umask& operator=(const Umask&) = delete;

 private:
  mode_t before_;
};

// One way to make a file of a database.
struct Product {
  const char* name;
  bool isDatabase;
  std::function<void(const fs::path& source, const fs::path& target)> make;
};

constexpr qvdb::Id kDeleted{0xD0};

const std::vector<Product>& products() {
  static const std::vector<Product> all = {
      {"compact", true, [](const auto& from, const auto& to) { qvdb::compact(from, to); }},
      {"pack", true, [](const auto& from, const auto& to) { qvdb::pack(from, to); }},
      {"renumber", true, [](const auto& from, const auto& to) { qvdb::renumber(from, to); }},
      {"salvage", true, [](const auto& from, const auto& to) { qvdb::salvage(from, to); }},
      {"undelete", true,
       [](const auto& from, const auto& to) { qvdb::undelete(from, to, "t", kDeleted); }},
      {"output", false,
       [](const auto& from, const auto& to) {
         qvdb::OutputFile file(to, from);
         file.write(span(bytesOf("payload")));
         file.place();
       }},
      {"extract", false,
       [](const auto& from, const auto& to) {
         const fs::path folder = to.native() + ".payloads";
         qvdb::salvage(from, to.native() + ".db", {}, {.extract_to = folder});
         fs::rename(folder / "manifest.jsonl", to);
         fs::remove_all(folder);
         fs::remove(to.native() + ".db");
       }},
  };
  return all;
}

class Products : public LayerTest {
 protected:
  Products() {
    allowDamage(kSource);
    allowDamage(kTarget);
    qvdb::Database database = createDatabase(kSource);
    qvdb::Table table = database.add_table("t");
    table.add(span(bytesOf("payload")));
    table.add_with_id(kDeleted, span(bytesOf("deleted")));
    table.remove(kDeleted);
    database.add_table("QVrz_Category");
  }

  fs::path source() const { return path(kSource); }
  fs::path target() const { return path(kTarget); }
};

// ---- permissions ----

TEST_F(Products, HaveTheModeOfTheirSourceWhateverTheUmask) {
  const Bytes original = contents(kSource);
  for (const mode_t mask : {0000u, 0022u, 0077u}) {
    for (const mode_t mode : {0600u, 0640u, 0666u}) {
      ASSERT_EQ(::chmod(source().c_str(), mode), 0);
      const Umask umask(mask);
      for (const Product& product : products()) {
        product.make(source(), target());
        EXPECT_EQ(modeOf(target()), mode) << product.name << std::oct << " " << mask;
        fs::remove(target());
      }
      qvdb::compact(source());
      EXPECT_EQ(modeOf(source()), mode) << std::oct << mask;
      writeFile(source(), original);
    }
  }
}

// Of everything in the folder, at every call to the system.
TEST_F(Products, AreNeverOpenToMoreThanTheirSourceIsWhileTheyAreMade) {
  ASSERT_EQ(::chmod(source().c_str(), 0600), 0);
  const Umask umask(0);
  for (const Product& product : products()) {
    RecordedCalls host;
    std::set<std::string> open;
    host.observe([&](Call) {
      for (const auto& each : fs::directory_iterator(folder.path())) {
        struct stat status = {};
        if (::lstat(each.path().c_str(), &status) != 0) continue;
        // What is in a folder that only we can enter is not open to others either.
        if (S_ISREG(status.st_mode) && (status.st_mode & 0077) != 0) open.insert(each.path());
        if (each.path().extension() == ".tmp" && (status.st_mode & 0077) != 0) {
          open.insert(each.path());
        }
      }
    });
    product.make(source(), target());
    host.observe(nullptr);
    EXPECT_EQ(open, std::set<std::string>{}) << product.name;
    fs::remove(target());
  }
}

int openAndExchange(int directory, const char* name, int flags, mode_t mode) {
  const int result = platform::hostSystemCalls().openAt(directory, name, flags, mode);
  if (result < 0 || (flags & O_NOFOLLOW) == 0 || !std::string(name).starts_with(".qvdb-")) {
    return result;
  }
  const fs::path folder = fs::read_symlink("/proc/self/fd/" + std::to_string(directory));
  fs::rename(folder / name, folder / "away");
  fs::create_directory(folder / name);
  fs::permissions(folder / name, fs::perms::all);
  return result;
}

// Another user may write to the folder of the target, and exchange what is made in it.
TEST_F(Products, AreMadeInNoFolderOfAnotherUser) {
  for (const Product& product : {products()[1], products()[2]}) {
    const fs::path place = path(product.name);
    fs::create_directory(place);
    {
      ReplacedCalls calls;
      calls->openAt = openAndExchange;
      product.make(source(), place / "target.qvd");
    }
    EXPECT_TRUE(fs::exists(place / "away")) << product.name;
    EXPECT_TRUE(fs::is_empty(place / "away")) << product.name;
    fs::remove(place / "away");
    std::vector<std::string> names;
    for (const auto& each : fs::recursive_directory_iterator(place)) {
      names.push_back(each.path().filename().native());
    }
    EXPECT_EQ(names, std::vector<std::string>{"target.qvd"}) << product.name;
    EXPECT_EQ(qvdb::Database::open(place / "target.qvd", qvdb::Mode::read_only).tables().size(),
              2u);
  }
}

// Another user may write to the folder of the source, and give its name to another file when it has
// been opened and judged.
TEST_F(Products, AreMadeFromTheSourceThatWasOpened) {
  static fs::path name;
  static fs::path opened;
  static fs::path other;
  name = source();
  opened = path("opened.qvd");
  other = path("other.qvd");
  allowDamage("other.qvd");
  for (const Product& product : {products()[1], products()[2]}) {
    fs::remove(target());
    qvdb::Database::create(other, {.overwrite = true}).add_table("QVrz_Category");
    {
      ReplacedCalls calls;
      calls->makeDirectoryAt = [](int directory, const char* entry, mode_t mode) {
        if (fs::exists(other)) {
          fs::rename(name, opened);
          fs::rename(other, name);
        }
        return platform::hostSystemCalls().makeDirectoryAt(directory, entry, mode);
      };
      product.make(source(), target());
    }
    EXPECT_FALSE(fs::exists(other));
    EXPECT_EQ(qvdb::Database::open(target(), qvdb::Mode::read_only).tables().size(), 2u)
        << product.name;
    fs::rename(opened, source());
  }
}

int openWithoutDescriptorPaths(int directory, const char* name, int flags, mode_t mode) {
  if (std::string(name) != "proc") {
    return platform::hostSystemCalls().openAt(directory, name, flags, mode);
  }
  errno = ENOENT;
  return -1;
}

TEST_F(Products, AreRefusedWhereAnotherUserCouldExchangeThem) {
  const fs::path place = path("open to all");
  fs::create_directory(place);
  fs::permissions(place, fs::perms::all);
  ReplacedCalls calls;
  calls->openAt = openWithoutDescriptorPaths;
  for (const Product& product : {products()[1], products()[2]}) {
    try {
      product.make(source(), place / "target.qvd");
      ADD_FAILURE() << product.name;
    } catch (const qvdb::Error& error) {
      EXPECT_EQ(error.reason(), Reason::access_denied);
      EXPECT_NE(std::string(error.what()).find("other users may write to its folder"),
                std::string::npos)
          << error.what();
    }
    EXPECT_TRUE(fs::is_empty(place)) << product.name;
  }
}

TEST_F(Products, DoNotActInTheNameOfTheirOwner) {
  ASSERT_EQ(::chmod(source().c_str(), 06755), 0);
  for (const Product& product : products()) {
    product.make(source(), target());
    EXPECT_EQ(modeOf(target()), 0755u) << product.name;
    fs::remove(target());
  }
  qvdb::compact(source());
  EXPECT_EQ(modeOf(source()), 0755u);
}

TEST_F(Products, HaveTheGroupOfTheirSource) {
  if (::geteuid() != 0) GTEST_SKIP() << "only root can give a file to any group";
  ASSERT_EQ(::chown(source().c_str(), static_cast<uid_t>(-1), kGroup), 0);
  ASSERT_EQ(::chmod(source().c_str(), 0640), 0);
  for (const Product& product : products()) {
    product.make(source(), target());
    EXPECT_EQ(statusOf(target()).st_gid, kGroup) << product.name;
    EXPECT_EQ(modeOf(target()), 0640u) << product.name;
    fs::remove(target());
  }
  qvdb::compact(source());
  EXPECT_EQ(statusOf(source()).st_gid, kGroup);
}

// Group 4711 may read, everybody may read: the group that the product has instead gets nothing.
// When others may more than the group, those of the group are others now.
TEST_F(Products, GrantNothingToAGroupThatIsNotTheirSources) {
  if (::geteuid() != 0) GTEST_SKIP() << "only root can give a file to any group";
  ASSERT_EQ(::chown(source().c_str(), static_cast<uid_t>(-1), kGroup), 0);
  for (const auto& [mode, expected] : {std::pair<mode_t, mode_t>{0664, 0604}, {0606, 0600}}) {
    ASSERT_EQ(::chmod(source().c_str(), mode), 0);
    const Unprivileged user(folder.path());
    if (!user) GTEST_SKIP() << "root cannot act as somebody else here";
    for (const Product& product : products()) {
      if (product.name == std::string("pack")) continue;  // needs to write to the source
      product.make(source(), target());
      EXPECT_NE(statusOf(target()).st_gid, kGroup);
      EXPECT_EQ(modeOf(target()), expected) << product.name;
      fs::remove(target());
    }
  }
}

TEST_F(Products, KeepTheGroupWhenOnlyTheGroupCanBeKept) {
  ReplacedCalls calls;
  static int refused = 0;
  refused = 0;
  calls->changeOwner = [](int descriptor, uid_t owner, gid_t group) {
    if (owner == static_cast<uid_t>(-1)) return ::fchown(descriptor, owner, group);
    ++refused;
    errno = EPERM;
    return -1;
  };
  if (::geteuid() != 0) GTEST_SKIP() << "only root can give a file to any group";
  ASSERT_EQ(::chown(source().c_str(), 1234, kGroup), 0);
  ASSERT_EQ(::chmod(source().c_str(), 0660), 0);
  qvdb::compact(source());
  EXPECT_GT(refused, 0);
  EXPECT_EQ(statusOf(source()).st_gid, kGroup);
  EXPECT_EQ(statusOf(source()).st_uid, 0u);
  EXPECT_EQ(modeOf(source()), 0660u);
}

// ---- replaced files ----

TEST_F(Products, ThatReplaceAFileKeepItsMode) {
  ASSERT_EQ(::chmod(source().c_str(), 0600), 0);
  const auto replace = [&](const char* what, const std::function<void()>& make) {
    writeFile(target(), bytesOf("old"));
    ASSERT_EQ(::chmod(target().c_str(), 0644), 0);
    make();
    EXPECT_NE(contents(kTarget), bytesOf("old")) << what;
    EXPECT_EQ(modeOf(target()), 0644u) << what;
  };
  const Umask umask(0077);
  replace("compact", [&] { qvdb::compact(source(), target(), {}, {.overwrite = true}); });
  replace("pack", [&] { qvdb::pack(source(), target(), {}, {.overwrite = true}); });
  replace("renumber", [&] { qvdb::renumber(source(), target(), {}, {.overwrite = true}); });
  replace("create", [&] { qvdb::Database::create(target(), {.overwrite = true}); });
  replace("output", [&] {
    qvdb::OutputFile file(target(), source(), {.overwrite = true});
    file.place();
  });
}

TEST_F(Products, DoNotReplaceAFileWithSeveralHardLinks) {
  const Bytes before = contents(kSource);
  fs::create_hard_link(source(), path("second"));
  allowDamage("second");
  const std::string message = expectError(Reason::bad_argument, [&] { qvdb::compact(source()); });
  EXPECT_NE(message.find("hard links"), std::string::npos) << message;
  EXPECT_EQ(contents(kSource), before);
  writeFile(target(), bytesOf("old"));
  fs::create_hard_link(target(), path("third"));
  allowDamage("third");
  const auto refuses = [&](const std::function<void()>& make) {
    expectError(Reason::bad_argument, make);
    EXPECT_EQ(contents(kTarget), bytesOf("old"));
  };
  refuses([&] { qvdb::pack(source(), target(), {}, {.overwrite = true}); });
  refuses([&] { qvdb::Database::create(target(), {.overwrite = true}); });
  refuses([&] { qvdb::OutputFile(target(), source(), {.overwrite = true}); });
  EXPECT_EQ(names(), (std::vector<std::string>{"second", kSource, kTarget, "third"}));
}

TEST_F(Products, FollowLinksAlike) {
  writeFile(target(), bytesOf("old"));
  fs::create_symlink(kTarget, path("link"));
  {
    qvdb::OutputFile file(path("link"), source(), {.overwrite = true});
    file.place();
  }
  EXPECT_TRUE(fs::is_symlink(path("link")));
  EXPECT_EQ(fileSize(kTarget), 0u);
  qvdb::compact(source(), path("link"), {}, {.overwrite = true});
  EXPECT_TRUE(fs::is_symlink(path("link")));
  EXPECT_EQ(contents(kTarget).at(0, 4), bytesOf("QVdb"));
  fs::remove(target());
  for (const bool overwrite : {false, true}) {
    const Reason reason = overwrite ? Reason::path_not_reachable : Reason::file_exists;
    expectError(reason,
                [&] { qvdb::OutputFile(path("link"), source(), {.overwrite = overwrite}); });
  }
  expectError(Reason::path_not_reachable, [&] { qvdb::compact(source(), path("link")); });
  EXPECT_FALSE(fs::exists(target()));
}

// ---- access lists and attributes ----

TEST_F(Products, HaveTheAccessListOfTheirSource) {
  if (!keepsAttributes() || !setAttribute(source(), kAccessList, accessList().str())) {
    GTEST_SKIP() << "no access lists here";
  }
  for (const Product& product : products()) {
    product.make(source(), target());
    EXPECT_EQ(attribute(target(), kAccessList), accessList().str()) << product.name;
    EXPECT_EQ(modeOf(target()), 0640u) << product.name;  // the mask in place of the group
    fs::remove(target());
  }
  qvdb::compact(source());
  EXPECT_EQ(attribute(source(), kAccessList), accessList().str());
}

// The folder would let user 65534 read every new file.
TEST_F(Products, TakeNoAccessListFromTheirFolder) {
  if (!keepsAttributes() || ::setxattr(folder.path().c_str(), "system.posix_acl_default",
                                       accessList().data(), accessList().size(), 0) != 0) {
    GTEST_SKIP() << "no access lists here";
  }
  ASSERT_EQ(::chmod(source().c_str(), 0640), 0);
  ::removexattr(source().c_str(), kAccessList);
  for (const Product& product : products()) {
    product.make(source(), target());
    EXPECT_EQ(attribute(target(), kAccessList), "(none)") << product.name;
    EXPECT_EQ(modeOf(target()), 0640u) << product.name;
    fs::remove(target());
  }
}

TEST_F(Products, ThatAreDatabasesHaveTheAttributesOfTheirSource) {
  if (!keepsAttributes() || !setAttribute(source(), "user.note", "from last year")) {
    GTEST_SKIP() << "no attributes here";
  }
  for (const Product& product : products()) {
    product.make(source(), target());
    EXPECT_EQ(attribute(target(), "user.note"), product.isDatabase ? "from last year" : "(none)")
        << product.name;
    fs::remove(target());
  }
  ASSERT_EQ(::chmod(source().c_str(), 0600), 0);
  qvdb::compact(source());
  EXPECT_EQ(attribute(source(), "user.note"), "from last year");
  fs::copy_file(source(), target());
  ASSERT_TRUE(setAttribute(target(), "user.note", "of the one that is replaced"));
  {
    qvdb::OutputFile file(target(), source(), {.overwrite = true});
    file.place();
  }
  EXPECT_EQ(attribute(target(), "user.note"), "of the one that is replaced");
  EXPECT_EQ(fileSize(kTarget), 0u);
}

// A payload in the place of its database would be all that is left of it.
TEST_F(Products, DoNotReplaceTheirSource) {
  fs::create_symlink(source(), path("link"));
  const Bytes before = contents(kSource);
  for (const fs::path& same : {source(), path("link")}) {
    const std::string message = expectError(
        Reason::bad_argument, [&] { qvdb::OutputFile(same, source(), {.overwrite = true}); });
    EXPECT_NE(message.find("the database itself"), std::string::npos) << message;
  }
  EXPECT_EQ(contents(kSource), before);
}

TEST_F(Products, AreNotMadeWhenAttributesCannotBeKept) {
  if (!keepsAttributes() || !setAttribute(source(), "user.note", "x"))
    GTEST_SKIP() << "no attributes here";
  const Bytes before = contents(kSource);
  ReplacedCalls calls;
  calls->writeAttribute = [](int, const char*, const void*, size_t) {
    errno = ENOSPC;
    return -1;
  };
  const std::string message = expectError(Reason::cannot_write, [&] { qvdb::compact(source()); });
  EXPECT_NE(message.find("attributes"), std::string::npos) << message;
  EXPECT_EQ(contents(kSource), before);
  EXPECT_EQ(names(), std::vector<std::string>{kSource});
}

// ---- others at the same place ----

TEST_F(Products, OfTwoCompactionsAtOnceTheSecondIsRefused) {
  int tries = 0;
  OtherProcess other;
  const auto meanwhile = [&](int) {
    if (tries++ == 0) {
      expectError(Reason::in_use, [&] { qvdb::compact(source()); });
      EXPECT_EQ(other.open(wide(kSource), 3), 0);
      EXPECT_EQ(other.open(wide(kSource), 4), 0);
    }
    return true;
  };
  qvdb::compact(source(), meanwhile);
  EXPECT_GT(tries, 0);
  EXPECT_NE(other.open(wide(kSource), 3), 0);
}

// What another program has put under the name, and what others may have been told is stored there,
// is not replaced.
TEST_F(Products, DoNotReplaceWhatHasTakenThePlaceOfTheirSource) {
  const Bytes acknowledged = FileImage().build();
  const auto meanwhile = [&](int percent) {
    if (percent >= 50 && contents(kSource) != acknowledged) {
      writeFile(path("other"), acknowledged);
      fs::rename(path("other"), source());
    }
    return true;
  };
  const std::string message =
      expectError(Reason::in_use, [&] { qvdb::compact(source(), meanwhile); });
  EXPECT_EQ(contents(kSource), acknowledged) << message;
  EXPECT_EQ(names(), std::vector<std::string>{kSource});
}

TEST_F(Products, AreCompactedBesideAReader) {
  const int16_t reader = open(kSource, 1);
  qvdb::compact(source());
  close(reader);
}

// ---- folders ----

TEST_F(Products, MakeMissingFoldersOnlyOnRequest) {
  const fs::path deep = path("a/b/new");
  const auto refuses = [&](const std::function<void()>& make) {
    const std::string message = expectError(Reason::path_not_reachable, make);
    EXPECT_NE(message.find("a/b"), std::string::npos) << message;
    EXPECT_FALSE(fs::exists(path("a")));
  };
  const auto makes = [&](const std::function<void()>& make) {
    make();
    EXPECT_TRUE(fs::exists(deep));
    fs::remove_all(path("a"));
  };
  refuses([&] { qvdb::Database::create(deep); });
  refuses([&] { qvdb::compact(source(), deep); });
  refuses([&] { qvdb::pack(source(), deep); });
  refuses([&] { qvdb::renumber(source(), deep); });
  refuses([&] { qvdb::salvage(source(), deep); });
  refuses([&] { qvdb::OutputFile(deep, source()); });
  makes([&] { qvdb::Database::create(deep, {.create_folders = true}); });
  makes([&] { qvdb::compact(source(), deep, {}, {.create_folders = true}); });
  makes([&] { qvdb::pack(source(), deep, {}, {.create_folders = true}); });
  makes([&] { qvdb::renumber(source(), deep, {}, {.create_folders = true}); });
  makes([&] { qvdb::salvage(source(), deep, {}, {.create_folders = true}); });
  makes([&] {
    qvdb::OutputFile file(deep, source(), {.create_folders = true});
    file.place();
  });
}

// ---- killed ----

// A process is killed before each of its calls to the system in turn. Under the name there is the
// whole old file or the whole new one; what else is left has a name that says so.
TEST_F(Products, LeaveTheOldFileOrTheNewOneWhereverTheirProcessIsKilled) {
  struct Operation {
    const char* name;
    std::function<void()> replace;
  };
  const Operation operations[] = {
      {"create", [&] { qvdb::Database::create(target(), {.overwrite = true}); }},
      {"pack", [&] { qvdb::pack(source(), target(), {}, {.overwrite = true}); }},
      {"output",
       [&] {
         qvdb::OutputFile file(target(), source(), {.overwrite = true});
         file.write(span(bytesOf("the new file")));
         file.place();
       }},
  };
  const Bytes old = bytesOf("the old file");
  for (const Operation& operation : operations) {
    writeFile(target(), old);
    operation.replace();
    const size_t newSize = fileSize(kTarget);
    bool finished = false;
    bool sawOld = false;
    for (int step = 0; !finished && !HasFailure(); ++step) {
      writeFile(target(), old);
      const pid_t child = ::fork();
      if (child == 0) {
        RecordedCalls host;
        int calls = 0;
        host.observe([&](Call) {
          if (calls++ == step) ::kill(::getpid(), SIGKILL);
        });
        operation.replace();
        ::_exit(0);
      }
      int status = 0;
      ::waitpid(child, &status, 0);
      finished = WIFEXITED(status);
      const bool isOld = contents(kTarget) == old;
      sawOld = sawOld || isOld;
      EXPECT_TRUE(isOld || fileSize(kTarget) == newSize) << operation.name << " " << step;
      for (const std::string& name : names()) {
        if (name == kSource || name == kTarget) continue;
        EXPECT_TRUE(name.starts_with(".qvdb-") && name.ends_with(".tmp")) << name;
        fs::remove_all(path(name));
      }
    }
    EXPECT_TRUE(sawOld && finished) << operation.name;
  }
}

}  // namespace
}  // namespace qvdbase::test
