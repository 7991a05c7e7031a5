// The command line itself: help, version, wrong usage, and standard output that cannot be written.
#include "tool/tool_fixture.h"

namespace qvdbase::test {
namespace {

using Usage = ToolTest;

const Words kCommands = {"create", "info",    "tables",  "add-table", "records", "get",    "put",
                         "set",    "rm",      "touch",   "data",      "import",  "export", "stat",
                         "check",  "salvage", "history", "undelete",  "trim"};

TEST_F(Usage, HelpListsEveryCommand) {
  const std::string help = done({"--help"});
  for (const std::string& command : kCommands) {
    EXPECT_NE(help.find("\n  " + command + " "), std::string::npos) << command;
  }
  EXPECT_EQ(done({"help"}), help);
  EXPECT_EQ(done({"-h"}), help);
}

TEST_F(Usage, EachCommandHasHelpLikeAManualPage) {
  for (const std::string& command : kCommands) {
    const std::string help = done({command, "--help"});
    EXPECT_TRUE(help.starts_with("qvdb " + command + " - ")) << help;
    for (const char* section : {"\nUSAGE\n  qvdb ", "\nDESCRIPTION\n", "\nARGUMENTS\n",
                                "\nOPTIONS\n", "\nEXAMPLES\n  ", "\nEXIT STATUS\n"}) {
      EXPECT_NE(help.find(section), std::string::npos) << section << " is missing in\n" << help;
    }
    std::istringstream lines(help);
    for (std::string text; std::getline(lines, text);) EXPECT_LE(text.size(), 80u) << text;
    EXPECT_EQ(done({"help", command}), help);
  }
}

TEST_F(Usage, VersionIsPrinted) {
  EXPECT_TRUE(line({"--version"}).starts_with("qvdb 1."));
}

TEST_F(Usage, WrongUsageIsStatus2AndPointsToTheHelp) {
  fails({}, 2, {"no command", "qvdb --help"});
  fails({"frobnicate"}, 2, {"'frobnicate'", "qvdb --help"});
  fails({"--frobnicate"}, 2, {"--frobnicate", "qvdb --help"});
  fails({"get"}, 2, {"FILE", "qvdb get --help"});
  fails({"get", "a.qvd"}, 2, {"TABLE", "qvdb get --help"});
  fails({"get", "a.qvd", "t"}, 2, {"RECORD"});
  fails({"set", "a.qvd", "t", "1", "2", "3"}, 2, {"qvdb set --help"});
  fails({"info", "--frobnicate", "a.qvd"}, 2, {"--frobnicate", "qvdb info --help"});
  fails({"rm", "a.qvd", "t"}, 2, {"RECORD"});
  fails({"records", "--limit", "many", "a.qvd", "t"}, 2, {"--limit", "'many'"});
}

TEST_F(Usage, AnOptionOfACommandComesAfterIt) {
  fails({"--wait", "5", "info", "a.qvd"}, 2, {"'--wait' comes after", "'qvdb info --wait ...'"});
  fails({"--wait=5", "info", "a.qvd"}, 2, {"'--wait' comes after", "'qvdb info --wait ...'"});
  fails({"-r", "import", "a.qvd", "t", "x"}, 2, {"'-r' comes after", "qvdb import --help"});
  fails({"--json"}, 2, {"'--json' comes after", "qvdb --help"});
  fails({"--json", "import", "a.qvd"}, 2, {"there is no option '--json'"});
  fails({"--frobnicate", "info", "a.qvd"}, 2, {"there is no option '--frobnicate'"});
}

TEST_F(Usage, WhatFollowsTwoDashesIsNoOption) {
  const Words extra = {"set", "a.qvd", "t", "1", "x", "--", "-x"};
  const std::string text = fails(extra, 2, {"too many arguments", "qvdb set --help"});
  EXPECT_EQ(text.find("no option"), std::string::npos) << text;
  fails({"set", "a.qvd", "t", "1", "-x", "--", "-y"}, 2, {"there is no option '-x'"});
}

TEST_F(Usage, AnUnknownCommandGetsASuggestion) {
  const std::vector<std::pair<std::string, std::string>> meant = {
      {"new", "create"},   {"creat", "create"},      {"cerate", "create"}, {"ls", "tables"},
      {"delete", "rm"},    {"add", "put"},           {"cat", "get"},       {"undelet", "undelete"},
      {"verify", "check"}, {"ad-table", "add-table"}};
  for (const auto& [word, command] : meant) {
    fails({word, "a.qvd"}, 2, {"'" + word + "'", "did you mean 'qvdb " + command + "'?"});
  }
  fails({"notes.qvd"}, 2, {"did you mean 'qvdb info notes.qvd'?"});
  const std::string text = fails({"frobnicate"}, 2, {"'frobnicate'"});
  EXPECT_EQ(text.find("mean"), std::string::npos) << text;
}

// What does not fit into 80 columns is broken by the terminal, in the middle of a word.
TEST_F(Usage, HelpFitsAnOrdinaryTerminal) {
  std::istringstream overview(done({"--help"}));
  for (std::string text; std::getline(overview, text);) {
    EXPECT_LE(text.size(), 80u) << text;
    if (!text.starts_with("  ") || text.size() < 14 || text[2] == ' ' || text[2] == '-') continue;
    const std::string command = text.substr(2, text.find(' ', 2) - 2);
    if (command == "qvdb" || command.size() < 2) continue;
    std::istringstream help(done({command, "--help"}));
    for (std::string line; std::getline(help, line);) EXPECT_LE(line.size(), 80u) << line;
  }
}

TEST_F(Usage, AMessageIsBrokenBetweenWordsOnATerminal) {
  ProgramCall call = callOf({"tables", "absent.qvd"});
  call.terminal = Terminal::error;
  call.terminalColumns = 40;
  const Outcome outcome = runProgram(call);
  EXPECT_EQ(outcome.status, 1) << outcome;
  std::istringstream lines(outcome.err);
  std::string all;
  int count = 0;
  for (std::string text; std::getline(lines, text); ++count) {
    if (text.ends_with('\r')) text.pop_back();
    EXPECT_LE(text.size(), 40u) << text;
    if (count > 0) {
      EXPECT_TRUE(text.starts_with("      ")) << text;
      all += text.substr(5);
    } else {
      all = text;
    }
  }
  EXPECT_GT(count, 1);
  EXPECT_EQ(all + "\n", run({"tables", "absent.qvd"}).err);
}

TEST_F(Usage, AnErrorNamesTheFileWhatIsWrongAndWhatToDo) {
  fails({"tables", "absent.qvd"}, 1, {"absent.qvd", "no such file", "qvdb create"});
  writeFile(path("text"), bytesOf("this is only text, but long enough for a header"));
  fails({"tables", "text"}, 1, {"text", "not a database"});
  fails({"tables", "."}, 1, {"not a"});
  notes({});
  fails({"records", "test.qvd", "absent"}, 1, {"test.qvd", "'absent'", "qvdb tables"});
}

TEST_F(Usage, ControlCharactersInAnErrorAreEscaped) {
  const std::string text = fails({"tables", "a\x1b[31m\nb.qvd"}, 1, {"a\\x1b[31m\\x0ab.qvd"});
  EXPECT_EQ(text.find('\x1b'), std::string::npos);
}

TEST_F(Usage, AReaderThatGoesAwayEndsTheCommandQuietly) {
  notes(std::vector<Bytes>(5000, bytesOf("x")));
  ProgramCall call = callOf({"records", "test.qvd", "notes"});
  call.closesOutput = true;
  const Outcome outcome = runProgram(call);
  EXPECT_EQ(outcome.status, 1) << outcome;
  EXPECT_EQ(outcome.err, "");
}

TEST_F(Usage, OutputThatCannotBeWrittenIsAFailure) {
  if (!std::filesystem::exists("/dev/full")) GTEST_SKIP() << "no device that is always full";
  notes({bytesOf("x")});
  ProgramCall call = callOf({"records", "test.qvd", "notes"});
  call.outputFile = "/dev/full";
  const Outcome outcome = runProgram(call);
  EXPECT_EQ(outcome.status, 1);
  expectOneLine(outcome.err, {"standard output", "write"});
}

TEST_F(Usage, ATableIsNamedByNameOrIdentifier) {
  notes({bytesOf("x")});
  const auto table = json({"tables", "--json", "test.qvd"})["tables"][0];
  const std::string id = table["id"];
  EXPECT_EQ(done({"records", "test.qvd", id}), done({"records", "test.qvd", "notes"}));
  const std::string decimal = std::to_string(std::stoull(id, nullptr, 16));
  EXPECT_EQ(done({"records", "test.qvd", decimal}), done({"records", "test.qvd", "notes"}));
  fails({"records", "test.qvd", "0x1"}, 1, {"0x1"});
}

TEST_F(Usage, ATableWhoseNameLooksLikeANumberIsFoundByItsName) {
  const int16_t db = create();
  addTable(db, "0x1");
  addRecord(db, addTable(db, "17"), bytesOf("x"));
  close(db);
  EXPECT_EQ(json({"records", "--json", "test.qvd", "17"})["count"], 1);
  EXPECT_EQ(json({"records", "--json", "test.qvd", "0x1"})["count"], 0);
}

}  // namespace
}  // namespace qvdbase::test
