// qvdb import --owners, --xattrs and --hard-links, and what qvdb export makes of them: owners,
// extended attributes, names of one file, set-id bits.
#include <fcntl.h>
#include <grp.h>
#include <pwd.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <map>
#include <optional>

#include "tool/in_process.h"
#include "tool/tool_fixture.h"
#include "tools/qvdb/archive/entry_fields.h"
#include "tools/qvdb/archive/file_fields.h"
#include "tools/qvdb/archive/folder_writer.h"

#if defined(__linux__)
#include <sys/xattr.h>
#endif

namespace qvdbase::test {
namespace {

namespace fs = std::filesystem;
using namespace std::string_literals;
using qvdb::tool::FieldChoice;

struct stat statusOf(const std::string& path) {
  struct stat status = {};
  EXPECT_EQ(::lstat(path.c_str(), &status), 0) << path;
  return status;
}

mode_t modeOf(const std::string& path) {
  return statusOf(path).st_mode & 07777;
}

std::pair<uid_t, gid_t> ownerOf(const std::string& path) {
  const struct stat status = statusOf(path);
  return {status.st_uid, status.st_gid};
}

class ImportedFields : public ToolTest {
 protected:
  void SetUp() override {
    fs::create_directories(path("in/folder"));
    writeFile(path("in/folder/file"), bytesOf("text"));
    writeFile(path("in/program"), bytesOf("#!/bin/sh"));
    fs::create_symlink("folder/file", path("in/link"));
    done({"create", kDefaultFile});
  }

  void import(const Words& options) {
    Words words = {"import", kDefaultFile, "files", "in/"};
    words.insert(words.begin() + 1, options.begin(), options.end());
    done(words);
  }
  void exportTo(const std::string& target, const Words& options = {}) {
    Words words = {"export", kDefaultFile, "files", target};
    words.insert(words.begin() + 1, options.begin(), options.end());
    done(words);
  }

  // The fields of an entry, as the dump has them.
  std::string fieldsOf(const std::string& name) {
    std::istringstream lines(done({"dump", kDefaultFile}));
    for (std::string line; std::getline(lines, line);) {
      const auto entry = parsedJson(line);
      if (entry.value("name", "") != name || entry.value("entry", "removed") == "removed") continue;
      return entry.value("fields", entry.value("fields_base64", ""));
    }
    return "no entry";
  }
};

// -- Owners

class ImportedOwners : public ImportedFields {
 protected:
  static constexpr uid_t kUser = 54321;
  static constexpr gid_t kGroup = 300;

  void SetUp() override {
    if (::geteuid() != 0) GTEST_SKIP() << "only root can give files away";
    if (::getpwuid(kUser) != nullptr || ::getgrgid(kGroup) != nullptr) GTEST_SKIP();
    ImportedFields::SetUp();
    for (const char* name : {"in/folder", "in/folder/file", "in/program", "in/link"}) {
      ASSERT_EQ(::lchown(path(name).c_str(), kUser, kGroup), 0);
    }
  }
  const std::pair<uid_t, gid_t> stored{kUser, kGroup};
  const std::pair<uid_t, gid_t> own{::geteuid(), ::getegid()};
};

TEST_F(ImportedOwners, ComeBackOnRequest) {
  import({"--owners"});
  exportTo("out", {"--same-owner"});
  for (const char* name : {"out/folder", "out/folder/file", "out/program", "out/link"}) {
    EXPECT_EQ(ownerOf(path(name)), stored) << name;
  }
  exportTo("plain");
  EXPECT_EQ(ownerOf(path("plain/folder/file")), own);
}

TEST_F(ImportedOwners, AreNotStoredUnlessAskedFor) {
  import({});
  EXPECT_EQ(fieldsOf("folder/file"), "");
  exportTo("out", {"--same-owner"});
  EXPECT_EQ(ownerOf(path("out/folder/file")), own);
}

// 54,321 is B1 A8 03 in groups of seven bits, 300 is AC 02; the system knows no names for them.
TEST_F(ImportedOwners, AreStoredAsDocumented) {
  import({"--owners"});
  // "o", 7 bytes, user, group, no name, no name
  EXPECT_EQ(fieldsOf("folder/file"), "bwexqAOsAgAA");
}

TEST_F(ImportedOwners, OfLaterComeBackForAnEarlierTime) {
  import({"--owners"});
  exportTo("out", {"--same-owner", "--at", "2100-01-01"});
  EXPECT_EQ(ownerOf(path("out/folder/file")), stored);
  EXPECT_EQ(ownerOf(path("out/link")), stored);
}

TEST_F(ImportedOwners, ThatChangeAreNoticedByAnUpdate) {
  import({"--owners"});
  ASSERT_EQ(::lchown(path("in/program").c_str(), kUser + 1, kGroup), 0);
  EXPECT_EQ(line({"import", "-nu", "--owners", kDefaultFile, "files", "in/"}),
            "properties program\n1 step, 0 bytes; 2 files are unchanged; nothing was changed");
  // Without the option nobody looks, and what is stored stays.
  EXPECT_EQ(line({"import", "-nu", kDefaultFile, "files", "in/"}),
            "0 steps, 0 bytes; 2 files are unchanged; nothing was changed");
  import({"-u", "--owners"});
  exportTo("out", {"--same-owner"});
  EXPECT_EQ(ownerOf(path("out/program")), (std::pair<uid_t, gid_t>{kUser + 1, kGroup}));
}

TEST_F(ImportedOwners, StayWhenAnImportWithoutThemReplacesTheFile) {
  import({"--owners"});
  writeFile(path("in/program"), bytesOf("longer than it was"));
  import({"--replace"});
  exportTo("out", {"--same-owner"});
  EXPECT_EQ(ownerOf(path("out/program")), stored);
}

TEST_F(ImportedOwners, AreForRoot) {
  import({"--owners"});
  const std::string file = path(), target = path("out");
  const pid_t child = ::fork();
  if (child == 0) {
    if (::setgid(65534) != 0 || ::setuid(65534) != 0) ::_exit(99);
    std::string message;
    const int status = runCommand({}, {"export", "--same-owner", file, "files", target}, &message);
    ::_exit(status == 2 && message.find("root") != message.npos ? 0 : 1);
  }
  int status = 0;
  ASSERT_EQ(::waitpid(child, &status, 0), child);
  EXPECT_EQ(status, 0);
  EXPECT_FALSE(fs::exists(target));
}

TEST_F(ImportedOwners, AreFoundByNameFirst) {
  const passwd* const user = ::getpwnam("daemon");
  if (user == nullptr || ::getgrnam("daemon") == nullptr) GTEST_SKIP();
  const std::pair<uid_t, gid_t> daemon{user->pw_uid, ::getgrnam("daemon")->gr_gid};
  qvdb::tool::FieldWriter writer({.owners = true});
  const int file = ::open(path("in/program").c_str(), O_RDONLY);
  // User 7, group 8, "daemon" and "daemon"
  writer.setOwner(file,
                  "o\x10\x07\x08\x06"
                  "daemon\x06"
                  "daemon",
                  "program");
  EXPECT_EQ(ownerOf(path("in/program")), daemon);
  // Names that nobody has: the numbers count. One of the two is enough.
  writer.setOwner(file,
                  "o\x0d\x07\x08\x03no!\x06"
                  "daemon",
                  "program");
  EXPECT_EQ(ownerOf(path("in/program")), (std::pair<uid_t, gid_t>{7, daemon.second}));
  writer.setOwner(file, "o\x0a\x07\x09\x03no!\x03no!"s, "program");
  EXPECT_EQ(ownerOf(path("in/program")), (std::pair<uid_t, gid_t>{7, 9}));
  // The next file with the same unknown names has numbers of its own.
  writer.setOwner(file, "o\x0a\x0a\x0b\x03no!\x03no!"s, "program");
  EXPECT_EQ(ownerOf(path("in/program")), (std::pair<uid_t, gid_t>{10, 11}));
  ::close(file);
}

// -- Set-id bits

TEST_F(ImportedOwners, DecideAboutSetIdBits) {
  fs::permissions(path("in/program"), static_cast<fs::perms>(06755));
  import({"--owners"});
  exportTo("plain", {"--same-owner"});
  EXPECT_EQ(modeOf(path("plain/program")) & 07000, 0u);
  exportTo("same", {"--same-owner", "--same-permissions"});
  EXPECT_EQ(modeOf(path("same/program")), 06755u);
  EXPECT_EQ(ownerOf(path("same/program")), stored);
  // It would run as root what a user has written.
  exportTo("other", {"--same-permissions"});
  EXPECT_EQ(ownerOf(path("other/program")), own);
  EXPECT_EQ(modeOf(path("other/program")), 0755u);
}

TEST_F(ImportedFields, SetIdBitsComeBackWithSamePermissionsOnly) {
  fs::permissions(path("in/program"), static_cast<fs::perms>(04711));
  fs::permissions(path("in/folder"), static_cast<fs::perms>(01777));
  if (modeOf(path("in/program")) != 04711) GTEST_SKIP() << "set-id bits are ignored here";
  import({});
  exportTo("plain");
  EXPECT_EQ(modeOf(path("plain/program")) & 07000, 0u);
  EXPECT_EQ(modeOf(path("plain/folder")) & 07000, 0u);
  if (::geteuid() != 0) return;
  exportTo("same", {"--same-permissions"});
  EXPECT_EQ(modeOf(path("same/program")), 04711u);
  EXPECT_EQ(modeOf(path("same/folder")), 01777u);
}

// -- Extended attributes

#if defined(__linux__)
class ImportedAttributes : public ImportedFields {
 protected:
  void SetUp() override {
    ImportedFields::SetUp();
    if (::setxattr(path("in").c_str(), "user.try", "", 0, 0) != 0) {
      GTEST_SKIP() << "the file system has no attributes";
    }
  }

  void set(const std::string& name, const std::string& attribute, const std::string& value) {
    ASSERT_EQ(::setxattr(path(name).c_str(), attribute.c_str(), value.data(), value.size(), 0), 0);
  }
  std::optional<std::string> get(const std::string& name, const std::string& attribute) {
    std::string value(70'000, '\0');
    const ssize_t got =
        ::getxattr(path(name).c_str(), attribute.c_str(), value.data(), value.size());
    if (got < 0) return std::nullopt;
    return value.substr(0, static_cast<size_t>(got));
  }
};

TEST_F(ImportedAttributes, ComeBackOnRequest) {
  const std::string bytes("a\0b\xff", 4);
  set("in/folder/file", "user.one", bytes);
  set("in/folder/file", "user.two", "");
  set("in/folder", "user.of folder", std::string(1'000, 'x'));
  import({"--xattrs"});
  exportTo("out", {"--xattrs"});
  EXPECT_EQ(get("out/folder/file", "user.one"), bytes);
  EXPECT_EQ(get("out/folder/file", "user.two"), "");
  EXPECT_EQ(get("out/folder", "user.of folder"), std::string(1'000, 'x'));
  exportTo("plain");
  EXPECT_EQ(get("plain/folder/file", "user.one"), std::nullopt);
  exportTo("before", {"--xattrs", "--at", "2100-01-01"});
  EXPECT_EQ(get("before/folder/file", "user.one"), bytes);
}

TEST_F(ImportedAttributes, AreNotStoredUnlessAskedFor) {
  set("in/program", "user.one", "1");
  import({});
  EXPECT_EQ(fieldsOf("program"), "");
}

TEST_F(ImportedAttributes, AreStoredAsDocumented) {
  set("in/program", "user.b", "2");
  set("in/program", "user.a", "1");
  import({"--xattrs"});
  // "x", 8 bytes, a name of 6, the value; in the order of the names
  EXPECT_EQ(fieldsOf("program"), "eAgGdXNlci5hMXgIBnVzZXIuYjI=");
}

TEST_F(ImportedAttributes, ThatChangeAreNoticedByAnUpdate) {
  const Words dryRun = {"import", "-nu", "--xattrs", kDefaultFile, "files", "in/"};
  set("in/program", "user.one", "1");
  set("in/program", "user.two", "2");
  import({"--xattrs"});
  EXPECT_NE(done(dryRun).find("0 steps"), std::string::npos);
  ASSERT_EQ(::removexattr(path("in/program").c_str(), "user.one"), 0);
  EXPECT_NE(done(dryRun).find("properties program\n1 step"), std::string::npos);
  import({"-u", "--xattrs"});
  exportTo("out", {"--xattrs"});
  EXPECT_EQ(get("out/program", "user.one"), std::nullopt);
  EXPECT_EQ(get("out/program", "user.two"), "2");
}

// What one import has stored and another looks at must not look changed for its order.
TEST_F(ImportedAttributes, AndOwnersStoredOneAfterTheOtherSettle) {
  set("in/program", "user.one", "1");
  import({"--xattrs"});
  import({"-u", "--owners"});
  for (const Words& options : {Words{"--owners"}, {"--xattrs"}, {"--xattrs", "--owners"}}) {
    Words words = {"import", "-nu"};
    words.insert(words.end(), options.begin(), options.end());
    words.insert(words.end(), {kDefaultFile, "files", "in/"});
    EXPECT_NE(done(words).find("0 steps"), std::string::npos);
  }
  exportTo("out", {"--xattrs"});
  EXPECT_EQ(get("out/program", "user.one"), "1");
}

TEST_F(ImportedAttributes, GoOnReadOnlyFilesToo) {
  set("in/program", "user.one", "1");
  fs::permissions(path("in/program"), static_cast<fs::perms>(0400));
  set("in/folder", "user.two", "2");
  fs::permissions(path("in/folder"), static_cast<fs::perms>(0500));
  import({"--xattrs"});
  exportTo("out", {"--xattrs"});
  EXPECT_EQ(get("out/program", "user.one"), "1");
  EXPECT_EQ(get("out/folder", "user.two"), "2");
  EXPECT_EQ(modeOf(path("out/program")), 0400u);
  EXPECT_EQ(modeOf(path("out/folder")), 0500u);
  for (const char* name : {"in/folder", "out/folder"}) {
    fs::permissions(path(name), fs::perms::owner_all);
  }
}

// An attribute that no system takes, in a list that was made by hand.
TEST_F(ImportedAttributes, ThatAreRefusedAreLeftOutAndSaid) {
  set("in/program", "user.one", "1");
  set("in/program", "user.two", "2");
  import({"--xattrs"});
  std::string dump = done({"dump", kDefaultFile});
  const std::string stored = "eAoIdXNlci5vbmUxeAoIdXNlci50d28y";  // user.one, user.two
  const size_t at = dump.find(stored);
  ASSERT_NE(at, std::string::npos) << dump;
  dump.replace(at, stored.size(), "eAoIc3lzdGVtLngxeAoIdXNlci50d28y");  // system.x, user.two
  done({"load", "made.qvd"}, dump);
  // Of another kind than the tool stores: passed over.
  done({"export", "--xattrs", "made.qvd", "files", "out"});
  EXPECT_EQ(get("out/program", "user.two"), "2");

  qvdb::tool::FieldWriter writer({.attributes = true});
  const int file = ::open(path("out/program").c_str(), O_RDONLY);
  const std::string name = "user." + std::string(320, 'n');
  testing::internal::CaptureStderr();
  qvdb::tool::FileAttributes attributes = {{name, "1"}, {"user.fine", "2"}};
  writer.setAttributes(file, qvdb::tool::fieldsOf(attributes), "program", false);
  const std::string said = testing::internal::GetCapturedStderr();
  ::close(file);
  EXPECT_FALSE(writer.isComplete());
  EXPECT_NE(said.find("left out: program: attribute 'user.nnn"), std::string::npos) << said;
  EXPECT_EQ(get("out/program", "user.fine"), "2");
}

// A set of capabilities makes a program as powerful as a set-id bit does.
TEST_F(ImportedAttributes, ThatGivePrivilegesNeedSamePermissions) {
  const std::string capability(
      "\x00\x00\x00\x02\x00\x04\x00\x00\x00\x00\x00\x00\x00\x00\x00\x00\x00\x00\x00\x00", 20);
  if (::setxattr(path("in/program").c_str(), "security.capability", capability.data(),
                 capability.size(), 0) != 0) {
    GTEST_SKIP() << "capabilities are for root";
  }
  import({"--xattrs"});
  const Outcome plain = run({"export", "--xattrs", kDefaultFile, "files", "plain"});
  EXPECT_EQ(plain.status, 1) << plain;
  EXPECT_NE(plain.err.find("--same-permissions"), std::string::npos) << plain;
  EXPECT_EQ(get("plain/program", "security.capability"), std::nullopt);
  exportTo("same", {"--xattrs", "--same-permissions", "--same-owner"});
  EXPECT_TRUE(get("same/program", "security.capability").has_value());
}
#endif

// -- Names of one file

class ImportedHardLinks : public ImportedFields {
 protected:
  void SetUp() override {
    ImportedFields::SetUp();
    writeFile(path("in/a"), bytesOf("same"));
    fs::create_hard_link(path("in/a"), path("in/b"));
    fs::create_hard_link(path("in/a"), path("in/folder/c"));
    writeFile(path("in/other"), bytesOf("same"));
    fs::last_write_time(path("in/other"), fs::last_write_time(path("in/a")));
  }

  bool areOne(const std::string& one, const std::string& other) {
    return fs::equivalent(path(one), path(other));
  }
  void expectNoTemporaries(const std::string& target) {
    for (const auto& each : fs::recursive_directory_iterator(path(target))) {
      EXPECT_FALSE(each.path().filename().native().starts_with(".qvdb")) << each.path();
    }
  }
};

TEST_F(ImportedHardLinks, ComeBackOnRequest) {
  import({"--hard-links"});
  exportTo("out", {"--hard-links"});
  EXPECT_TRUE(areOne("out/a", "out/b"));
  EXPECT_TRUE(areOne("out/a", "out/folder/c"));
  EXPECT_EQ(statusOf(path("out/a")).st_nlink, 3u);
  EXPECT_EQ(readFile(path("out/b")), bytesOf("same"));
  // What only has the same contents and time stays a file of its own.
  EXPECT_FALSE(areOne("out/a", "out/other"));
  expectNoTemporaries("out");
  exportTo("plain");
  EXPECT_FALSE(areOne("plain/a", "plain/b"));
  EXPECT_EQ(readFile(path("plain/b")), bytesOf("same"));
  exportTo("before", {"--hard-links", "--at", "2100-01-01"});
  EXPECT_TRUE(areOne("before/a", "before/folder/c"));
  EXPECT_FALSE(areOne("before/a", "before/other"));
  expectNoTemporaries("before");
}

TEST_F(ImportedHardLinks, AreStoredAsDocumented) {
  import({"--hard-links"});
  EXPECT_EQ(fieldsOf("a"), "");
  EXPECT_EQ(fieldsOf("b"), "aAFh");  // "h", 1 byte, "a"
  EXPECT_EQ(fieldsOf("folder/c"), "aAFh");
  EXPECT_EQ(fieldsOf("other"), "");
}

TEST_F(ImportedHardLinks, AreNotStoredUnlessAskedFor) {
  import({});
  EXPECT_EQ(fieldsOf("b"), "");
  exportTo("out", {"--hard-links"});
  EXPECT_FALSE(areOne("out/a", "out/b"));
}

TEST_F(ImportedHardLinks, WhoseContentsDifferNowAreTwoFiles) {
  import({"--hard-links"});
  fs::remove(path("in/b"));
  writeFile(path("in/b"), bytesOf("diff"));
  fs::last_write_time(path("in/b"), fs::last_write_time(path("in/a")));
  import({"--replace"});  // without the option what is stored of names stays
  EXPECT_EQ(fieldsOf("b"), "aAFh");
  exportTo("out", {"--hard-links"});
  EXPECT_FALSE(areOne("out/a", "out/b"));
  EXPECT_TRUE(areOne("out/a", "out/folder/c"));
  EXPECT_EQ(readFile(path("out/b")), bytesOf("diff"));
  EXPECT_EQ(readFile(path("out/a")), bytesOf("same"));
}

TEST_F(ImportedHardLinks, WhosePropertiesDifferAreTwoFiles) {
  import({"--hard-links"});
  fs::remove(path("in/b"));
  writeFile(path("in/b"), bytesOf("same"));
  fs::last_write_time(path("in/b"), fs::last_write_time(path("in/a")));
  fs::permissions(path("in/b"), fs::perms::owner_read);
  import({"--replace"});
  exportTo("out", {"--hard-links"});
  EXPECT_FALSE(areOne("out/a", "out/b"));
  EXPECT_EQ(modeOf(path("out/b")), 0400u);
}

TEST_F(ImportedHardLinks, ThatWereSeparatedAreNoticedByAnUpdate) {
  import({"--hard-links"});
  EXPECT_NE(done({"import", "-nu", "--hard-links", kDefaultFile, "files", "in/"}).find("0 steps"),
            std::string::npos);
  fs::copy_file(path("in/b"), path("in/new"));
  fs::last_write_time(path("in/new"), fs::last_write_time(path("in/a")));
  fs::rename(path("in/new"), path("in/b"));
  EXPECT_NE(done({"import", "-nu", "--hard-links", kDefaultFile, "files", "in/"})
                .find("properties b\n1 step"),
            std::string::npos);
  import({"-u", "--hard-links"});
  exportTo("out", {"--hard-links"});
  EXPECT_FALSE(areOne("out/a", "out/b"));
  EXPECT_TRUE(areOne("out/a", "out/folder/c"));
}

// Each name has a record of its own.
TEST_F(ImportedHardLinks, LoseNoContentsWithTheFirstName) {
  import({"--hard-links"});
  done({"rm", kDefaultFile, "files", "a"});
  EXPECT_EQ(done({"get", kDefaultFile, "files", "b"}), "same");
  exportTo("out", {"--hard-links"});
  EXPECT_FALSE(fs::exists(path("out/a")));
  EXPECT_TRUE(areOne("out/b", "out/folder/c"));
  // And so where the first one is not chosen.
  done({"export", "--hard-links", kDefaultFile, "files", "part", "folder", "b"});
  EXPECT_TRUE(areOne("part/b", "part/folder/c"));
}

TEST_F(ImportedHardLinks, ReplaceFilesWithForce) {
  import({"--hard-links"});
  fs::create_directory(path("out"));
  writeFile(path("out/b"), bytesOf("old"));
  exportTo("out", {"--hard-links", "--force"});
  EXPECT_TRUE(areOne("out/a", "out/b"));
  expectNoTemporaries("out");
}

TEST_F(ImportedHardLinks, AreNotMadeOfWhatHasTakenThePlaceOfTheFirst) {
  qvdb::tool::FolderWriter writer(path("out"), {});
  qvdb::tool::ImportedFile a;
  a.name = "folder/a";
  a.mode = 0644;
  bool isRead = false;
  const auto identity = writer.writeFile(
      a, [&](uint64_t, std::span<std::byte>) -> size_t { return isRead = true, 0; });
  EXPECT_TRUE(isRead);
  qvdb::tool::ImportedFile b = a;
  b.name = "b";
  fs::rename(path("out/folder/a"), path("out/moved"));
  EXPECT_FALSE(writer.makeHardLink(b, a, identity));  // gone
  EXPECT_FALSE(writer.isComplete());
  writeFile(path("secret"), bytesOf("not for everybody"));
  fs::create_symlink(path("secret"), path("out/folder/a"));
  EXPECT_FALSE(writer.makeHardLink(b, a, identity));  // a link
  fs::remove(path("out/folder/a"));
  fs::create_hard_link(path("secret"), path("out/folder/a"));
  EXPECT_FALSE(writer.makeHardLink(b, a, identity));  // another file
  EXPECT_FALSE(fs::exists(path("out/b")));
  EXPECT_EQ(statusOf(path("secret")).st_nlink, 2u);
  fs::remove(path("out/folder/a"));
  fs::rename(path("out/moved"), path("out/folder/a"));
  EXPECT_TRUE(writer.makeHardLink(b, a, identity));
  EXPECT_TRUE(areOne("out/folder/a", "out/b"));
  // What is there is not replaced without --force.
  EXPECT_THROW(writer.makeHardLink(b, a, identity), qvdb::tool::Failure);
  expectNoTemporaries("out");
}

// -- Fields from anywhere

TEST(EntryFields, OfAnOwnerAreTakenWholeOrNotAtAll) {
  const auto owner = qvdb::tool::ownerIn("o\x06\x01\x02\x01u\x01g"s);
  ASSERT_TRUE(owner);
  EXPECT_EQ(owner->user, 1u);
  EXPECT_EQ(owner->group, 2u);
  EXPECT_EQ(owner->userName, "u");
  EXPECT_EQ(owner->groupName, "g");
  for (const std::string& bad : {
           "o\x00"s,                                  // nothing
           "o\x03\x01\x02\x00"s,                      // no name of the group
           "o\x04\x01\x02\x05u"s,                     // a name beyond the field
           "o\x09\x80\x80\x80\x80\x10\x02\x00\x00"s,  // a field beyond the end
           "o\x08\x80\x80\x80\x80\x10\x02\x00\x00"s,  // user 2^32
           "o\x08\xff\xff\xff\xff\x0f\x02\x00\x00"s,  // user 2^32 - 1: none
           "o\x08\x02\xff\xff\xff\xff\x0f\x00\x00"s,  // group 2^32 - 1
           "o\x08\x80\x80\x80\x80\x80\x01\x00\x00"s,  // a count without end
       }) {
    EXPECT_FALSE(qvdb::tool::ownerIn(bad)) << testing::PrintToString(bad);
  }
  // The first counts; a name that holds a zero byte is none.
  const auto first = qvdb::tool::ownerIn("q\x01zo\x05\x01\x02\x01\x00\x00o\x04\x03\x04\x00\x00"s);
  ASSERT_TRUE(first);
  EXPECT_EQ(first->user, 1u);
  EXPECT_EQ(first->userName, "");
}

TEST(EntryFields, OfAttributesArePassedOverWhereTheyMakeNoSense) {
  const auto attributes = qvdb::tool::attributesIn(
      "x\x03\x01"
      "a1"
      "x\x03\x01"
      "a2"         // the same name again
      "x\x01\x00"  // no name
      "x\x03\x01\x00"
      "3"           // a zero byte in the name
      "x\x02\x09z"  // a name beyond the field
      "x\x02\x01"
      "b"         // no value
      "x\x7f"s);  // a field beyond the end
  EXPECT_EQ(attributes, (qvdb::tool::FileAttributes{{"a", "1"}, {"b", ""}}));
}

TEST(EntryFields, ThatAreNotKnownOrNotChosenStay) {
  const std::string old =
      "o\x04\x01\x02\x00\x00x\x03\x01"
      "a1q\x01z"s;
  const std::string now =
      "o\x04\x03\x04\x00\x00x\x03\x01"
      "b2"s;
  const auto renewed = [&](bool owners, bool attributes) {
    return qvdb::tool::renewedFields(old, now, {owners, attributes});
  };
  EXPECT_EQ(qvdb::tool::renewedFields("q\x01zh\x01"
                                      "a",
                                      "h\x01"
                                      "b",
                                      {.hardLinks = true}),
            "h\x01"
            "bq\x01z");
  EXPECT_EQ(qvdb::tool::renewedFields("h\x01"
                                      "a",
                                      "", {.hardLinks = true}),
            "");
  EXPECT_EQ(qvdb::tool::renewedFields("h\x01"
                                      "a",
                                      "", {.owners = true}),
            "h\x01"
            "a");
  // In another order than the tool writes: as it is, unless something was chosen.
  EXPECT_EQ(qvdb::tool::renewedFields("q\x01zh\x01"
                                      "a",
                                      "", {}),
            "q\x01zh\x01"s + "a");
  EXPECT_EQ(renewed(false, false), old);
  EXPECT_EQ(renewed(true, false),
            "o\x04\x03\x04\x00\x00x\x03\x01"
            "a1q\x01z"s);
  EXPECT_EQ(renewed(false, true),
            "o\x04\x01\x02\x00\x00x\x03\x01"
            "b2q\x01z"s);
  EXPECT_EQ(renewed(true, true),
            "o\x04\x03\x04\x00\x00x\x03\x01"
            "b2q\x01z"s);
}

}  // namespace
}  // namespace qvdbase::test
