// Text for people: what comes from a file is escaped before it reaches a terminal.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace qvdb::tool {

// The length of the well-formed UTF-8 character at the beginning of `bytes`, or 0. Stores its code.
size_t utf8Character(std::string_view bytes, uint32_t* code);

bool isUtf8(std::string_view bytes);

// Control characters, bytes that are not UTF-8, and characters that change the direction of text
// become \xHH, byte by byte; a backslash becomes two. Everything else is not changed.
std::string escaped(std::string_view bytes);

// Whether the bytes hold something that must not reach a terminal unescaped. Line ends and tabs are
// allowed. `bytes` may be a part of a longer text: a character that is cut off at its end is not
// judged, and `pending` receives how many bytes of it there are.
bool isBinary(std::string_view bytes, size_t* pending);

// Seconds since 1970 as "2024-05-01T12:34:56Z".
std::string timeText(int64_t seconds);

// The reverse, for what users write: also without the "Z", with a blank for the "T", without the
// seconds, or a date alone; or "@" and seconds since 1970. Nothing for anything else.
std::optional<int64_t> parseTime(std::string_view text);

// The text in lines of at most `width` columns, as far as its words allow, each with a line end.
// Lines are broken between words only; all but the first are indented. Blanks at the beginning are
// kept.
std::string wrapped(std::string_view text, size_t width, size_t indent);

// The text with blanks before it, `width` columns in all or as many as it needs.
std::string column(std::string_view text, size_t width);

// All bytes in hexadecimal digits, each after `prefix`.
std::string hexDigits(std::string_view bytes, const char* prefix = "");

// "1 file", "2 files".
std::string counted(uint64_t count, const char* one, const char* many);

}  // namespace qvdb::tool
