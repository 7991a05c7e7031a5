// QVFile: paths, opening, creating, transfers and positions.
#include <gtest/gtest.h>
#include <qvdbase/QVFile.h>

#include "support/bytes.h"
#include "support/temp_folder.h"

namespace qvdbase::test {
namespace {

TEST(File, CreatedWrittenAndReadBack) {
  TempFolder folder;
  QVFile file;
  int16_t number = 0;
  ASSERT_EQ(file.QVCreateAndOpenFile(folder.wide("a/b/f"), 3, &number, 0), 1);
  EXPECT_EQ(number, 1);
  uint32_t moved = 0;
  ASSERT_EQ(file.QVWriteFile(number, "hello", 5, &moved), 1);
  EXPECT_EQ(moved, 5u);
  ASSERT_EQ(file.QVSeekFile(number, 1, 1), 1);
  char text[8] = {};
  EXPECT_EQ(file.QVReadFile(number, text, 8, &moved), 0);
  EXPECT_EQ(moved, 4u);
  EXPECT_STREQ(text, "ello");
  EXPECT_EQ(file.QVCloseFile(number), 1);
  EXPECT_EQ(readFile(folder / "a/b/f").str(), "hello");
}

}  // namespace
}  // namespace qvdbase::test
