// The documents as manual pages: Markdown, as far as they use it, in the mdoc language.
#pragma once

#include <string>

namespace qvdb::manual {

struct PageTitle {
  std::string name;     // "qvdbase"
  std::string section;  // "5"
  std::string summary;  // one line
};

// Headings of the second level become sections, those below subsections. The heading of the first
// level gives way to the title of the page.
std::string pageOf(const PageTitle& title, const std::string& markdown);

// The references of a line without their targets, code and emphasis in other fonts.
std::string inlineText(const std::string& markdown);

}  // namespace qvdb::manual
