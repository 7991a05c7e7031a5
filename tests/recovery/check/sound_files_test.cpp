// Files in which nothing is wrong.
#include <gtest/gtest.h>

#include "recovery/check/base_files.h"

namespace qvdbase::test {
namespace {

TEST(Check, FindsNothingWrongInTheBaseFiles) {
  for (const BaseFile& base : baseFiles()) {
    const Checked checked = checkBytes(base.bytes, {.categories = true, .now = kNow});
    EXPECT_EQ(checked.report.state, qvdb::CheckState::sound) << base.name << "\n" << checked.text();
    EXPECT_EQ(sum(checked.report.space), base.bytes.size());
    for (const qvdb::TableOutlook& table : checked.report.tables) {
      EXPECT_TRUE(table.reachable && table.append && table.list && table.find_all &&
                  table.delete_all && table.enlarge_all && table.get_data && table.set_data);
    }
    EXPECT_TRUE(checked.report.pack);
    EXPECT_EQ(checked.report.repair, 0);
  }
}

TEST(Check, FindsNothingInANewFile) {
  const Checked checked = checkBytes(FileImage().build());
  EXPECT_TRUE(checked.findings.empty()) << checked.text();
  EXPECT_EQ(checked.report.space.directory, 4630u);
}

TEST(Check, AccountsForEveryByteOfAUsedFile) {
  const Checked checked = checkBytes(usedFile().bytes);
  const qvdb::SpaceUse& space = checked.report.space;
  EXPECT_EQ(space.records, 6u * (56 + 40) + (56 + 70) + 8 * (56 + 300));
  EXPECT_EQ(space.table_data, 22u + 30);
  EXPECT_EQ(space.superseded, (56u + 40) + (22 + 3));
  EXPECT_EQ(space.deleted, 56u + 40);
  EXPECT_EQ(space.unlinked + space.lost + space.orphans + space.unknown, 0u);
  EXPECT_EQ(space.in_use(), 4630 + space.records + space.table_data);
  EXPECT_EQ(space.unused(checked.report.file_size), space.superseded + space.deleted);
  EXPECT_EQ(space.unused(space.in_use() - 1), 0u);
}

TEST(Check, ReportsEachCodeWithMeaningConsequenceAndAdvice) {
  for (const qvdb::FindingCode& code : qvdb::finding_codes()) {
    EXPECT_FALSE(code.meaning.empty()) << code.code;
    EXPECT_FALSE(code.fails.empty()) << code.code;
    EXPECT_FALSE(code.advice.empty()) << code.code;
    EXPECT_EQ(&qvdb::finding_code(code.code), &code);
  }
  EXPECT_TRUE(qvdb::finding_code("X9").meaning.empty());
}

}  // namespace
}  // namespace qvdbase::test
