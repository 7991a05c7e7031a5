#include "report/text.h"

#include <cstdio>

namespace bench {
namespace {

std::string print(const char* format, double number) {
  char text[64];
  std::snprintf(text, sizeof text, format, number);
  return text;
}

}  // namespace

std::string duration(double nanoseconds) {
  if (nanoseconds < 1e4) return print("%.0f ns", nanoseconds);
  if (nanoseconds < 1e7) return print("%.1f us", nanoseconds / 1e3);
  return print("%.1f ms", nanoseconds / 1e6);
}

std::string ratio(double times) {
  return times == 0 ? "" : print("%.2f", times);
}

std::string share(double part) {
  return print("%.0f %%", part * 100);
}

std::string grouped(size_t number) {
  std::string text = std::to_string(number);
  for (size_t i = text.size(); i > 3; i -= 3) text.insert(i - 3, 1, ',');
  return text;
}

std::string describe(Size size) {
  return grouped(size.records) + " records of " + grouped(size.value) + " bytes";
}

}  // namespace bench
