// The manual pages and the completion files have every command and every option that the help has.
#include <gtest/gtest.h>

#include <regex>
#include <set>

#include "manual/completion.h"
#include "manual/header_page.h"
#include "manual/man_pages.h"
#include "manual/markdown.h"
#include "manual/mdoc.h"
#include "manual/option.h"
#include "qvdb/command_line/command_line.h"
#include "qvdb/command_line/commands.h"

namespace qvdb::manual {
namespace {

bool contains(const std::string& text, const std::string& part) {
  return text.find(part) != std::string::npos;
}

// The names of the options that the text of a help lists: lines as "  -r, --replace".
std::set<std::string> namesIn(const std::string& help) {
  std::set<std::string> names;
  const std::regex line("\n  (-[^ ,]+)(, (--[a-z-]+))?( [A-Z]+)?(?=\n)");
  for (std::sregex_iterator i(help.begin(), help.end(), line), end; i != end; ++i) {
    names.insert((*i)[1]);
    if ((*i)[3].matched) names.insert((*i)[3]);
  }
  return names;
}

// "--no-sync" as the pages have it: ".It Fl \-no\-sync".
std::string inMdoc(const std::string& name) {
  return "Fl " + std::regex_replace(name.substr(1), std::regex("-"), "\\-");
}

std::string partOf(const std::string& text, const std::string& from, const std::string& to) {
  const size_t start = text.find(from);
  if (start == std::string::npos) return "";
  return text.substr(start, text.find(to, start) - start);
}

TEST(Manual, HasEveryOptionOfEveryCommand) {
  for (const tool::Command* command : tool::allCommands()) {
    const tool::CommandHelp help = tool::helpOf(*command);
    const std::set<std::string> names = namesIn(help.text());
    EXPECT_GE(names.size(), 3u) << command->name;  // --wait, -h, --help
    const std::string page = commandPage(help);
    for (const std::string& name : names) {
      EXPECT_TRUE(contains(page, inMdoc(name))) << command->name << " " << name;
    }
  }
}

TEST(Manual, HasAPageForEveryCommandThatIsNamedInTheFirst) {
  const std::string page = toolPage();
  for (const tool::Command* command : tool::allCommands()) {
    EXPECT_TRUE(contains(page, std::string(".It Xr qvdb-") + command->name + " 1\n"));
    const std::string own = commandPage(tool::helpOf(*command));
    EXPECT_TRUE(contains(own, std::string(".Nm qvdb-") + command->name + "\n.Nd ")) << own;
  }
}

TEST(Manual, ShowsWhichArgumentsMayBeLeftOutOrRepeated) {
  const std::string page = commandPage(tool::helpOf(tool::kImportCommand));
  EXPECT_TRUE(contains(page, ".Ar FILE\n.Ar TABLE\n.Ar PATH ...\n")) << page;
  EXPECT_TRUE(contains(page, ".It Fl r , Fl \\-replace\n"));
  EXPECT_TRUE(contains(page, ".It Fl \\-wait Ar SECONDS\n"));
}

TEST(Manual, HasTheExitStatusesOfACommandOfItsOwn) {
  const std::string page = commandPage(tool::helpOf(tool::kCheckCommand));
  EXPECT_TRUE(contains(page, ".It 4\nthe file is in use")) << page;
  const std::string ofTrim = commandPage(tool::helpOf(tool::kTrimCommand));
  EXPECT_TRUE(contains(ofTrim, ".It 0\ndone, or nothing to give back")) << ofTrim;
  EXPECT_TRUE(contains(ofTrim, ".It 3\nanother process has the database open")) << ofTrim;
}

TEST(Manual, BeginsEachSentenceOnALineAndHidesRequests) {
  EXPECT_EQ(mdocText("One. Two\nthree."), "One.\nTwo three.\n");
  EXPECT_EQ(mdocText("'.' and .x \\ y"), "\\&'.' and .x \\e y\n");
  EXPECT_EQ(mdocText(".x"), "\\&.x\n");
  EXPECT_EQ(mdocText("'import ... photos' does"), "\\&'import ... photos' does\n");
}

TEST(Manual, KeepsLinesShort) {
  std::string words;
  for (int i = 0; i < 100; ++i) words += "word ";
  std::istringstream lines(mdocText(words));
  for (std::string each; std::getline(lines, each);) EXPECT_LE(each.size(), 78u);
}

TEST(Manual, HasEveryPublicFunction) {
  const std::string page = headerPage(
      "/* What it is.\n *\n * More. */\n\n"
      "/* Adds one.\n *\n * number  what to add\n *          it to\n *\n * Returns it. */\n"
      "QVDBASE_API int AddOne(int number,\n                       int more);\n"
      "/* Takes one. */\nQVDBASE_API int TakeOne(void);\n");
  EXPECT_TRUE(contains(page, ".Sh DESCRIPTION\nWhat it is.\n.Pp\nMore.\n")) << page;
  EXPECT_TRUE(contains(page, ".Ss AddOne\n.Bd -literal\nint AddOne(int number,\n    int more);\n"))
      << page;
  EXPECT_TRUE(
      contains(page, "Adds one.\n.Bl -tag -width Ds\n.It Fa number\nwhat to add it to\n.El\n"))
      << page;
  EXPECT_TRUE(contains(page, ".Ss TakeOne\n.Bd -literal\nint TakeOne(void);\n")) << page;
}

std::string converted(const std::string& markdown) {
  const std::string page = pageOf({"x", "7", "y"}, markdown);
  return page.substr(page.find(".Nd y\n") + 6);
}

TEST(Markdown, BecomesSectionsAndParagraphs) {
  EXPECT_EQ(converted("# Title\n\nOne\ntwo.\n\nThree.\n\n## A part\n\nFour.\n\n### Of it\n"),
            ".Sh DESCRIPTION\nOne two.\n.Pp\nThree.\n.Sh A PART\nFour.\n.Ss Of it\n");
}

TEST(Markdown, BecomesListsWithoutTheTableOfContents) {
  EXPECT_EQ(converted("- [A](#a)\n- [B](#b)\n\n- one\n  more\n- two\n\n1. three\n"),
            ".Bl -bullet\n.It\none more\n.It\ntwo\n.It\nthree\n.El\n");
}

TEST(Markdown, BecomesTablesWhoseCellsAreWrapped) {
  EXPECT_EQ(converted("| a | b |\n|---|---|\n| `x|y` | z |\n"),
            ".TS\nl lx.\nT{\na\nT}\tT{\nb\nT}\nT{\n\\fBx|y\\fP\nT}\tT{\nz\nT}\n.TE\n");
}

TEST(Markdown, KeepsCodeAsItIs) {
  EXPECT_EQ(converted("    a-b \\n\n"), ".Bd -literal -offset indent\na\\-b \\en\n.Ed\n");
  EXPECT_EQ(converted("```\n.x\n```\n"), ".Bd -literal -offset indent\n\\&.x\n.Ed\n");
}

TEST(Markdown, ShowsReferencesWithoutTheirTargets) {
  EXPECT_EQ(inlineText("see [the *format*](format.md#x), **not** `a_b`"),
            "see the \\fIformat\\fP, \\fBnot\\fP \\fBa_b\\fP");
}

TEST(Completion, OfBashHasEveryOptionOfEveryCommand) {
  const std::string script = bashCompletion();
  for (const tool::Command* command : tool::allCommands()) {
    const std::string part =
        partOf(script, std::string("\n    ") + command->name + ") options='", " ;;") + " ";
    for (const std::string& name : namesIn(tool::helpOf(*command).text())) {
      EXPECT_TRUE(std::regex_search(part, std::regex("[ ']" + name + "[ ']"))) << part << name;
    }
  }
}

TEST(Completion, OfZshHasEveryOptionOfEveryCommand) {
  const std::string script = zshCompletion();
  for (const tool::Command* command : tool::allCommands()) {
    const std::string part = partOf(script, std::string("\n    ") + command->name + ")\n", " ;;");
    for (const std::string& name : namesIn(tool::helpOf(*command).text())) {
      // One that may be given once excludes itself.
      EXPECT_TRUE(contains(part, ")" + name + "[") || contains(part, "'*" + name + "["))
          << part << name;
    }
  }
}

TEST(Completion, OfFishHasEveryOptionOfEveryCommand) {
  const std::string script = fishCompletion();
  for (const tool::Command* command : tool::allCommands()) {
    std::string part;
    std::istringstream lines(script);
    for (std::string line; std::getline(lines, line);) {
      if (contains(line, std::string("runs ") + command->name + "'")) part += line + "\n";
    }
    for (const std::string& name : namesIn(tool::helpOf(*command).text())) {
      const std::string option =
          name.starts_with("--") ? " -l " + name.substr(2) : " -s " + name.substr(1);
      EXPECT_TRUE(contains(part, option + " ")) << part << name;
    }
  }
}

TEST(Completion, OffersAnOptionAgainThatMayBeGivenManyTimes) {
  const std::string script = zshCompletion();
  const std::string part = partOf(script, "\n    import)\n", " ;;");
  EXPECT_TRUE(contains(part, "'*--exclude[")) << part;
  EXPECT_TRUE(contains(part, "'(-r --replace)-r[")) << part;
}

TEST(Completion, OffersFilesOnlyForPaths) {
  const std::string ofZsh = partOf(zshCompletion(), "\n    dump)\n", " ;;");
  EXPECT_TRUE(contains(ofZsh, ":PATH:_files'")) << ofZsh;
  EXPECT_TRUE(contains(ofZsh, ":TIME: '")) << ofZsh;
  const std::string ofFish = fishCompletion();
  EXPECT_TRUE(contains(ofFish, "'__qvdb_runs dump' -s o -l output -r -F -d ")) << ofFish;
  EXPECT_TRUE(contains(ofFish, "'__qvdb_runs dump' -l since -x -d ")) << ofFish;
}

TEST(Completion, DescribesAnOptionByItsFirstSentence) {
  EXPECT_EQ(firstSentence("Do it. Faster."), "Do it");
  EXPECT_EQ(firstSentence("Do it."), "Do it");
  EXPECT_EQ(firstSentence("e.g this"), "e.g this");
}

}  // namespace
}  // namespace qvdb::manual
