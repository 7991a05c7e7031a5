// qvdb categories
#include "tool/tool_fixture.h"

namespace qvdbase::test {
namespace {

// By docs/format.md: identity, name (low byte first), parameter, related, two counted lists,
// counted bytes.
Bytes category(const Bytes& name, const std::vector<uint64_t>& first,
               const std::vector<uint64_t>& second, const Bytes& extra = {}) {
  const auto number = [](uint64_t value, int bytes) {
    Bytes out;
    for (int shift = 8 * (bytes - 1); shift >= 0; shift -= 8) {
      out.push_back(static_cast<uint8_t>(value >> shift));
    }
    return out;
  };
  Bytes payload = number(0xCA7, 8);
  const auto append = [&](const Bytes& bytes) {
    payload.insert(payload.end(), bytes.begin(), bytes.end());
  };
  append(name);
  append(Bytes(64 - name.size(), 0));
  append(number(5, 4));
  append(number(0x4E1, 8));
  for (const auto* list : {&first, &second}) {
    append(number(list->size(), 4));
    for (const uint64_t id : *list) append(number(id, 8));
  }
  append(number(extra.size(), 4));
  append(extra);
  return payload;
}

class ToolCategories : public ToolTest {
 protected:
  // Tables in this order, with so many records; those of QVrz_Record are 0xA1, 0xA2, ...
  struct Layout {
    std::vector<std::pair<std::string, int>> tables;
    std::vector<Bytes> categories;
  };

  void make(const Layout& layout) {
    FileImage image;
    uint64_t id = 0x100;
    for (const auto& [name, count] : layout.tables) {
      const size_t table = image.addTable(name, id++);
      for (int i = 1; i <= count; ++i) {
        const uint64_t base = name == "QVrz_Record" ? 0xA0 : id << 16;
        image.addRecord(table, base + static_cast<uint64_t>(i), bytesOf("x"));
      }
      if (name != "QVrz_Category") continue;
      uint64_t record = 0xC0;
      for (const Bytes& payload : layout.categories) image.addRecord(table, record++, payload);
    }
    writeFile(path(), image.build());
    allowDamage();
  }

  // What the command predicts, which has to be what 'qvdb renumber' then does.
  nlohmann::json prediction() {
    const Outcome outcome = run({"categories", "--json", "test.qvd"});
    const auto json = parsedJson(outcome.out);
    std::filesystem::remove(path("new.qvd"));
    const int status = run({"renumber", "test.qvd", "new.qvd"}).status;
    EXPECT_EQ(json["renumber"]["succeeds"], status == 0) << outcome;
    EXPECT_EQ(json["renumber"]["problems"].empty(), status == 0) << outcome;
    allowDamage("new.qvd");
    return json;
  }

  void expectSuccess(const Layout& layout) {
    make(layout);
    EXPECT_EQ(prediction()["renumber"]["succeeds"], true);
  }

  void expectProblem(const Layout& layout, const std::string& part) {
    make(layout);
    const auto problems = prediction()["renumber"]["problems"];
    ASSERT_FALSE(problems.empty());
    EXPECT_NE(problems[0].get<std::string>().find(part), std::string::npos) << problems[0];
  }
};

TEST_F(ToolCategories, AreDecoded) {
  make({{{"QVrz_Record", 3}, {"QVrz_Info", 0}, {"QVrz_Category", 0}, {"later", 0}},
        {category(hex("4100 e400 3dd8 00de 00d8"), {0xF1, 0xF2}, {0xA1, 0xA9}, bytesOf("more")),
         bytesOf("short")}});
  expectOnlyRead([&] {
    const auto categories = json({"categories", "--json", "test.qvd"})["categories"];
    ASSERT_EQ(categories.size(), 2u);
    const auto& one = categories[0];
    EXPECT_EQ(one["record"], "0x00000000000000c0");
    EXPECT_EQ(one["id"], "0x0000000000000ca7");
    EXPECT_EQ(one["name"], "A\u00e4\U0001F600\uFFFD");
    EXPECT_EQ(one["parameter"], 5);
    EXPECT_EQ(one["related"], "0x00000000000004e1");
    EXPECT_EQ(one["extra_bytes"], 4);
    EXPECT_EQ(one["first"], nlohmann::json({"0x00000000000000f1", "0x00000000000000f2"}));
    EXPECT_EQ(one["records"][0]["state"], "renewed");
    EXPECT_EQ(one["records"][1]["id"], "0x00000000000000a9");
    EXPECT_EQ(one["records"][1]["state"], "missing");
    EXPECT_EQ(categories[1]["decoded"], false);
    const std::string text = done({"categories", "test.qvd"});
    for (const char* part :
         {"0x0000000000000ca7  A\u00e4\U0001F600\uFFFD\n", "parameter 5", "4 further bytes",
          "    0x00000000000000a9  no such record", "holds no category",
          "'qvdb renumber' will fail:", "which QVrz_Record does not"}) {
      EXPECT_NE(text.find(part), std::string::npos) << part << " is not in " << text;
    }
  });
}

TEST_F(ToolCategories, OfHostileNamesDoNotReachTheTerminal) {
  make({{{"QVrz_Record", 1}, {"QVrz_Category", 0}}, {category(hex("1b00 5d00 2e20"), {}, {})}});
  const std::string text = done({"categories", "test.qvd"});
  EXPECT_NE(text.find("\\x1b]\\xe2\\x80\\xae"), std::string::npos) << text;
}

TEST_F(ToolCategories, SayThatRenumberingSucceeds) {
  expectSuccess({{{"QVrz_Record", 3}, {"QVrz_Category", 0}}, {category({}, {}, {0xA1, 0xA2})}});
  expectSuccess({{{"QVrz_Record", 3}, {"QVrz_Category", 0}}, {category({}, {0x1}, {})}});
  expectSuccess({{{"QVrz_Category", 0}}, {category({}, {}, {0x123})}});
  expectSuccess({{{"QVrz_Record", 0}, {"QVrz_Category", 0}}, {category({}, {}, {0x123})}});
  expectSuccess({{{"QVrz_Category", 0}, {"QVrz_Record", 2}}, {bytesOf("short")}});
}

TEST_F(ToolCategories, SayWhyRenumberingFails) {
  const Bytes listsLast = category({}, {}, {0xA1, 0xA3});
  expectProblem({{{"one", 1}}, {}}, "no table 'QVrz_Category'");
  expectProblem({{{"QVrz_Record", 3}, {"QVrz_Category", 0}}, {category({}, {}, {0xA7})}},
                "which QVrz_Record does not have");
  expectProblem({{{"QVrz_Category", 0}, {"QVrz_Record", 3}}, {listsLast}},
                "no new identifier is found");
  const Bytes whole = category({}, {}, {0xA1});
  expectProblem(
      {{{"QVrz_Record", 2}, {"QVrz_Category", 0}}, {Bytes(whole.begin(), whole.begin() + 90)}},
      "shorter than its counts");
}

// The steps in later tables count, too, and what they renew takes the places of the first pairs.
TEST_F(ToolCategories, CountTheStepsOfLaterTables) {
  const Bytes listsFirst = category({}, {}, {0xA1});
  const Bytes listsLast = category({}, {}, {0xA3});
  expectSuccess({{{"QVrz_Record", 3}, {"QVrz_Category", 0}},
                 {listsLast, listsLast}});  // one step between the categories
  expectProblem({{{"QVrz_Record", 3}, {"QVrz_Category", 0}}, {listsLast}}, "no new identifier");
  expectSuccess({{{"QVrz_Record", 3}, {"QVrz_Info", 2}, {"QVrz_Category", 0}}, {listsLast}});
  expectProblem({{{"QVrz_Record", 3}, {"QVrz_Category", 0}, {"later", 1}}, {listsFirst}},
                "no new identifier");
  expectSuccess({{{"QVrz_Record", 3}, {"QVrz_Category", 0}, {"later", 2}}, {listsLast}});
  expectProblem({{{"QVrz_Record", 3}, {"QVrz_Category", 0}, {"later", 3}}, {listsLast}},
                "no new identifier");
}

TEST_F(ToolCategories, SayThatADamagedFileCannotBeRenumbered) {
  FileImage image;
  const size_t records = image.addTable("QVrz_Record", 1);
  image.addTable("QVrz_Category", 2);
  image.addRecord(records, 0xA1, bytesOf("x"));
  const int64_t last = image.addRecord(records, 0xA2, bytesOf("x"));
  image.slot(records).recordCount = 1;  // the last one is not counted
  image.slot(records).lastRecordPos = image.slot(records).firstRecordPos;
  writeFile(path(), image.build());
  allowDamage();
  static_cast<void>(last);
  EXPECT_NE(prediction()["renumber"]["problems"][0].get<std::string>().find("qvdb check"),
            std::string::npos);
}

TEST_F(ToolCategories, OfADamagedChainFail) {
  FileImage image;
  const size_t table = image.addTable("QVrz_Category", 2);
  image.addRecord(table, 0xA1, category({}, {}, {}));
  image.record(image.addRecord(table, 0xA2, category({}, {}, {}))).blockMark = 0;
  writeFile(path(), image.build());
  allowDamage();
  const Outcome outcome = run({"categories", "test.qvd"});
  EXPECT_EQ(outcome.status, 1) << outcome;
  expectOneLine(outcome.err, {"test.qvd", "QVrz_Category"});
}

}  // namespace
}  // namespace qvdbase::test
