// The tables of docs/threads.md: each row that allows something names tests that show it, and that
// exist.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <regex>
#include <set>
#include <sstream>
#include <string>
#include <vector>

namespace qvdbase::test {
namespace {

using Names = std::set<std::string>;

std::string textOf(const std::filesystem::path& file) {
  std::ifstream in(file);
  EXPECT_TRUE(in) << file;
  return {std::istreambuf_iterator<char>(in), {}};
}

// What is between the bars of a line of a table, from the first column on.
std::vector<std::string> columnsOf(const std::string& line) {
  std::vector<std::string> columns;
  std::istringstream rest(line.substr(line.find('|') + 1));
  for (std::string column; std::getline(rest, column, '|');) columns.push_back(column);
  return columns;
}

std::vector<std::vector<std::string>> rowsOfThePage() {
  std::vector<std::vector<std::string>> rows;
  std::istringstream page(textOf(std::filesystem::path(QVDBASE_DOCS) / "threads.md"));
  for (std::string line; std::getline(page, line);) {
    if (!line.starts_with("| ") || line.starts_with("| from")) continue;
    rows.push_back(columnsOf(line));
  }
  return rows;
}

Names testsIn(const std::string& column) {
  static const std::regex name("`([A-Za-z]+\\.[A-Za-z0-9]+)`");
  Names found;
  for (std::sregex_iterator i(column.begin(), column.end(), name), end; i != end; ++i) {
    found.insert((*i)[1]);
  }
  return found;
}

// Of all sources in a folder of tests.
Names testsOf(const std::string& folder) {
  static const std::regex test("TEST(?:_F|_P)?\\(([A-Za-z]+), *([A-Za-z0-9]+)\\)");
  const auto place = std::filesystem::path(QVDBASE_DOCS).parent_path() / "tests" / folder;
  Names found;
  for (const auto& file : std::filesystem::recursive_directory_iterator(place)) {
    if (!file.path().native().ends_with("_test.cpp")) continue;
    const std::string text = textOf(file.path());
    for (std::sregex_iterator i(text.begin(), text.end(), test), end; i != end; ++i) {
      found.insert((*i)[1].str() + "." + (*i)[2].str());
    }
  }
  return found;
}

TEST(ThreadsPage, NamesATestForEverythingThatItAllows) {
  const auto rows = rowsOfThePage();
  EXPECT_GT(rows.size(), 30u);
  for (const auto& row : rows) {
    ASSERT_EQ(row.size(), 4u) << row.at(0);
    if (!row[2].starts_with(" no: ")) {
      EXPECT_FALSE(testsIn(row[3]).empty()) << row[0] << row[1];
    }
  }
}

TEST(ThreadsPage, NamesTestsThatExist) {
  Names there = testsOf("threads");
  there.merge(testsOf("model"));
  for (const auto& row : rowsOfThePage()) {
    for (const std::string& name : testsIn(row.at(3))) EXPECT_TRUE(there.contains(name)) << name;
  }
}

}  // namespace
}  // namespace qvdbase::test
