// Checksums of payloads in the tool: put --checksum, protect, check --payloads, salvage.
#include "tool/tool_fixture.h"

namespace qvdbase::test {
namespace {

class ToolChecksums : public ToolTest {
 protected:
  // A record with a checksum, and one without. Returns where the payload of the first is.
  size_t putTwo() {
    done({"create", kDefaultFile});
    done({"add-table", kDefaultFile, "notes"});
    done({"put", "--checksum", "--id", "0xA1", kDefaultFile, "notes"}, "protected");
    done({"put", "--id", "0xA2", kDefaultFile, "notes"}, "unprotected");
    return static_cast<size_t>(database().tables[0].records[0].position) + 55;
  }

  void rot(size_t at) { patchFile(path(), at, Bytes{static_cast<uint8_t>(contents()[at] ^ 1)}); }
};

TEST_F(ToolChecksums, AreMadeAndCompared) {
  putTwo();
  EXPECT_NE(done({"check", "--payloads", kDefaultFile})
                .find("payloads: 1 verified, 1 without a checksum, 0 changed elsewhere, 0 rotten"),
            std::string::npos);
  EXPECT_EQ(line({"protect", kDefaultFile}), "1 checksum made for 2 records");
  EXPECT_EQ(line({"protect", kDefaultFile}), "0 checksums made for 2 records");
  EXPECT_NE(done({"check", "--payloads", kDefaultFile}).find("payloads: 2 verified"),
            std::string::npos);
  EXPECT_EQ(done({"get", kDefaultFile, "notes", "0xA2"}), "unprotected");
}

TEST_F(ToolChecksums, ShowWhichPayloadIsDamagedAndWhatToDo) {
  rot(putTwo());
  expectUnchanged([&] {
    fails({"get", kDefaultFile, "notes", "0xA1"}, 1,
          {"does not agree with its checksum", "from a copy of the file", "'qvdb set'"});
    fails({"touch", kDefaultFile, "notes", "0xA1"}, 1, {"does not agree with its checksum"});
    const auto checked = run({"check", "--payloads", kDefaultFile});
    EXPECT_EQ(checked.status, 1);
    EXPECT_NE(checked.out.find("error P1"), std::string::npos) << checked.out;
    done({"check", kDefaultFile});
  });
  EXPECT_NE(done({"salvage", kDefaultFile, "saved.qvd"}).find("1 rotten"), std::string::npos);
  EXPECT_NE(done({"salvage", "-v", kDefaultFile, "again.qvd"}).find("rotten"), std::string::npos);
  done({"set", kDefaultFile, "notes", "0xA1"}, "stored again");
  EXPECT_NE(done({"check", "--payloads", kDefaultFile}).find("0 rotten"), std::string::npos);
}

}  // namespace
}  // namespace qvdbase::test
