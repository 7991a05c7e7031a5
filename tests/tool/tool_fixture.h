// The fixture for tests of the command-line tool: runs it in the test's folder. Every database file
// in the folder is checked when the test ends (database_fixture.h).
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <sstream>
#include <string>
#include <vector>

#include "kit/database_fixture.h"
#include "kit/process.h"
#include "tool/parsed_json.h"

namespace qvdbase::test {

using Words = std::vector<std::string>;

class ToolTest : public DatabaseTest {
 protected:
  Outcome run(const Words& words, const std::string& input = {}) {
    return runProgram(callOf(words, input));
  }

  ProgramCall callOf(const Words& words, const std::string& input = {}) {
    ProgramCall call;
    call.program = QVDB_TOOL;
    call.arguments = words;
    call.input = input;
    call.folder = folder.path();
    return call;
  }

  // Runs the tool, expects status 0 and nothing on standard error, and returns what it printed.
  std::string done(const Words& words, const std::string& input = {}) {
    const Outcome outcome = run(words, input);
    EXPECT_EQ(outcome.status, 0) << outcome;
    EXPECT_EQ(outcome.err, "");
    return outcome.out;
  }

  // The same without the line end.
  std::string line(const Words& words, const std::string& input = {}) {
    std::string out = done(words, input);
    if (out.ends_with('\n')) out.pop_back();
    return out;
  }

  nlohmann::json json(const Words& words) { return parsedJson(done(words)); }

  // Runs the tool, expects it to fail with one line on standard error that holds each of these, and
  // nothing on standard output. Returns the line.
  std::string fails(const Words& words, int status, const std::vector<std::string>& parts,
                    const std::string& input = {}) {
    const Outcome outcome = run(words, input);
    EXPECT_EQ(outcome.status, status) << outcome;
    EXPECT_EQ(outcome.out, "");
    expectOneLine(outcome.err, parts);
    return outcome.err;
  }

  static void expectOneLine(const std::string& text, const std::vector<std::string>& parts) {
    EXPECT_TRUE(text.starts_with("qvdb: ")) << text;
    EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 1) << text;
    EXPECT_TRUE(text.ends_with('\n')) << text;
    for (const std::string& part : parts) {
      EXPECT_NE(text.find(part), std::string::npos) << "'" << part << "' is not in: " << text;
    }
  }

  // A database with a table "notes" that holds these payloads; returns the identifiers as text.
  Words notes(const std::vector<Bytes>& payloads, const std::string& name = kDefaultFile) {
    const int16_t db = create(name);
    const uint64_t table = addTable(db, "notes");
    Words ids;
    for (const Bytes& payload : payloads) {
      std::ostringstream id;
      id << "0x" << std::hex;
      id.width(16);
      id.fill('0');
      id << addRecord(db, table, payload);
      ids.push_back(id.str());
    }
    close(db);
    return ids;
  }

  // Runs the operation and expects the database to be byte for byte, and by its time of last
  // modification, what it was.
  template <typename Operation>
  void expectOnlyRead(Operation&& operation) {
    const auto before = std::filesystem::last_write_time(path());
    expectUnchanged(operation);
    EXPECT_EQ(std::filesystem::last_write_time(path()), before);
  }
};

}  // namespace qvdbase::test
