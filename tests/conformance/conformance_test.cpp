// Every conformance file, read in four ways and compared with its description: by the C functions,
// by the C++ layer, by the tool, and by the tests' own reader, which uses nothing of the library.
// (A fifth way is that of the grammar, in grammar_test.sh.)
#include <gtest/gtest.h>
#include <qvdbase/qvdbase.h>
#include <qvdbase/qvrzdb_sub.h>
#include <qvdbase/qvdb.hpp>

#include <algorithm>
#include <set>

#include "conformance/conformance_file.h"
#include "kit/file_fields.h"
#include "kit/file_reader.h"
#include "kit/process.h"
#include "kit/wide.h"
#include "recovery/survey/byte_source.h"
#include "recovery/survey/survey.h"

namespace qvdbase::test {
namespace {

constexpr const char* kNames[] = {"empty",  "notes",      "changes",     "full",    "categories",
                                  "packed", "unfinished", "interrupted", "damaged", "scanned"};

class Conformance : public testing::TestWithParam<const char*> {
 protected:
  Conformance() : file(GetParam()) {}

  // The slot of the table, decoded by the tests.
  SlotFields slotOf(const ExpectedTable& table) const {
    return decodeSlot(file.bytes(), static_cast<size_t>(&table - file.tables().data()));
  }

  bool slotLeadsToData(const ExpectedTable& table) const {
    return slotOf(table).firstDataPos == table.dataPosition;
  }

  std::string bytesAt(int64_t position, size_t count) const {
    return file.bytes().at(static_cast<size_t>(position), count).str();
  }

  ConformanceFile file;
};

// ---- the C functions

class CFunctions : public Conformance {
 protected:
  CFunctions() {
    const WideText path(file.path().u16string());
    db = OpenDBaseW(path, 1);
  }
  ~CFunctions() override { CloseDBase(db); }

  void expectRecords(const ExpectedTable& table) {
    const std::vector<uint64_t> ids = table.ids();
    uint32_t counted = 0;
    ASSERT_EQ(GetNumberOfRecords(db, table.id, &counted), 1);
    EXPECT_EQ(counted, slotOf(table).recordCount);
    // A loop is listed again and again up to the count; a listing that fails may write one more.
    std::vector<uint64_t> list(table.loops ? counted : ids.size() + 1);
    uint32_t count = 0;
    EXPECT_EQ(GetRecordUuIDList(db, table.id, list.data(), &count),
              table.complete || table.loops ? 1 : 0);
    list.resize(table.loops ? ids.size() : count);
    EXPECT_EQ(list, ids);
  }

  void expectPayloads(const ExpectedTable& table) {
    for (size_t i = 0; i < table.records.size(); ++i) {
      const ExpectedRecord& record = table.records[i];
      oneRecordInfoP1 info = {};
      // The last record of a chain that ends early is not found.
      const bool isEarlyEnd = !table.complete && !table.loops && i + 1 == table.records.size() &&
                              decodeRecord(file.bytes(), record.position).nextRecordPos == 0;
      ASSERT_EQ(GetOneRecordInfo(db, table.id, record.id, &info, nullptr), isEarlyEnd ? 0 : 1);
      if (isEarlyEnd) continue;
      EXPECT_EQ(info.recordPos, record.position);
      EXPECT_EQ(info.createTime, record.createTime);
      EXPECT_EQ(info.modifyTime, record.modifyTime);
      EXPECT_EQ(info.dataCapacity, record.capacity);
      if (!record.payload) {
        EXPECT_GT(info.dataLength, info.dataCapacity);
        continue;
      }
      ASSERT_EQ(info.dataLength, record.payload->size());
      EXPECT_EQ(bytesAt(info.dataPos, info.dataLength), *record.payload);
    }
  }

  void expectData(const ExpectedTable& table) {
    uint32_t size = 0;
    const bool isThere = table.data && slotLeadsToData(table);
    ASSERT_EQ(GetTableDataSize(db, table.id, &size), isThere ? 1 : 0);
    if (!isThere) return;
    ASSERT_EQ(size, table.data->size());
    std::string data(size, '\0');
    EXPECT_EQ(GetTableData(db, table.id, data.data()), size == 0 ? 0 : 1);
    EXPECT_EQ(data, *table.data);
  }

  int16_t db = 0;
};

TEST_P(CFunctions, FindTheTables) {
  int index = 0;
  std::set<std::string> seen;
  for (const ExpectedTable& table : file.tables()) {
    char name[33] = {};
    EXPECT_EQ(GetTableNameAndIDByIndex(db, index++, name), table.id);
    EXPECT_EQ(name, table.name);
    if (!seen.insert(table.name).second) continue;  // the first of equal names is found
    EXPECT_EQ(FindTableByName(db, name), table.id);
  }
  char name[33] = {};
  EXPECT_EQ(GetTableNameAndIDByIndex(db, index, name), 0u);
}

TEST_P(CFunctions, ReadTheRecords) {
  for (const ExpectedTable& table : file.tables()) {
    SCOPED_TRACE(table.name);
    expectRecords(table);
    expectPayloads(table);
  }
}

TEST_P(CFunctions, ReadTheTableData) {
  for (const ExpectedTable& table : file.tables()) {
    SCOPED_TRACE(table.name);
    expectData(table);
  }
}

TEST_P(CFunctions, DecodeTheCategories) {
  if (!file.json().contains("categories")) return;
  const ExpectedTable& table = file.tables().front();
  ASSERT_EQ(table.name, "QVrz_Category");
  const auto& categories = file.json()["categories"];
  ASSERT_EQ(categories.size(), table.records.size());
  const auto idsIn = [](const uint64_t* list, int32_t count) {
    return std::vector<uint64_t>(list, list + count);
  };
  const auto idsOf = [](const nlohmann::json& list) {
    std::vector<uint64_t> ids;
    for (const auto& id : list) ids.push_back(numberIn(id));
    return ids;
  };
  for (size_t i = 0; i < categories.size(); ++i) {
    oneRecordInfoP1 info = {};
    ASSERT_EQ(GetOneRecordInfo(db, table.id, table.records[i].id, &info, nullptr), 1);
    qvrzOneCategoryRecord record = {};
    record.extraData = static_cast<unsigned char*>(std::calloc(1, info.dataLength));
    qvrzOneCategoryRecord* decoded = &record;
    ASSERT_EQ(InternalReadOneRecord2CategoryStruct(db, &info, &decoded), 1);
    const auto& expected = categories[i];
    EXPECT_EQ(record.categoryID, numberIn(expected["id"]));
    std::u16string name(std::begin(record.categoryName), std::end(record.categoryName));
    name.resize(std::min(name.find(u'\0'), name.size()));
    EXPECT_EQ(std::filesystem::path(name).string(), expected["name"].get<std::string>());
    EXPECT_EQ(record.categoryParam, expected["param"].get<uint32_t>());
    EXPECT_EQ(record.relatedID, numberIn(expected["related"]));
    EXPECT_EQ(idsIn(record.firstIDs, record.firstIDCount), idsOf(expected["first"]));
    EXPECT_EQ(idsIn(record.secondIDs, record.secondIDCount), idsOf(expected["second"]));
    EXPECT_EQ(std::string(reinterpret_cast<const char*>(record.extraData), record.extraLength),
              bytesIn(expected["extra"]));
    std::free(record.firstIDs);
    std::free(record.secondIDs);
    std::free(record.extraData);
  }
}

// ---- the C++ layer

using CppLayer = Conformance;

TEST_P(CppLayer, ReadsTheHeader) {
  const qvdb::DatabaseInfo info = qvdb::Database::inspect(file.path());
  EXPECT_EQ(std::string(info.signature.data(), 4), bytesIn(file.json()["signature"]));
  EXPECT_EQ(info.version, file.json()["version"].get<int>());
  EXPECT_EQ(info.id.value, numberIn(file.json()["id"]));
  EXPECT_EQ(info.file_size, file.json()["size"].get<uint64_t>());
}

TEST_P(CppLayer, WalksTheRecords) {
  const auto database = qvdb::Database::open(file.path());
  for (const ExpectedTable& expected : file.tables()) {
    SCOPED_TRACE(expected.name);
    const auto table = database.find_table(qvdb::Id{expected.id});
    ASSERT_TRUE(table.has_value());
    std::vector<uint64_t> ids;
    std::optional<qvdb::Reason> failure;
    try {
      for (const qvdb::Record& record : table->records()) {
        const size_t index = ids.size();
        ids.push_back(record.id().value);
        if (index >= expected.records.size() || !expected.records[index].payload) continue;
        std::string payload;
        for (const std::byte each : record.payload()) payload += static_cast<char>(each);
        EXPECT_EQ(payload, *expected.records[index].payload);
      }
    } catch (const qvdb::Error& error) {
      failure = error.reason();
    }
    EXPECT_EQ(failure == qvdb::Reason::chain_damaged, !expected.complete);
    if (expected.loops) ids.resize(expected.records.size());
    EXPECT_EQ(ids, expected.ids());
  }
}

TEST_P(CppLayer, ChecksTheFile) {
  std::set<std::string> codes;
  qvdb::CheckOptions options;
  options.categories = true;
  const qvdb::CheckReport report = qvdb::check(
      file.path(),
      [&](const qvdb::Finding& finding) {
        if (finding.severity != qvdb::Severity::information) codes.insert(finding.code);
      },
      options);
  const std::set<std::string> expected = file.json()["check"];
  EXPECT_EQ(codes, expected);
  EXPECT_EQ(report.state == qvdb::CheckState::sound, expected.empty());
}

std::string classOf(const survey::Survey& survey, const survey::Block& block) {
  if (survey.owners[block.owner].slot == survey::kNoSlot) return "orphan";
  switch (block.label) {
    case survey::Label::superseded:
      return "older version";
    case survey::Label::unfinishedRelocation:
      return "newer version";
    case survey::Label::deleted:
      return "deleted";
    case survey::Label::unlinked:
      return "never counted";
    case survey::Label::deletedOrUnlinked:
      return "undecided";
    default:
      return "lost";
  }
}

TEST_P(CppLayer, NamesWhatNothingLeadsTo) {
  const std::string_view text(reinterpret_cast<const char*>(file.bytes().data()),
                              file.bytes().size());
  const survey::MemorySource source(std::as_bytes(std::span(text)));
  const survey::Survey survey = survey::makeSurvey(source);
  nlohmann::json found = nlohmann::json::array();
  for (const uint32_t number : survey::blocksInFileOrder(survey)) {
    const survey::Block& block = survey.blocks[number];
    if (block.isReached() || block.grade != survey::Grade::a) continue;
    found.push_back({{"position", block.position},
                     {"kind", block.kind == survey::BlockKind::record ? "record" : "table data"},
                     {"class", classOf(survey, block)}});
  }
  EXPECT_EQ(found, file.json()["unreached"]);
}

// ---- the tool

class Tool : public Conformance {
 protected:
  Outcome run(std::vector<std::string> words) {
    ProgramCall call;
    call.program = QVDB_TOOL;
    call.arguments = std::move(words);
    return runProgram(call);
  }
};

TEST_P(Tool, ChecksTheFile) {
  const Outcome outcome = run({"check", "--json", file.path().string()});
  const auto report = nlohmann::json::parse(outcome.out);
  std::set<std::string> codes;
  for (const auto& finding : report["findings"]) {
    if (finding["severity"] != "information") codes.insert(finding["code"]);
  }
  const std::set<std::string> expected = file.json()["check"];
  EXPECT_EQ(codes, expected);
  EXPECT_EQ(outcome.status, report["errors"] == 0 ? 0 : 1) << outcome;
}

TEST_P(Tool, ListsTheRecords) {
  for (const ExpectedTable& table : file.tables()) {
    SCOPED_TRACE(table.name);
    // Names can be equal; an identifier is looked for in the whole directory.
    const bool isWhole = std::string(GetParam()) != "damaged";
    const std::string name = isWhole ? qvdb::to_string(qvdb::Id{table.id}) : table.name;
    const Outcome outcome = run({"records", "--json", file.path().string(), name});
    EXPECT_EQ(outcome.status, table.complete ? 0 : 1) << outcome;
    const auto listing = nlohmann::json::parse(outcome.out);
    std::vector<uint64_t> ids;
    for (const auto& record : listing["records"]) ids.push_back(numberIn(record["id"]));
    if (table.loops) ids.resize(table.records.size());
    EXPECT_EQ(ids, table.ids());
  }
}

// ---- the tests' own reader

using OwnReader = Conformance;

TEST_P(OwnReader, ReadsTheFile) {
  if (std::string(GetParam()) == "interrupted" || !file.isComplete()) {
    EXPECT_THROW(readDatabase(file.bytes()), std::exception);  // it wants sound chains
    return;
  }
  Bytes bytes = file.bytes();
  for (const ExpectedTable& table : file.tables()) {  // it believes the slot
    if (table.data && !slotLeadsToData(table)) {
      const auto index = static_cast<size_t>(&table - file.tables().data());
      bytes.putLe(slotOffset(index) + 112, 8, static_cast<uint64_t>(table.dataPosition));
    }
  }
  const ReadDatabase database = readDatabase(bytes);
  EXPECT_EQ(database.fileSize, file.json()["size"].get<size_t>());
  EXPECT_EQ(database.header.version, file.json()["version"].get<int>());
  ASSERT_EQ(database.tables.size(), file.tables().size());
  for (size_t i = 0; i < database.tables.size(); ++i) {
    const ReadTable& found = database.tables[i];
    const ExpectedTable& expected = file.tables()[i];
    SCOPED_TRACE(expected.name);
    EXPECT_EQ(found.id, expected.id);
    EXPECT_EQ(found.name, expected.name);
    EXPECT_EQ(found.data ? std::optional(found.data->data().str()) : std::nullopt, expected.data);
    ASSERT_EQ(found.records.size(), expected.records.size());
    for (size_t k = 0; k < found.records.size(); ++k) {
      const ReadRecord& record = found.records[k];
      EXPECT_EQ(record.id, expected.records[k].id);
      EXPECT_EQ(record.position, expected.records[k].position);
      EXPECT_EQ(record.fields.createTime, expected.records[k].createTime);
      EXPECT_EQ(record.fields.modifyTime, expected.records[k].modifyTime);
      EXPECT_EQ(record.fields.dataCapacity, expected.records[k].capacity);
      EXPECT_EQ(record.fields.data().str(), expected.records[k].payload);
    }
  }
}

// ---- all of them

TEST(ConformanceFiles, AreTheseTen) {
  std::set<std::string> found;
  for (const auto& entry : std::filesystem::directory_iterator(QVDBASE_CONFORMANCE)) {
    if (entry.path().extension() == ".qvd") found.insert(entry.path().stem());
  }
  EXPECT_EQ(found, std::set<std::string>(std::begin(kNames), std::end(kNames)));
}

std::string nameOf(const testing::TestParamInfo<const char*>& info) {
  return info.param;
}

INSTANTIATE_TEST_SUITE_P(Files, CppLayer, testing::ValuesIn(kNames), nameOf);
INSTANTIATE_TEST_SUITE_P(Files, CFunctions, testing::ValuesIn(kNames), nameOf);
INSTANTIATE_TEST_SUITE_P(Files, Tool, testing::ValuesIn(kNames), nameOf);
INSTANTIATE_TEST_SUITE_P(Files, OwnReader, testing::ValuesIn(kNames), nameOf);

}  // namespace
}  // namespace qvdbase::test
