#include "header_page.h"

#include <algorithm>
#include <regex>
#include <sstream>
#include <vector>

#include "mdoc.h"

namespace qvdb::manual {
namespace {

using Lines = std::vector<std::string>;

// The lines of a comment without the stars.
Lines linesOf(const std::string& comment) {
  Lines lines;
  std::istringstream in(comment);
  for (std::string line; std::getline(in, line);) {
    const size_t text = line.find_first_not_of(" /*");
    const size_t star = line.find('*');
    if (text == std::string::npos) {
      lines.emplace_back();
    } else {
      lines.push_back(line.substr(star == std::string::npos ? text : std::min(text, star + 2)));
    }
  }
  return lines;
}

bool isEmptyOrLine(const std::string& line) {
  return line.find_first_not_of(" =-") == std::string::npos;
}

// "name  what it is" begins the description of a parameter; deeper lines go on with it.
const std::regex kParameter("^([A-Za-z_0-9]+)  +(.*)$");

class Comment {
 public:
  explicit Comment(const Lines& lines) : lines_(lines) {}

  std::string convert() {
    for (const std::string& line : lines_) add(line);
    endParagraph();
    endList();
    return page_;
  }

 private:
  void add(const std::string& line) {
    std::smatch parameter;
    if (isEmptyOrLine(line)) {
      endParagraph();
      endList();
    } else if (std::regex_match(line, parameter, kParameter)) {
      endParagraph();
      if (!inList_) page_ += ".Bl -tag -width Ds\n";
      inList_ = true;
      page_ += ".It Fa " + parameter[1].str() + "\n";
      text_ = parameter[2];
    } else {
      const size_t start = line.find_first_not_of(' ');
      if (start == 0 && inList_) {
        endParagraph();
        endList();
      }
      text_ += (text_.empty() ? "" : " ") + line.substr(start);
    }
  }
  void endParagraph() {
    if (text_.empty()) return;
    if (!inList_) page_ += page_.empty() ? "" : ".Pp\n";
    page_ += mdocText(text_);
    text_.clear();
  }
  void endList() {
    if (inList_) page_ += ".El\n";
    inList_ = false;
  }

  const Lines& lines_;
  std::string page_;
  std::string text_;
  bool inList_ = false;
};

std::string prototypeOf(std::string declaration) {
  declaration = std::regex_replace(declaration, std::regex("QVDBASE_API "), "");
  declaration = std::regex_replace(declaration, std::regex("\\s*\n\\s*"), "\n    ");
  std::string page = ".Bd -literal\n";
  std::istringstream in(declaration);
  for (std::string line; std::getline(in, line);) page += mdocLine(mdocEscaped(line, true));
  return page + ".Ed\n.Pp\n";
}

}  // namespace

std::string headerPage(const std::string& header) {
  std::string page = mdocStart("qvdbase", "3", "tables of records in single files");
  page += ".Sh LIBRARY\nThe library qvdbase (\\-lqvdbase).\n.Sh SYNOPSIS\n.In qvdbase/qvdbase.h\n";
  const size_t top = header.find("*/");
  page += ".Sh DESCRIPTION\n" + Comment(linesOf(header.substr(0, top))).convert();
  page += ".Sh FUNCTIONS\n";
  const std::regex function(
      "/\\*((?:[^*]|\\*(?!/))*)\\*/\\s*\n(QVDBASE_API [^;{}]*?([A-Za-z_0-9]+)\\([^;]*\\);)");
  const std::string rest = header.substr(top);
  for (std::sregex_iterator i(rest.begin(), rest.end(), function), end; i != end; ++i) {
    page +=
        ".Ss " + (*i)[3].str() + "\n" + prototypeOf((*i)[2]) + Comment(linesOf((*i)[1])).convert();
  }
  return page + ".Sh SEE ALSO\n.Xr qvdb 1 ,\n.Xr qvdbase 5 ,\n.Xr qvdbase-recovery 7\n";
}

}  // namespace qvdb::manual
