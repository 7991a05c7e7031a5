// Salvaging bytes in memory, and looking at what the survey of them found.
#pragma once

#include <gtest/gtest.h>
#include <qvdbase/qvdb/salvage.hpp>

#include <map>
#include <set>
#include <vector>

#include "kit/bytes.h"
#include "kit/file_checker.h"
#include "kit/file_reader.h"
#include "kit/temp_folder.h"
#include "recovery/salvage/plan.h"
#include "recovery/survey/survey.h"

namespace qvdbase::test {

inline std::span<const std::byte> asBytes(const Bytes& bytes) {
  return std::as_bytes(std::span(bytes.data(), bytes.size()));
}

inline survey::Survey surveyOf(const Bytes& bytes, const survey::SurveyOptions& options = {}) {
  const survey::MemorySource source(asBytes(bytes));
  return survey::makeSurvey(source, options);
}

struct Salvaged {
  qvdb::SalvageReport report;
  std::vector<qvdb::FoundBlock> found;
  ReadDatabase database;  // the new file
};

// Salvages the bytes and expects a sound file.
inline Salvaged salvaged(const Bytes& bytes, const qvdb::SalvageOptions& options = {}) {
  TempFolder folder;
  Salvaged result;
  result.report = qvdb::salvage_image(
      asBytes(bytes), folder / "saved.qvd",
      [&](const qvdb::FoundBlock& block) { result.found.push_back(block); }, options);
  EXPECT_TRUE(result.report.verified);
  const std::vector<Finding> findings = checkFile(folder / "saved.qvd");
  EXPECT_TRUE(findings.empty()) << describe(findings);
  result.database = readDatabase(folder / "saved.qvd");
  return result;
}

// What a table holds: identifiers and payloads, in order.
using Contents = std::vector<std::pair<uint64_t, Bytes>>;

inline Contents contentsOf(const ReadTable& table) {
  Contents contents;
  for (const ReadRecord& record : table.records) {
    contents.emplace_back(record.id, record.fields.data());
  }
  return contents;
}

inline const ReadTable* tableNamed(const ReadDatabase& database, const std::string& name) {
  for (const ReadTable& table : database.tables) {
    if (table.name == name) return &table;
  }
  return nullptr;
}

// The records that a salvage would take, with their payloads, without writing the new file.
inline std::map<std::pair<uint64_t, uint64_t>, Bytes> takenRecords(
    const Bytes& bytes, const qvdb::SalvageOptions& options = {}) {
  const survey::Survey survey = surveyOf(bytes);
  const salvage::Plan plan = salvage::makePlan(survey, options);
  std::map<std::pair<uint64_t, uint64_t>, Bytes> records;
  for (const salvage::PlannedTable& table : plan.tables) {
    for (const uint32_t number : table.records) {
      const survey::Block& block = survey.blocks[number];
      records[{survey.owners[block.owner].number, block.recordID}] =
          bytes.at(static_cast<size_t>(block.dataPos()), static_cast<size_t>(block.dataThere()));
    }
  }
  return records;
}

// The records of the whole database, by table and record identifier.
inline std::map<std::pair<uint64_t, uint64_t>, Bytes> recordsOf(const ReadDatabase& database) {
  std::map<std::pair<uint64_t, uint64_t>, Bytes> records;
  for (const ReadTable& table : database.tables) {
    for (const ReadRecord& record : table.records) {
      records[{table.id, record.id}] = record.fields.data();
    }
  }
  return records;
}

}  // namespace qvdbase::test
