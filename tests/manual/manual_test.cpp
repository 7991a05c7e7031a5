// The manual pages and the completion files have every command and every option that the help has.
#include <gtest/gtest.h>

#include <regex>
#include <set>

#include "manual/completion.h"
#include "manual/man_pages.h"
#include "manual/option.h"
#include "qvdb/command_line.h"
#include "qvdb/commands.h"

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
      EXPECT_TRUE(contains(part, ")" + name + "[")) << part << name;
    }
  }
}

TEST(Completion, OfFishHasEveryOptionOfEveryCommand) {
  const std::string script = fishCompletion();
  for (const tool::Command* command : tool::allCommands()) {
    std::string part;
    std::istringstream lines(script);
    for (std::string line; std::getline(lines, line);) {
      if (contains(line, std::string("from ") + command->name + "'")) part += line + "\n";
    }
    for (const std::string& name : namesIn(tool::helpOf(*command).text())) {
      const std::string option =
          name.starts_with("--") ? " -l " + name.substr(2) : " -s " + name.substr(1);
      EXPECT_TRUE(contains(part, option + " ")) << part << name;
    }
  }
}

TEST(Completion, DescribesAnOptionByItsFirstSentence) {
  EXPECT_EQ(firstSentence("Do it. Faster."), "Do it");
  EXPECT_EQ(firstSentence("Do it."), "Do it");
  EXPECT_EQ(firstSentence("e.g this"), "e.g this");
}

}  // namespace
}  // namespace qvdb::manual
