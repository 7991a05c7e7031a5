// One call of formatted output, into a buffer of exactly the size that the expected text takes.
#pragma once

#include <gtest/gtest.h>
#include <qvdbase/QVWString.h>

#include <string>
#include <string_view>

#include "kit/layers.h"
#include "kit/wide.h"
#include "support/strings/guarded_text.h"

namespace qvdbase::test {

// Succeeds when the format with these arguments gives this text, its length as the result, a
// terminator, and nothing after it.
template <typename... Arguments>
testing::AssertionResult formats(std::u16string_view expected, const char16_t* format,
                                 Arguments... arguments) {
  GuardedText buffer(expected.size() + 1);
  const int count = QVWString().swprintf(buffer, WideText(format), arguments...);
  const std::u16string actual = buffer.first(expected.size());
  const bool sameText = actual == expected && buffer.data()[expected.size()] == 0;
  if (sameText && count == static_cast<int>(expected.size())) return testing::AssertionSuccess();
  return testing::AssertionFailure()
         << '"' << narrow(format) << "\" gave \"" << narrow(actual) << "\", count " << count
         << ", instead of \"" << narrow(expected) << '"';
}

// The text of a call that needs at most `capacity` characters.
template <typename... Arguments>
std::u16string formatted(size_t capacity, std::u16string_view format, Arguments... arguments) {
  GuardedText buffer(capacity + 1);
  const int count = QVWString().swprintf(buffer, WideText(format), arguments...);
  EXPECT_GE(count, 0);
  EXPECT_LE(static_cast<size_t>(count), capacity);
  if (count < 0 || static_cast<size_t>(count) > capacity) return {};
  EXPECT_EQ(buffer.data()[count], 0) << narrow(format);
  return buffer.first(static_cast<size_t>(count));
}

}  // namespace qvdbase::test
