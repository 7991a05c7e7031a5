// Bytes as JSON text: every character, and what is no text, against a plain definition of both.
#include <gtest/gtest.h>

#include <random>
#include <string>

#include "kit/random_seed.h"
#include "tool/parsed_json.h"
#include "tools/qvdb/content/json_lines.h"
#include "tools/qvdb/streams/text.h"

namespace qvdbase::test {
namespace {

using qvdb::tool::JsonLines;
using qvdb::tool::printsAsText;

std::string encoded(uint32_t code) {
  const auto byte = [](uint32_t value) { return std::string(1, static_cast<char>(value)); };
  if (code < 0x80) return byte(code);
  if (code < 0x800) return byte(0xC0 | code >> 6) + byte(0x80 | (code & 0x3F));
  const std::string last = byte(0x80 | (code >> 6 & 0x3F)) + byte(0x80 | (code & 0x3F));
  if (code < 0x10000) return byte(0xE0 | code >> 12) + last;
  return byte(0xF0 | code >> 18) + byte(0x80 | (code >> 12 & 0x3F)) + last;
}

bool isSurrogate(uint32_t code) {
  return code >= 0xD800 && code <= 0xDFFF;
}

bool isPrinted(uint32_t code) {
  if (code < 0x20) return code == '\t' || code == '\n' || code == '\r';
  return !(code >= 0x7F && code < 0xA0) && !isSurrogate(code);
}

// Character by character.
bool printsByDefinition(std::string_view bytes) {
  while (!bytes.empty()) {
    uint32_t code = 0;
    const size_t length = qvdb::tool::utf8Character(bytes, &code);
    if (length == 0 || !isPrinted(code)) return false;
    bytes.remove_prefix(length);
  }
  return true;
}

std::string lineOf(std::string_view bytes) {
  std::string line;
  JsonLines lines([&](std::string_view text) { line += text; });
  lines.begin();
  lines.bytes("text", "base64", bytes);
  lines.end();
  lines.flush();
  return line;
}

TEST(JsonText, TakesEachCharacterThatPrints) {
  std::string all;
  for (uint32_t code = 0; code <= 0x110000; ++code) {
    const bool isLast = code == 0x110000;
    if (!isLast && isSurrogate(code)) continue;
    if (!isLast) {
      const std::string text = "ab" + encoded(code) + "c";
      ASSERT_EQ(printsAsText(text), isPrinted(code)) << std::hex << code;
      if (isPrinted(code)) all += encoded(code);
    }
    if (all.size() < 10000 && !isLast) continue;
    const std::string line = lineOf(all);
    EXPECT_EQ(parsedJson(line)["text"], all) << std::hex << code;
    all.clear();
  }
}

TEST(JsonText, EscapesWhatTurnsTheDirectionOfText) {
  for (const uint32_t code : {0x200Eu, 0x200Fu, 0x2028u, 0x202Eu, 0x2066u, 0x2069u}) {
    for (size_t before = 0; before < 9; ++before) {
      const std::string text = std::string(before, 'x') + encoded(code) + "\u2014";
      const std::string line = lineOf(text);
      EXPECT_EQ(line.find(encoded(code)), std::string::npos) << line;
      EXPECT_NE(line.find("\u2014"), std::string::npos) << line;
      EXPECT_EQ(parsedJson(line)["text"], text);
    }
  }
}

TEST(JsonText, IsNoneOfBytesThatAreNot) {
  std::mt19937 random(static_cast<std::mt19937::result_type>(randomSeed()));
  constexpr unsigned char kBytes[] = {'a',  '"',  '\\', '\n', 0x1F, 0x7F, 0x80, 0xA0,
                                      0xBF, 0xC0, 0xC2, 0xC3, 0xDF, 0xE0, 0xE1, 0xE2,
                                      0xED, 0xEE, 0xEF, 0xF0, 0xF4, 0xFF};
  int texts = 0;
  for (int round = 0; round < 40'000; ++round) {
    std::string bytes(random() % 12, ' ');
    for (char& c : bytes) c = static_cast<char>(kBytes[random() % std::size(kBytes)]);
    ASSERT_EQ(printsAsText(bytes), printsByDefinition(bytes)) << qvdb::tool::escaped(bytes);
    texts += printsAsText(bytes) ? 1 : 0;
    const auto line = parsedJson(lineOf(bytes));
    if (printsAsText(bytes)) {
      ASSERT_EQ(line["text"], bytes);
    }
  }
  EXPECT_GT(texts, 100);
}

}  // namespace
}  // namespace qvdbase::test
