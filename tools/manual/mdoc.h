// Pieces of the mdoc language, in which the manual is written.
#pragma once

#include <string>

namespace qvdb::manual {

std::string upper(std::string text);

// The beginning of a page, up to the end of its section NAME.
std::string mdocStart(const std::string& name, const std::string& section,
                      const std::string& summary);

// Text as mdoc wants it. Backslashes are escaped, and where the text is literal also hyphens, which
// have to stay what they are when they are copied.
std::string mdocEscaped(const std::string& text, bool isLiteral);

// A line that is not taken for a request, with its end.
std::string mdocLine(const std::string& escaped);

// Escaped text in lines of which each begins with a sentence or goes on with one.
std::string mdocLines(std::string escaped);

// The same of text that is not escaped.
std::string mdocText(const std::string& text);

}  // namespace qvdb::manual
