// Checksums of payloads in the tool: which commands make them, compare them, carry them and lose
// them.
#include <filesystem>

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

// ---- carried ----

class CarriedChecksums : public ToolChecksums {
 protected:
  // One record in each state, in the order of PayloadState.
  void putAll() {
    done({"create", kDefaultFile});
    done({"add-table", kDefaultFile, "notes"});
    done({"put", "--checksum", "--id", "0xA1", kDefaultFile, "notes"}, "verified");
    done({"put", "--id", "0xA2", kDefaultFile, "notes"}, "unprotected");
    for (const char* id : {"0xA3", "0xA4"}) {
      done({"put", "--checksum", "--id", id, kDefaultFile, "notes"}, "before it was changed");
    }
    const int16_t db = open();
    ASSERT_EQ(ModifyRecordData(db, FindTableByName(db, "notes"),
                               reinterpret_cast<const unsigned char*>("after"), 5, 0xA3, nullptr),
              1);
    close(db);
    rot(payloadOf(3));
  }

  size_t payloadOf(size_t record) const {
    return static_cast<size_t>(database().tables[0].records[record].position) + 55;
  }

  // "1 verified, 1 without a checksum, ...".
  std::string statesIn(const std::string& name) {
    const std::string out = run({"check", "--payloads", name}).out;
    const size_t from = out.find("payloads: ");
    if (from == std::string::npos) return out;
    return out.substr(from + 10, out.find('\n', from) - from - 10);
  }

  static constexpr const char* kOneOfEach =
      "1 verified, 1 without a checksum, 1 changed elsewhere, 1 rotten";
};

TEST_F(CarriedChecksums, AreReportedOneByOne) {
  putAll();
  EXPECT_EQ(statesIn(kDefaultFile), kOneOfEach);
  const Outcome all = run({"check", "-v", "--payloads", kDefaultFile});
  EXPECT_EQ(all.status, 1);
  for (const char* finding : {"error P1", "warning P2", "information P3"}) {
    EXPECT_NE(all.out.find(finding), std::string::npos) << finding << all.out;
  }
}

TEST_F(CarriedChecksums, AreKeptWithWhatTheySayByCopiesOfTheFile) {
  putAll();
  done({"backup", kDefaultFile, "backup.qvd"});
  EXPECT_EQ(statesIn("backup.qvd"), kOneOfEach);
  done({"backup", "--pieces", kDefaultFile, "pool"});
  done({"restore", "pool", "restored.qvd"});
  EXPECT_EQ(statesIn("restored.qvd"), kOneOfEach);
  for (const auto& piece : std::filesystem::directory_iterator(path("pool/pieces"))) {
    allowDamage("pool/pieces/" + piece.path().filename().native());
  }
  done({"compact", kDefaultFile, "compacted.qvd"});
  EXPECT_EQ(statesIn("compacted.qvd"), kOneOfEach);
  done({"salvage", kDefaultFile, "salvaged.qvd"});
  EXPECT_EQ(statesIn("salvaged.qvd"), kOneOfEach);
  done({"rm", kDefaultFile, "notes", "0xA1"});
  done({"undelete", kDefaultFile, "undeleted.qvd", "notes", "0xA1"});
  EXPECT_EQ(statesIn("undeleted.qvd"), kOneOfEach);
  done({"compact", kDefaultFile});
  EXPECT_EQ(statesIn(kDefaultFile),
            "0 verified, 1 without a checksum, 1 changed elsewhere, 1 rotten");
}

// Only what is verified: a checksum of something else would be spare capacity.
TEST_F(CarriedChecksums, AreMadeAgainByLoadAndPatch) {
  putAll();
  fails({"dump", kDefaultFile}, 1, {"does not agree with its checksum"});
  done({"set", kDefaultFile, "notes", "0xA4"}, "stored again");
  done({"dump", "-o", "dump.jsonl", kDefaultFile});
  done({"load", "loaded.qvd", "dump.jsonl"});
  constexpr const char* kLoaded = "2 verified, 2 without a checksum, 0 changed elsewhere, 0 rotten";
  EXPECT_EQ(statesIn("loaded.qvd"), kLoaded);
  // The patch changes one record with a checksum and adds one.
  done({"compact", "loaded.qvd", "later.qvd"});
  done({"set", "later.qvd", "notes", "0xA1"}, std::string(200, 'l'));
  done({"put", "--checksum", "later.qvd", "notes"}, "added");
  const Outcome patch = run({"diff", "--patch", "loaded.qvd", "later.qvd"});
  EXPECT_EQ(patch.status, 1);
  done({"patch", "loaded.qvd", "-"}, patch.out);
  EXPECT_EQ(statesIn("loaded.qvd"),
            "3 verified, 2 without a checksum, 0 changed elsewhere, 0 rotten");
  EXPECT_EQ(done({"get", "loaded.qvd", "notes", "0xA1"}), std::string(200, 'l'));
}

TEST_F(CarriedChecksums, AreLostByPacksWhichSaySo) {
  putTwo();
  const Outcome packed = run({"pack", kDefaultFile, "packed.qvd"});
  EXPECT_EQ(packed.status, 0);
  expectOneLine(packed.err, {"packed.qvd: 1 record lost its checksum", "'qvdb compact' keeps"});
  EXPECT_EQ(statesIn("packed.qvd"),
            "0 verified, 2 without a checksum, 0 changed elsewhere, 0 rotten");
  done({"add-table", kDefaultFile, "QVrz_Category"});
  const Outcome renumbered = run({"renumber", kDefaultFile, "renumbered.qvd"});
  EXPECT_EQ(renumbered.status, 0);
  expectOneLine(renumbered.err, {"1 record lost its checksum", "'qvdb protect' makes new ones"});
  EXPECT_EQ(done({"protect", "renumbered.qvd"}), "2 checksums made for 2 records\n");
  EXPECT_EQ(run({"pack", "packed.qvd", "again.qvd"}).err, "");
}

// ---- compared ----

// More than any command reads at once.
TEST_F(ToolChecksums, AreComparedByAllThatReadsALargePayload) {
  done({"create", kDefaultFile});
  done({"add-table", kDefaultFile, "notes"});
  done({"put", "--checksum", "--id", "0xA1", kDefaultFile, "notes"}, std::string(700'000, 'p'));
  std::filesystem::copy_file(path(), path("sound.qvd"));
  for (const size_t place : {0u, 350000u, 699999u}) {
    std::filesystem::copy_file(path("sound.qvd"), path(),
                               std::filesystem::copy_options::overwrite_existing);
    rot(static_cast<size_t>(database().tables[0].records[0].position) + 55 + place);
    expectUnchanged([&] {
      for (const Words& words : std::vector<Words>{
               {"get", kDefaultFile, "notes", "0xA1"},
               {"get", "-o", "got", kDefaultFile, "notes", "0xA1"},
               {"export", kDefaultFile, "notes", "out"},
               {"dump", "-o", "dump.jsonl", kDefaultFile},
               {"digest", kDefaultFile},
               {"diff", kDefaultFile, "sound.qvd"},
               {"diff", "--patch", "sound.qvd", kDefaultFile},
           }) {
        const Outcome outcome = run(words);
        EXPECT_EQ(outcome.status, words.front() == "diff" ? 2 : 1) << words.front();
        expectOneLine(outcome.err, {"does not agree with its checksum"});
        EXPECT_EQ(outcome.out.find(std::string(100, 'p')), std::string::npos) << words.front();
      }
    });
    for (const char* made : {"got", "dump.jsonl"}) {
      EXPECT_FALSE(std::filesystem::exists(path(made)));
    }
    EXPECT_TRUE(!std::filesystem::exists(path("out")) || std::filesystem::is_empty(path("out")));
    std::filesystem::remove_all(path("out"));
  }
}

TEST_F(ToolChecksums, AreMadeAndKeptByImports) {
  std::filesystem::create_directory(path("in"));
  writeFile(path("in/small"), pattern(300));
  writeFile(path("in/large"), pattern(700'000));
  done({"create", kDefaultFile});
  done({"import", "--checksum", kDefaultFile, "files", "in/"});
  const auto verified = [&] {
    return run({"check", "--payloads", kDefaultFile}).out.find("payloads: 2 verified") !=
           std::string::npos;
  };
  EXPECT_TRUE(verified());
  writeFile(path("in/small"), pattern(5000, 3));
  writeFile(path("in/large"), pattern(600'000, 3));
  done({"import", "-u", kDefaultFile, "files", "in/"});
  EXPECT_TRUE(verified());
  done({"export", kDefaultFile, "files", "out"});
  EXPECT_TRUE(sameBytes(contents("out/small"), pattern(5000, 3)));
  EXPECT_TRUE(sameBytes(contents("out/large"), pattern(600'000, 3)));
  // Files that were stored right after they were changed are compared, and stored again.
  for (size_t record = 0; record < 2; ++record) {
    rot(static_cast<size_t>(database().tables[0].records[record].position) + 55 + 100);
  }
  EXPECT_FALSE(verified());
  done({"import", "--replace", kDefaultFile, "files", "in/"});
  EXPECT_TRUE(verified());
}

}  // namespace
}  // namespace qvdbase::test
