// qvdb import --replace after a kill: the file has one record afterwards, with the new contents;
// and qvdb rm, after which it has none.
#include <filesystem>

#include "tool/tool_fixture.h"

namespace qvdbase::test {
namespace {

class ImportReplacing : public ToolTest {
 protected:
  // A file "f" with several records of its identifier, as a kill leaves it after the record of the
  // new contents was added and before the old one was deleted.
  void SetUp() override {
    done({"create", "test.qvd"});
    writeFile(path("f"), bytesOf("oldest"));
    writeFile(path("g"), bytesOf("other"));
    done({"import", "test.qvd", "files", "f", "g"});
    const auto list = json({"records", "--json", "test.qvd", "files"});
    const std::string id = list["records"][0]["id"];
    const int16_t db = open();
    for (const char* contents : {"older", "old"}) {
      assignRecord(db, FindTableByName(db, "files"), std::stoull(id, nullptr, 16),
                   bytesOf(contents));
    }
    close(db);
  }

  void expectReplacedBy(const Bytes& contents) {
    writeFile(path("f"), contents);
    done({"import", "--replace", "test.qvd", "files", "f"});
    EXPECT_EQ(done({"get", "test.qvd", "files", "f"}), contents.str());
    EXPECT_EQ(json({"records", "--json", "test.qvd", "files"})["count"], 2);
    done({"export", "test.qvd", "files", "out"});
    EXPECT_EQ(readFile(path("out/f")), contents);
    EXPECT_EQ(readFile(path("out/g")), bytesOf("other"));
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator(path("out")),
                            std::filesystem::directory_iterator()),
              2);
  }
};

TEST_F(ImportReplacing, ALargeFileRemovesAllItsOlderRecords) {
  expectReplacedBy(pattern(2'000'000));
}

TEST_F(ImportReplacing, ASmallFileRemovesAllItsOlderRecords) {
  expectReplacedBy(bytesOf("new"));
}

// A name means one file: none of its records stays without it.
TEST_F(ImportReplacing, RemovingAFileRemovesAllItsRecords) {
  done({"rm", "test.qvd", "files", "f"});
  const auto list = json({"records", "--json", "test.qvd", "files"});
  ASSERT_EQ(list["count"], 1);
  EXPECT_EQ(list["records"][0]["name"], "g");
  done({"export", "test.qvd", "files", "out"});
  EXPECT_FALSE(std::filesystem::exists(path("out/f")));
}

}  // namespace
}  // namespace qvdbase::test
