// qvdb import --compress: files whose payloads are compressed come back as they were, and payloads
// that only claim to be compressed do no harm.
#include <filesystem>

#include "kit/recorded_calls.h"
#include "tool/in_process.h"
#include "tool/tool_fixture.h"
#include "tools/qvdb/streams/given_time.h"

namespace qvdbase::test {
namespace {

namespace fs = std::filesystem;

class Compressed : public ToolTest {
 protected:
  void SetUp() override {
    done({"create", "test.qvd"});
    fs::create_directory(path("in"));
    store("text", text(20'000));
  }
  void TearDown() override {
    qvdb::tool::setClock(nullptr);
    // What begins like a payload looks like a database to the checks that follow.
    for (const char* name : {"in", "out", "got"}) fs::remove_all(path(name));
    ToolTest::TearDown();
  }

  // False where the tool was built without zstd.
  bool import(const Words& options = {"--compress"}) {
    Words words = {"import"};
    words.insert(words.end(), options.begin(), options.end());
    words.insert(words.end(), {"test.qvd", "files", "in/"});
    const Outcome outcome = run(words);
    if (outcome.err.find("without zstd") != std::string::npos) return false;
    EXPECT_EQ(outcome.status, 0) << outcome;
    return true;
  }

  static Bytes text(size_t size) {
    std::string text;
    for (int64_t i = 0; text.size() < size; ++i)
      text += "line " + std::to_string(i * i) + " of text\n";
    return bytesOf(text.substr(0, size));
  }
  void store(const std::string& name, const Bytes& contents) {
    writeFile(path("in/" + name), contents);
  }

  std::string idOf(const std::string& name) {
    return json({"records", "--json", "test.qvd", "files", name})["records"][0]["id"];
  }
  Bytes payloadOf(const std::string& name) {
    const auto id = *qvdb::parse_id(idOf(name));
    const auto database = qvdb::Database::open(path(), qvdb::Mode::read_only);
    const auto table = database.table("files");
    for (const qvdb::Record& record : table.records()) {
      if (record.id() != id) continue;
      const std::vector<std::byte> payload = record.payload();
      const auto* const bytes = reinterpret_cast<const uint8_t*>(payload.data());
      return Bytes(bytes, bytes + payload.size());
    }
    return {};
  }
  Bytes key() { return database().tables[0].data->data().at(16, 16); }
  void setPayload(const std::string& name, const Bytes& payload) {
    const auto id = *qvdb::parse_id(idOf(name));
    auto database = qvdb::Database::open(path(), qvdb::Mode::exclusive);
    ASSERT_TRUE(database.table("files").modify(id, std::as_bytes(std::span(payload))));
  }

  void expectSameFiles(const std::string& file = "test.qvd") {
    fs::remove_all(path("out"));
    done({"export", file, "files", "out"});
    size_t count = 0;
    for (const auto& each : fs::directory_iterator(path("in"))) {
      ++count;
      EXPECT_TRUE(sameBytes(readFile(path("out") / each.path().filename()), readFile(each.path())))
          << each.path();
      const std::string name = each.path().filename();
      done({"get", "-f", "-o", "got", file, "files", name});
      EXPECT_TRUE(sameBytes(readFile(path("got")), readFile(each.path()))) << name;
    }
    EXPECT_EQ(std::distance(fs::directory_iterator(path("out")), {}), count);
  }
};

TEST_F(Compressed, FilesComeBackAsTheyWere) {
  store("empty", {});
  store("short", bytesOf("x"));
  store("noise", pattern(50'000));
  store("large", text(3'000'000));
  store("zeros", Bytes(5'000'000, 0));
  store("few zeros", Bytes(900'000, 0));
  if (!import()) GTEST_SKIP() << "no zstd";
  EXPECT_LT(payloadOf("text").size(), 10'000u);
  EXPECT_LT(payloadOf("large").size(), 1'000'000u);
  EXPECT_EQ(payloadOf("short"), bytesOf("x"));
  EXPECT_LE(payloadOf("noise").size(), 50'000u);
  // No more than 1,024 times as many bytes come out of a payload.
  EXPECT_GE(payloadOf("zeros").size() * 1024, 5'000'000u);
  EXPECT_LT(payloadOf("zeros").size(), 10'000u);
  EXPECT_GE(payloadOf("few zeros").size() * 1024, 900'000u);
  expectOnlyRead([&] {
    expectSameFiles();
    EXPECT_EQ(
        line({"get", "test.qvd", "files", "short", "text"}), "x" + [&] {
          std::string whole = text(20'000).str();
          if (whole.ends_with('\n')) whole.pop_back();
          return whole;
        }());
    done({"check", "test.qvd"});
  });
  const std::string dump = done({"dump", "test.qvd"});
  EXPECT_NE(dump.find(R"("key":")"), std::string::npos);
  done({"load", "again.qvd"}, dump);
  EXPECT_EQ(done({"dump", "again.qvd"}), dump);
  expectSameFiles("again.qvd");
}

TEST_F(Compressed, PayloadsHaveTheDocumentedForm) {
  if (!import()) GTEST_SKIP() << "no zstd";
  const Bytes payload = payloadOf("text");
  EXPECT_NE(key(), Bytes(16, 0));
  EXPECT_EQ(payload.cut(24), bytesOf("QVcoded").be(1, 1).add(key()));
  EXPECT_EQ(payload.at(24, 4), hex("28B5 2FFD"));
  EXPECT_EQ(payload.beAt(payload.size() - 8, 8), 20'000u);
  setPayload("text", bytesOf("QVcoded").be(1, 0).add(key()).text("as it is").be(8, 8));
  EXPECT_EQ(done({"get", "test.qvd", "files", "text"}), "as it is");
}

TEST_F(Compressed, FilesAreComparedByTheirContents) {
  fs::last_write_time(path("in/text"), fs::file_time_type::clock::now() + std::chrono::hours(1));
  if (!import()) GTEST_SKIP() << "no zstd";
  EXPECT_EQ(line({"import", "-u", "--compress", "test.qvd", "files", "in/"}),
            "imported 0 files, 0 folders and 0 symbolic links, 0 bytes; 1 file is unchanged");
  const auto time = fs::last_write_time(path("in/text"));
  store("text", Bytes(20'000, 'x'));
  fs::last_write_time(path("in/text"), time);
  EXPECT_EQ(line({"import", "-u", "--compress", "test.qvd", "files", "in/"}),
            "imported 1 file, 0 folders and 0 symbolic links, 20000 bytes; 0 files are unchanged");
  expectSameFiles();
  // Without the option what is replaced is stored as it is.
  store("text", text(30'000));
  import({"--update"});
  EXPECT_EQ(payloadOf("text"), text(30'000));
}

// They would be taken for compressed ones.
TEST_F(Compressed, FilesThatBeginAsSuchAPayloadComeBackToo) {
  if (!import()) GTEST_SKIP() << "no zstd";
  const Bytes payload = payloadOf("text");
  store("small", payload);
  Bytes large = payload.cut(24);
  store("large", large.add(pattern(1'200'000)));
  import({"--update"});
  EXPECT_EQ(payloadOf("small").size(), payload.size() + 32);
  expectSameFiles();
}

TEST_F(Compressed, PayloadsOfOtherListsAreNotRead) {
  const Bytes payload = bytesOf("QVcoded").be(1, 1).fill(16, 0).text("text").be(8, 4);
  store("text", payload);
  import({});
  EXPECT_EQ(key(), Bytes(16, 0));
  expectSameFiles();
  if (!import({"--replace", "--compress"})) return;
  EXPECT_NE(key(), Bytes(16, 0));
  store("other", bytesOf("QVcoded").be(1, 1).fill(16, 7).text("text").be(8, 4));
  import({"--update", "--compress"});
  expectSameFiles();
}

TEST_F(Compressed, PayloadsThatAreDamagedAreReportedAndNeverTrusted) {
  if (!import()) GTEST_SKIP() << "no zstd";
  const Bytes sound = payloadOf("text");
  const Bytes data = sound.at(24, sound.size() - 32);
  const Bytes head = sound.cut(24);
  const auto with = [&](const Bytes& inner, uint64_t length) {
    return Bytes(head).add(inner).be(8, length);
  };
  std::vector<Bytes> damaged = {
      with(data, 19'999),
      with(data, 20'001),
      with(data, 0x7FFFFFFF),
      with(data, UINT64_MAX),
      with({}, 1),
      with(data.cut(data.size() - 1), 20'000),
      with(data.cut(4), 3),
      with(Bytes(data).add(data), 20'000),
      with(Bytes(data).text("rest"), 20'000),
      // A window of 2 GiB.
      with(hex("28B5 2FFD 00A8 0100 00"), 100),
      bytesOf("QVcoded").be(1, 0).add(key()).text("as it is").be(8, 9),
      bytesOf("QVcoded").be(1, 2).add(key()).text("as it is").be(8, 8),
  };
  for (const size_t at : {size_t{24}, size_t{30}, 24 + data.size() / 2}) {
    damaged.push_back(sound);
    damaged.back()[at] ^= 0x55;
  }
  for (size_t i = 0; i < damaged.size(); ++i) {
    SCOPED_TRACE(i);
    setPayload("text", damaged[i]);
    fails({"get", "-o", "got", "test.qvd", "files", "text"}, 1, {"the payload of record 0x"});
    EXPECT_FALSE(fs::exists(path("got")));
    fails({"export", "test.qvd", "files", "out"}, 1, {"the payload of record 0x"});
    EXPECT_FALSE(fs::exists(path("out/text")));
    done({"dump", "-f", "-o", "dumped", "test.qvd"});
  }
  import({"--replace", "--compress"});
  expectSameFiles();
}

TEST_F(Compressed, EarlierVersionsAreReadToo) {
  const auto at = [&](int64_t time, const Words& words) {
    static int64_t now;
    now = time;
    qvdb::tool::setClock([] { return now; });
    RecordedCalls host;
    host.setTime(static_cast<std::time_t>(time));
    std::string message;
    const int status = runCommand(folder.path(), words, &message);
    EXPECT_TRUE(status == 0 || message.find("without zstd") != message.npos) << message;
    return status == 0;
  };
  if (!at(2000, {"import", "--compress", "@/test.qvd", "files", "@/in/"})) {
    GTEST_SKIP() << "no zstd";
  }
  const Bytes before = readFile(path("in/text"));
  store("text", text(90'000));
  at(3000, {"import", "-u", "--compress", "@/test.qvd", "files", "@/in/"});
  for (const Words& words : {Words{"get", "--at", "@2000", "test.qvd", "files", "text"},
                             {"get", "--at", "@2000", "test.qvd", "files", "t*"}}) {
    EXPECT_EQ(bytesOf(run(words).out), before);
  }
  const uint64_t first =
      json({"history", "--json", "test.qvd", "files", "text"})["versions"][0]["offset"];
  EXPECT_EQ(bytesOf(done({"history", "--at", std::to_string(first), "test.qvd", "files", "text"})),
            before);
  EXPECT_EQ(run({"export", "--at", "@2000", "test.qvd", "files", "out"}).status, 0);
  EXPECT_EQ(readFile(path("out/text")), before);
  fs::remove_all(path("out"));
  // What is counted are the bytes of the files, as by 'qvdb export' without a time.
  EXPECT_EQ(done({"export", "--at", "@3000", "test.qvd", "files", "out"}),
            "exported 1 file, 90000 bytes\n");
  EXPECT_EQ(readFile(path("out/text")), text(90'000));
}

}  // namespace
}  // namespace qvdbase::test
