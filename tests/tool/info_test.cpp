// qvdb info
#include "tool/tool_fixture.h"

namespace qvdbase::test {
namespace {

using ToolInfo = ToolTest;

TEST_F(ToolInfo, ShowsTheHeader) {
  FileImage image;
  image.addTable("one", 1);
  writeFile(path(), image.build());
  expectOnlyRead([&] {
    const auto info = json({"info", "--json", "test.qvd"});
    EXPECT_EQ(info["file"], "test.qvd");
    EXPECT_EQ(info["size"], 4630);
    EXPECT_EQ(info["version"], 100);
    EXPECT_EQ(info["tables"], 1);
    EXPECT_EQ(info["usable"], true);
    const std::string text = done({"info", "test.qvd"});
    EXPECT_NE(text.find("1 of 31"), std::string::npos) << text;
    EXPECT_NE(text.find("usable"), std::string::npos) << text;
  });
}

TEST_F(ToolInfo, ShowsAFileOfAnotherVersionToo) {
  FileImage image;
  image.header().version = 250;
  writeFile(path(), image.build());
  allowDamage();
  EXPECT_EQ(json({"info", "--json", "test.qvd"})["usable"], false);
  EXPECT_NE(done({"info", "test.qvd"}).find("unusable"), std::string::npos);
  fails({"tables", "test.qvd"}, 1, {"version is 250", "qvdb info"});
}

TEST_F(ToolInfo, EscapesTheSignature) {
  FileImage image;
  image.header().signature = bytesOf("QV\x1b\xff");
  writeFile(path(), image.build());
  EXPECT_NE(done({"info", "test.qvd"}).find("QV\\x1b\\xff"), std::string::npos);
  EXPECT_EQ(json({"info", "--json", "test.qvd"})["signature_bytes"], "51561bff");
}

}  // namespace
}  // namespace qvdbase::test
