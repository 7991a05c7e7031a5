// What the check says of categories, where it is asked to look into them.
#include <gtest/gtest.h>

#include <functional>

#include "kit/temp_folder.h"
#include "recovery/check/base_files.h"

namespace qvdbase::test {
namespace {

// A database of the three tables; its categories are added by the tests.
struct Categories {
  FileImage image;
  size_t info = image.addTable("QVrz_Info", 0x51);
  size_t categories = image.addTable("QVrz_Category", 0x52);
  size_t records = image.addTable("QVrz_Record", 0x53);

  Categories() {
    image.addRecord(info, 0xF1, bytesOf("about"));
    for (const uint64_t id : {0xE1u, 0xE2u, 0xE3u}) image.addRecord(records, id, pattern(20));
  }

  int64_t add(const Bytes& payload) { return image.addRecord(categories, 0xC1, payload); }

  Checked check() const { return checkBytes(image.build(), {.categories = true, .now = kNow}); }
};

// Places in the payload that category() makes: first count, its one entry, second count, entries.
constexpr size_t kFirstCount = 84;
constexpr size_t kSecondCount = 96;
constexpr int64_t kSecondList = 100;

void expectOnly(const Checked& checked, const std::string& code, qvdb::Severity severity) {
  EXPECT_EQ(checked.codes(qvdb::Severity::warning), std::set<std::string>{code}) << checked.text();
  EXPECT_EQ(checked.first(code).severity, severity);
}

TEST(CheckOfCategories, FindsNothingInSoundOnes) {
  Categories database;
  database.add(category(0xC1, {0xE1, 0xE2}));
  EXPECT_EQ(database.check().report.state, qvdb::CheckState::sound) << database.check().text();
}

TEST(CheckOfCategories, NamesOneThatIsShorterThanItsCounts) {
  for (const size_t field : {kFirstCount, kSecondCount}) {
    for (const uint64_t count :
         {uint64_t{50}, uint64_t{0x7FFFFFFF}, uint64_t{0x80000000}, uint64_t{0xFFFFFFFF}}) {
      Categories database;
      Bytes payload = category(0xC1, {0xE1});
      payload.putBe(field, 4, count);
      const int64_t at = database.add(payload);
      expectOnly(database.check(), "C1", qvdb::Severity::error);
      EXPECT_EQ(database.check().first("C1").offset, at + 55);
    }
  }
  Categories database;
  database.add(category(0xC1, {0xE1}).cut(111));  // within the extra data
  expectOnly(database.check(), "C1", qvdb::Severity::error);
}

TEST(CheckOfCategories, NamesARecordThatDoesNotExist) {
  Categories database;
  const int64_t at = database.add(category(0xC1, {0xE1, 0xEE}));
  expectOnly(database.check(), "C2", qvdb::Severity::error);
  EXPECT_EQ(database.check().first("C2").offset, at + 55 + kSecondList + 8);
}

TEST(CheckOfCategories, WarnsOfTheLastRecord) {
  Categories database;
  database.add(category(0xC1, {0xE3}));
  expectOnly(database.check(), "C3", qvdb::Severity::warning);
}

TEST(CheckOfCategories, WarnsWhenATableIsMissing) {
  for (const int missing : {0, 1, 2}) {
    const char* const names[] = {"QVrz_Info", "QVrz_Category", "QVrz_Record"};
    FileImage image;
    for (int i = 0; i < 3; ++i) {
      if (i != missing) image.addTable(names[i], 0x51 + static_cast<uint64_t>(i));
    }
    const Checked checked = checkBytes(image.build(), {.categories = true, .now = kNow});
    expectOnly(checked, "C4", qvdb::Severity::warning);
    EXPECT_NE(checked.first("C4").message.find(names[missing]), std::string::npos);
  }
  EXPECT_TRUE(checkBytes(FileImage().build(), {.categories = true, .now = kNow}).findings.empty());
}

TEST(CheckOfCategories, LooksIntoThemOnlyWhenItIsAsked) {
  Categories database;
  database.add(category(0xC1, {0xEE}));
  EXPECT_EQ(checkBytes(database.image.build()).report.state, qvdb::CheckState::sound);
}

}  // namespace
}  // namespace qvdbase::test
