// qvdb create
#include "tool/tool_fixture.h"

namespace qvdbase::test {
namespace {

using ToolCreate = ToolTest;

TEST_F(ToolCreate, MakesAnEmptyDatabaseAndPrintsItsIdentifier) {
  const std::string id = line({"create", "test.qvd"});
  EXPECT_EQ(fileSize(), 4630u);
  EXPECT_TRUE(sameBytes(contents().cut(6), hex("51 56 64 62 0064")));
  EXPECT_EQ(json({"info", "--json", "test.qvd"})["id"], id);
  EXPECT_EQ(id.size(), 18u);
}

TEST_F(ToolCreate, TakesSignatureAndVersion) {
  done({"create", "--signature", "qv\x01z", "--db-version", "199", "test.qvd"});
  EXPECT_TRUE(sameBytes(contents().cut(6), hex("71 76 01 7a 00c7")));
}

TEST_F(ToolCreate, RefusesUnusableSignaturesAndVersions) {
  fails({"create", "--signature", "QV", "test.qvd"}, 2, {"--signature"});
  fails({"create", "--signature", "VQxx", "test.qvd"}, 1, {"signature"});
  fails({"create", "--db-version", "99", "test.qvd"}, 2, {"--db-version"});
  fails({"create", "--db-version", "200", "test.qvd"}, 2, {"--db-version"});
  EXPECT_FALSE(std::filesystem::exists(path()));
}

TEST_F(ToolCreate, DoesNotChangeAnExistingFileWithoutForce) {
  notes({bytesOf("precious")});
  expectOnlyRead([&] { fails({"create", "test.qvd"}, 1, {"test.qvd", "exists", "--force"}); });
  writeFile(path("text"), bytesOf("precious"));
  fails({"create", "text"}, 1, {"exists"});
  EXPECT_EQ(readFile(path("text")), bytesOf("precious"));
  done({"create", "--force", "test.qvd"});
  EXPECT_EQ(fileSize(), 4630u);
}

TEST_F(ToolCreate, DoesNotEmptyADatabaseInUse) {
  notes({bytesOf("precious")});
  const Bytes before = contents();  // to read it later would end a lock of this process
  const int16_t db = open();
  fails({"create", "--force", "test.qvd"}, 3, {"another process (", "--wait"});
  close(db);
  EXPECT_TRUE(sameBytes(contents(), before));
}

TEST_F(ToolCreate, ReachesFoldersWithOrdinaryNamesAndSaysWhichItCannot) {
  done({"create", "--parents", "some folder/below/test.qvd"});
  EXPECT_TRUE(std::filesystem::exists(path("some folder/below/test.qvd")));
  fails({"create", "two  blanks/test.qvd"}, 1, {"two  blanks", "cannot reach", "rename"});
  EXPECT_FALSE(std::filesystem::exists(path("two blanks")));
}

}  // namespace
}  // namespace qvdbase::test
