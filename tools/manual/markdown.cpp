#include "markdown.h"

#include <algorithm>
#include <regex>
#include <sstream>
#include <vector>

#include "mdoc.h"

namespace qvdb::manual {
namespace {

using Lines = std::vector<std::string>;

Lines linesOf(const std::string& text) {
  Lines lines;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);) lines.push_back(line);
  return lines;
}

bool isRow(const std::string& line) {
  return line.starts_with('|');
}

bool isIndented(const std::string& line) {
  return line.starts_with("    ");
}

// "- text" or "1. text"; 0 for anything else.
size_t sizeOfMark(const std::string& line) {
  if (line.starts_with("- ")) return 2;
  const size_t digits = std::min(line.find_first_not_of("0123456789"), line.size());
  return digits > 0 && line.substr(digits, 2) == ". " ? digits + 2 : 0;
}

// An entry of a table of contents, which a page does without.
bool isContents(const std::string& line) {
  return line.starts_with("- [") && line.find("](#") != std::string::npos;
}

// Where bars do not separate: escaped ones, and those in code.
Lines cellsOf(const std::string& row) {
  Lines cells;
  std::string cell;
  bool isCode = false;
  for (size_t i = 1; i < row.size(); ++i) {
    if (row[i] == '`') isCode = !isCode;
    if (row[i] == '\\' && i + 1 < row.size() && row[i + 1] == '|') {
      cell += row[++i];
    } else if (row[i] == '|' && !isCode) {
      cells.push_back(cell);
      cell.clear();
    } else {
      cell += row[i];
    }
  }
  return cells;
}

class Converter {
 public:
  explicit Converter(const std::string& markdown) : lines_(linesOf(markdown)) {}

  std::string convert() {
    while (at_ < lines_.size()) convertBlock();
    endList();
    return page_;
  }

 private:
  void convertBlock() {
    const std::string& line = lines_[at_];
    if (line.empty()) return skip();
    if (line.starts_with('#')) return heading(line);
    if (line.starts_with("```")) return fenced();
    if (isRow(line)) return table();
    if (sizeOfMark(line) > 0) return item();
    if (isIndented(line)) return indented();
    paragraph();
  }

  void skip() { ++at_; }

  void heading(const std::string& line) {
    endList();
    const size_t level = line.find_first_not_of('#');
    const std::string text = inlineText(line.substr(level + 1));
    if (level == 2) page_ += ".Sh " + upper(text) + "\n";
    if (level > 2) page_ += ".Ss " + text + "\n";
    if (level == 1) page_ += ".Sh DESCRIPTION\n";
    isFresh_ = true;
    ++at_;
  }

  void beginParagraph() {
    if (!isFresh_) page_ += ".Pp\n";
    isFresh_ = false;
  }

  // Text up to an empty line, or to something that is no text.
  std::string textFrom(size_t skipped) {
    std::string text = lines_[at_++].substr(skipped);
    while (at_ < lines_.size() && !lines_[at_].empty() && !isRow(lines_[at_]) &&
           !lines_[at_].starts_with("```") && sizeOfMark(lines_[at_]) == 0) {
      const std::string& next = lines_[at_++];
      text += " " + next.substr(std::min(next.find_first_not_of(' '), next.size()));
    }
    return inlineText(text);
  }

  void paragraph() {
    endList();
    beginParagraph();
    page_ += mdocLines(textFrom(0));
  }

  void item() {
    if (isContents(lines_[at_])) {
      textFrom(0);
      return;
    }
    const bool isNumbered = lines_[at_][0] != '-';
    if (!inList_) {
      page_ += isNumbered ? ".Bl -enum\n" : ".Bl -bullet\n";
      inList_ = true;
    }
    page_ += ".It\n" + mdocLines(textFrom(sizeOfMark(lines_[at_])));
    isFresh_ = false;
  }

  void endList() {
    if (inList_) page_ += ".El\n";
    inList_ = false;
  }

  void literal(const Lines& lines) {
    page_ += ".Bd -literal -offset indent\n";
    for (const std::string& line : lines) page_ += mdocLine(mdocEscaped(line, true));
    page_ += ".Ed\n";
    isFresh_ = false;
  }

  void fenced() {
    Lines lines;
    for (++at_; at_ < lines_.size() && !lines_[at_].starts_with("```"); ++at_) {
      lines.push_back(lines_[at_]);
    }
    ++at_;
    endList();
    literal(lines);
  }

  void indented() {
    Lines lines;
    for (; at_ < lines_.size() && isIndented(lines_[at_]); ++at_) {
      lines.push_back(lines_[at_].substr(4));
    }
    if (!inList_) return literal(lines);
    // In an item, lines that are indented go on with its text.
    page_ += ".Pp\n";
    for (const std::string& line : lines) page_ += mdocLines(inlineText(line));
  }

  // Cells are texts of their own, so that long ones are wrapped.
  void table() {
    endList();
    Lines rows;
    for (; at_ < lines_.size() && isRow(lines_[at_]); ++at_) rows.push_back(lines_[at_]);
    const size_t columns = cellsOf(rows[0]).size();
    page_ += ".TS\n";
    for (size_t i = 0; i < columns; ++i) page_ += i + 1 == columns ? "lx.\n" : "l ";
    for (size_t i = 0; i < rows.size(); ++i) {
      if (i != 1) page_ += tableRow(cellsOf(rows[i]));  // 1: the line below the headings
    }
    page_ += ".TE\n";
    isFresh_ = false;
  }

  static std::string tableRow(const Lines& cells) {
    std::string row;
    for (const std::string& cell : cells) {
      const size_t start = std::min(cell.find_first_not_of(' '), cell.size());
      row += (row.empty() ? "T{\n" : "\tT{\n") + mdocLines(inlineText(cell.substr(start))) + "T}";
    }
    return row + "\n";
  }

  Lines lines_;
  size_t at_ = 0;
  std::string page_;
  bool inList_ = false;
  bool isFresh_ = true;  // after a heading, where a paragraph needs no space before it
};

}  // namespace

std::string inlineText(const std::string& markdown) {
  static const std::regex reference("\\[([^\\]]*)\\]\\([^)]*\\)");
  static const std::regex code("`([^`]*)`");
  static const std::regex strong("\\*\\*([^*]*)\\*\\*");
  static const std::regex emphasis("\\*([^* ][^*]*)\\*");
  std::string text = mdocEscaped(std::regex_replace(markdown, reference, "$1"), false);
  text = std::regex_replace(text, code, "\\fB$1\\fP");
  text = std::regex_replace(text, strong, "\\fB$1\\fP");
  return std::regex_replace(text, emphasis, "\\fI$1\\fP");
}

std::string pageOf(const PageTitle& title, const std::string& markdown) {
  return mdocStart(title.name, title.section, title.summary) + Converter(markdown).convert();
}

}  // namespace qvdb::manual
