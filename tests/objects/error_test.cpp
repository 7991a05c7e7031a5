// What errors say: the reason that fits what the host answered, its code, the file and the table.
#include <fcntl.h>

#include <functional>
#include <map>

#include "kit/recorded_calls.h"
#include "kit/replaced_calls.h"
#include "objects/layer_fixture.h"

namespace qvdbase::test {
namespace {

using qvdb::Database;
using qvdb::Error;
using qvdb::Mode;
using qvdb::Reason;

class LayerErrors : public LayerTest {
 protected:
  // What opening for writing throws while each lock is refused with this code.
  std::optional<Error> lockedOut(int code) {
    RecordedCalls host;
    host.failFrom(Call::lock, 0, code);
    return errorOf([&] { openDatabase(Mode::exclusive); });
  }

  // What adding a record throws while each write is refused with this code.
  std::optional<Error> writeRefused(int code) {
    auto database = createDatabase(std::to_string(code) + ".qvd");
    auto table = database.add_table("notes");
    allowDamage(std::to_string(code) + ".qvd");
    RecordedCalls host;
    host.failFrom(Call::write, 0, code);
    return errorOf([&] { table.add(span(bytesOf("x"))); });
  }
};

void expectReason(const std::optional<Error>& error, Reason reason, int code) {
  ASSERT_TRUE(error);
  EXPECT_EQ(qvdb::to_string(error->reason()), qvdb::to_string(reason)) << error->what();
  EXPECT_EQ(error->system_code(), std::error_code(code, std::system_category())) << error->what();
}

TEST_F(LayerErrors, TellALockThatIsHeldFromAFileSystemWithoutLocks) {
  createDatabase();
  for (const int code : {EAGAIN, EACCES}) expectReason(lockedOut(code), Reason::in_use, code);
  for (const int code : {ENOLCK, EOPNOTSUPP, ENOSYS, EINVAL}) {
    expectReason(lockedOut(code), Reason::cannot_lock, code);
  }
}

TEST_F(LayerErrors, SayWhyAWriteWasRefused) {
  expectReason(writeRefused(ENOSPC), Reason::disk_full, ENOSPC);
  expectReason(writeRefused(EDQUOT), Reason::disk_full, EDQUOT);
  expectReason(writeRefused(EFBIG), Reason::size_limit, EFBIG);
  expectReason(writeRefused(EROFS), Reason::read_only_file_system, EROFS);
  const auto error = writeRefused(EIO);
  expectReason(error, Reason::cannot_write, EIO);
  EXPECT_NE(std::string(error->what()).find("Input/output error"), std::string::npos);
}

// A write beyond the limit of the process never reaches the host: it would raise a signal.
TEST_F(LayerErrors, SayThatAFileMayNotBecomeLonger) {
  auto database = createDatabase();
  auto table = database.add_table("notes");
  allowDamage();
  RecordedCalls host;
  host.setFileSizeLimit(fileSize() + 40);
  expectReason(errorOf([&] { table.add(span(bytesOf("too much"))); }), Reason::size_limit, EFBIG);
}

// What a batch has written is cut off again before the reason is looked for.
TEST_F(LayerErrors, SayThatAFileMayNotBecomeLongerForABatch) {
  auto database = createDatabase();
  auto table = database.add_table("notes");
  allowDamage();
  RecordedCalls host;
  host.setFileSizeLimit(fileSize() + 300);
  expectReason(errorOf([&] {
                 auto appender = table.appender();
                 for (int i = 0; i < 8; ++i) appender.add(span(bytesOf("a small record")));
                 appender.finish();
               }),
               Reason::size_limit, EFBIG);
}

// Wherever the limit cuts a change off, also within a field of what was there before.
TEST_F(LayerErrors, SayThatTheLimitRefusedAnyPartOfAChange) {
  qvdb::Id id;
  {
    auto database = createDatabase();
    for (const char* name : {"t1", "t2", "t3", "t4", "t5", "t6"}) database.add_table(name);
    id = database.add_table("t7").add("payload");
  }
  const Bytes file = contents();
  allowDamage();
  const std::map<std::string, std::function<bool(qvdb::Table&)>> changes = {
      {"remove", [id](qvdb::Table& table) { return table.remove(id); }},
      {"modify", [id](qvdb::Table& table) { return table.modify(id, "other"); }},
      {"move", [id](qvdb::Table& table) { return table.modify(id, std::string(900, 'x')); }},
      {"touch", [id](qvdb::Table& table) { return table.touch(id); }},
      {"write", [id](qvdb::Table& table) { return table.write(id, 1, "A"); }},
  };
  for (const auto& [name, change] : changes) {
    int refused = 0;
    // The seventh slot, and the blocks.
    std::vector<uint64_t> limits;
    for (uint64_t limit = 886; limit < 1030; limit += 5) limits.push_back(limit);
    for (uint64_t limit = 4630; limit < file.size() + 100; limit += 7) limits.push_back(limit);
    for (const uint64_t limit : limits) {
      SCOPED_TRACE(name + ", limit " + std::to_string(limit));
      writeFile(path(), file);
      auto database = openDatabase();
      auto table = database.table("t7");
      RecordedCalls host;
      host.setFileSizeLimit(limit);
      try {
        EXPECT_TRUE(change(table));
      } catch (const Error& error) {
        expectReason(error, Reason::size_limit, EFBIG);
        ++refused;
      }
    }
    EXPECT_GT(refused, 0) << name;
  }
}

TEST_F(LayerErrors, TellAReadOnlyFileSystemFromOneThatDeniesAccess) {
  createDatabase();
  for (const auto& [code, reason] : {std::pair(EROFS, Reason::read_only_file_system),
                                     std::pair(EACCES, Reason::access_denied)}) {
    static int refusal = 0;
    refusal = code;
    ReplacedCalls calls;
    calls->openAt = [](int directory, const char* name, int flags, mode_t mode) {
      if ((flags & O_ACCMODE) == O_RDONLY) {
        return platform::hostSystemCalls().openAt(directory, name, flags, mode);
      }
      errno = refusal;
      return -1;
    };
    calls->makeDirectoryAt = [](int directory, const char* name, mode_t) {
      struct stat status = {};
      const bool isThere = platform::hostSystemCalls().statusAt(directory, name, &status, 0) == 0;
      errno = isThere ? EEXIST : refusal;
      return -1;
    };
    expectReason(errorOf([&] { openDatabase(Mode::exclusive); }), reason, code);
    expectReason(errorOf([&] { Database::create(path("new.qvd")); }), reason, code);
  }
}

TEST_F(LayerErrors, NameWhatIsNotAFolder) {
  writeFile(path("file"), bytesOf("x"));
  allowDamage("file");
  for (const char* name : {"file/x.qvd", "file/deeper/x.qvd"}) {
    expectReason(errorOf([&] { Database::open(path(name)); }), Reason::no_such_file, ENOTDIR);
    expectError(Reason::path_not_reachable, [&] { Database::create(path(name)); });
    expectReason(errorOf([&] { qvdb::check(path(name)); }), Reason::no_such_file, ENOTDIR);
  }
}

TEST_F(LayerErrors, SayWhyAFolderCannotBeMade) {
  const qvdb::CreateOptions making = {.create_folders = true};
  const std::string tooLong = "new/" + std::string(300, 'x') + "/a.qvd";
  expectReason(errorOf([&] { Database::create(path(tooLong), making); }),
               Reason::path_not_reachable, ENAMETOOLONG);
  writeFile(path("file"), bytesOf("x"));
  allowDamage("file");
  expectReason(errorOf([&] { Database::create(path("file/new/a.qvd"), making); }),
               Reason::path_not_reachable, ENOTDIR);
  if (!std::filesystem::is_directory("/proc/self")) GTEST_SKIP() << "there is no /proc here";
  const auto refused = errorOf([&] { Database::create("/proc/new/a.qvd", making); });
  ASSERT_TRUE(refused);
  EXPECT_EQ(refused->reason(), Reason::cannot_open) << refused->what();
  EXPECT_NE(std::string(refused->what()).find("its folder cannot be created"), std::string::npos);
  EXPECT_TRUE(refused->system_code()) << refused->what();
}

TEST_F(LayerErrors, SayThatAFileIsWhereAFolderShouldBe) {
  writeFile(path("file"), bytesOf("x"));
  allowDamage("file");
  const std::string message =
      expectError(Reason::path_not_reachable, [&] { Database::create(path("file/x.qvd")); });
  EXPECT_NE(message.find("file is not a folder"), std::string::npos) << message;
}

// Its file system has no space by any count, which is not what is wrong.
TEST_F(LayerErrors, DoNotTakeAFolderThatTakesNoFilesForAFullDisk) {
  if (!std::filesystem::is_directory("/proc/self")) GTEST_SKIP() << "there is no /proc here";
  const auto error = errorOf([] { Database::create("/proc/x"); });
  ASSERT_TRUE(error);
  EXPECT_NE(qvdb::to_string(error->reason()), qvdb::to_string(Reason::disk_full));
  EXPECT_TRUE(error->system_code()) << error->what();
}

TEST_F(LayerErrors, NameTheFileAsItWasGiven) {
  const std::filesystem::path given = "no-such-folder/../nothing.qvd";
  for (const auto& error :
       {errorOf([&] { Database::open(given); }), errorOf([&] { qvdb::check(given); }),
        errorOf([&] { qvdb::compact(given); }), errorOf([&] { qvdb::open_checked(given); })}) {
    ASSERT_TRUE(error);
    EXPECT_EQ(error->path(), given);
    EXPECT_EQ(error->table(), "");
    EXPECT_EQ(std::string(error->what()).find(given.native() + ": cannot "), 0u) << error->what();
  }
}

TEST_F(LayerErrors, NameTheTable) {
  auto database = createDatabase();
  database.add_table("notes");
  const auto tableOf = [](const std::optional<Error>& error) {
    return error ? error->table() : "no error";
  };
  EXPECT_EQ(tableOf(errorOf([&] { database.table("none"); })), "none");
  EXPECT_EQ(tableOf(errorOf([&] { database.add_table("notes"); })), "notes");
  EXPECT_EQ(tableOf(errorOf([&] { database.add_table(""); })), "");
  EXPECT_EQ(tableOf(writeRefused(EIO)), "notes");
}

TEST_F(LayerErrors, AreCopiedWithAllThatTheyKnow) {
  const Error error("open the database", Reason::chain_damaged, "message",
                    {.path = "a.qvd",
                     .table = "notes",
                     .system_code = std::make_error_code(std::errc::io_error),
                     .record_number = 7});
  static_assert(std::is_nothrow_copy_constructible_v<Error>);
  const Error copy = error;
  EXPECT_STREQ(copy.what(), "message");
  EXPECT_EQ(copy.path(), "a.qvd");
  EXPECT_EQ(copy.table(), "notes");
  EXPECT_EQ(copy.system_code(), std::errc::io_error);
  EXPECT_EQ(copy.record_number(), 7u);
}

// A device that fails is no damage, whichever read it refuses.
TEST_F(LayerErrors, OfReadsThatFailSayThatTheSystemCannotRead) {
  {
    auto database = createDatabase();
    auto table = database.add_table("t");
    for (const char* text : {"first", "second", "third"}) table.add(text);
    table.set_data("about");
  }
  using Operation = std::function<void(const qvdb::Database&, const qvdb::Table&)>;
  const std::map<std::string, Operation> operations = {
      {"tables", [](const auto& database, const auto&) { static_cast<void>(database.tables()); }},
      {"find", [](const auto&, const auto& table) { static_cast<void>(table.find(qvdb::Id{7})); }},
      {"records", [](const auto&, const auto& table) { idsOf(table); }},
      {"data size", [](const auto&, const auto& table) { static_cast<void>(table.data_size()); }},
      {"data", [](const auto&, const auto& table) { static_cast<void>(table.data()); }},
  };
  for (const auto& [name, operation] : operations) {
    for (const bool once : {true, false}) {
      int skip = 0;
      for (bool isRefused = true; isRefused; ++skip) {
        SCOPED_TRACE(name + (once ? ", one read" : ", all reads") + " after " +
                     std::to_string(skip));
        const auto database = openDatabase(qvdb::Mode::read_only);
        const qvdb::Table table = database.table("t");
        RecordedCalls host;
        if (once) host.failOnce(Call::read, skip);
        if (!once) host.failFrom(Call::read, skip);
        try {
          operation(database, table);
        } catch (const Error& error) {
          EXPECT_EQ(error.reason(), Reason::cannot_read) << error.what();
          EXPECT_EQ(error.system_code().value(), EIO) << error.what();
        }
        isRefused = host.failed();
        host.heal();
      }
      EXPECT_GT(skip, 1);
    }
  }
}

TEST_F(LayerErrors, SayWhatHelps) {
  FileImage image;
  image.addTable("t", 0x11);
  const int64_t first = image.addRecord(0, 0xA1, bytesOf("first"));
  image.addRecord(0, 0xA2, bytesOf("second"));
  image.slot(0).recordCount = 1;
  image.slot(0).lastRecordPos = image.slot(0).lastWrittenRecordPos = first;
  expectDamage();
  {
    const auto database = openImage(image);
    const auto error = errorOf([&] { qvdb::check_ends(database, database.table("t").id()); });
    ASSERT_TRUE(error);
    EXPECT_EQ(error->remedy(), qvdb::Remedy::mend) << error->what();
  }
  image.record(first).tableID = Bytes(10, 0x77);
  writeFile(path(), image.build());
  auto error = errorOf([&] { qvdb::mend(path()); });
  ASSERT_TRUE(error);
  EXPECT_EQ(error->remedy(), qvdb::Remedy::salvage) << error->what();
  error = errorOf([&] { Database::create(path("absent/new.qvd")); });
  ASSERT_TRUE(error);
  EXPECT_EQ(error->remedy(), qvdb::Remedy::create_folder) << error->what();
  error = errorOf([&] { Database::open(path("absent.qvd"), Mode::read_only); });
  ASSERT_TRUE(error);
  EXPECT_EQ(error->remedy(), qvdb::Remedy::usual) << error->what();
}

}  // namespace
}  // namespace qvdbase::test
