// Whether the file layer works: what it writes is in the file when the call returns, and what it
// reads is what is there. A scope that an earlier operation has left open shows here.
#pragma once

#include <gtest/gtest.h>
#include <qvdbase/QVFile.h>

#include "kit/bytes.h"
#include "kit/temp_folder.h"

namespace qvdbase::test {

// Writes with QVWriteFile to a file of its own and looks for the bytes through another descriptor,
// and the other way round.
inline void expectWritesReachTheFile() {
  static TempFolder folder(TempFolder::inMemory());
  writeFile(folder / "probe", bytesOf("before"));
  static const QVWCHAR* const path = folder.wide("probe");
  int16_t file = 0;
  uint32_t moved = 0;
  ASSERT_EQ(QVFile().QVOpenFile(path, 4, &file), 1);
  EXPECT_EQ(QVFile().QVWriteFile(file, "mine", 4, &moved), 1);
  EXPECT_EQ(moved, 4u);
  EXPECT_EQ(readFile(folder / "probe").str(), "minere") << "a write has not reached the file";
  for (const char* const text : {"theirs", "others"}) {
    writeFile(folder / "probe", bytesOf(text));
    char buffer[6] = {};
    EXPECT_EQ(QVFile().QVSeekFile(file, 1, 0), 1);
    EXPECT_EQ(QVFile().QVReadFile(file, buffer, 6, &moved), 1);
    EXPECT_EQ(std::string(buffer, 6), text) << "a read has not come from the file";
  }
  EXPECT_EQ(QVFile().QVCloseFile(file), 1);
}

}  // namespace qvdbase::test
