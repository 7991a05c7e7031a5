#include "report/picture.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <map>

#include "report/comparison.h"
#include "report/text.h"

namespace bench {
namespace {

constexpr double kSmallest = 1.0 / 16;
constexpr double kLargest = 64;

// In pixels.
constexpr int kWidth = 900;
constexpr int kLeft = 150;  // of the scale
constexpr int kRight = 880;
constexpr int kLegendTop = 50;
constexpr int kLegendRow = 20;
constexpr int kRow = 24;

// Colours that are told apart also by those who do not see all of them.
constexpr std::array kColours{"#0072B2", "#56B4E9", "#E69F00", "#F0E442", "#009E73",
                              "#D55E00", "#CC79A7", "#999999", "#8C564B", "#000000"};

std::string number(double value) {
  std::string text = std::to_string(std::lround(value * 10));
  if (text.size() == 1) text.insert(0, 1, '0');
  text.insert(text.size() - 1, 1, '.');
  return text;
}

std::string attribute(const std::string& name, const std::string& value) {
  return " " + name + "=\"" + value + "\"";
}

std::string text(double x, double y, const std::string& content, const std::string& more = "") {
  return "<text" + attribute("x", number(x)) + attribute("y", number(y)) + more + ">" + content +
         "</text>\n";
}

std::string verticalLine(double x, double top, double bottom, const std::string& colour) {
  return "<line" + attribute("x1", number(x)) + attribute("x2", number(x)) +
         attribute("y1", number(top)) + attribute("y2", number(bottom)) +
         attribute("stroke", colour) + "/>\n";
}

std::string dot(double x, double y, const std::string& colour, const std::string& title) {
  return "<circle" + attribute("cx", number(x)) + attribute("cy", number(y)) +
         attribute("r", "5.5") + attribute("fill", colour) + attribute("stroke", "#444") +
         attribute("stroke-width", "0.5") + "><title>" + title + "</title></circle>\n";
}

double xOf(double times) {
  return kLeft + (kRight - kLeft) * placeOf(times, kSmallest, kLargest);
}

// "1/4", "1", "16".
std::string markOf(double times) {
  if (times < 1) return "1/" + std::to_string(std::lround(1 / times));
  return std::to_string(std::lround(times));
}

class Picture {
 public:
  Picture(const Results& results, Size size) : size_(size) {
    for (Comparison& comparison : compare(results)) {
      if (comparison.size != size || comparison.ours == nullptr || comparison.peer == nullptr) {
        continue;
      }
      for (const Figure* figure : comparison.figures) giveColour(*figure);
      rows_.push_back(std::move(comparison));
    }
  }

  std::string draw() const {
    const int height = bottom() + 50;
    std::string svg =
        "<svg xmlns=\"http://www.w3.org/2000/svg\"" + attribute("width", std::to_string(kWidth)) +
        attribute("height", std::to_string(height)) +
        attribute("viewBox", "0 0 " + std::to_string(kWidth) + " " + std::to_string(height)) +
        attribute("font-family", "sans-serif") + attribute("font-size", "13") +
        ">\n<title>Peers beside QVDbase</title>\n"
        "<rect width=\"100%\" height=\"100%\" fill=\"white\"/>\n";
    svg += text(10, 22, "Processor time of each peer, as a multiple of ours: " + describe(size_),
                attribute("font-size", "16"));
    return svg + legend() + scale() + rows() + "</svg>\n";
  }

 private:
  void giveColour(const Figure& figure) {
    if (isOurs(figure) || isRaw(figure) || colours_.contains(figure.store)) return;
    stores_.push_back(figure.store);
    colours_[figure.store] = kColours[(stores_.size() - 1) % kColours.size()];
  }

  int top() const {
    const auto legendRows = static_cast<int>((stores_.size() + 4) / 5);
    return kLegendTop + legendRows * kLegendRow + 10;
  }
  int bottom() const { return top() + static_cast<int>(rows_.size()) * kRow; }

  std::string legend() const {
    std::string svg;
    for (size_t i = 0; i < stores_.size(); ++i) {
      const double x = 20 + static_cast<double>(i % 5) * 170;
      const double y = kLegendTop + static_cast<double>(i / 5) * kLegendRow;
      svg += dot(x, y - 4, colours_.at(stores_[i]), stores_[i]);
      svg += text(x + 12, y, stores_[i]);
    }
    return svg;
  }

  std::string scale() const {
    std::string svg;
    for (double times = kSmallest; times <= kLargest; times *= 4) {
      svg += verticalLine(xOf(times), top(), bottom(), times == 1 ? "#000" : "#ccc");
      svg += text(xOf(times), bottom() + 16, markOf(times), attribute("text-anchor", "middle"));
    }
    const std::string middle = attribute("text-anchor", "middle");
    svg += text((kLeft + xOf(1)) / 2, bottom() + 38, "faster than we are", middle);
    svg += text((xOf(1) + kRight) / 2, bottom() + 38, "slower than we are", middle);
    return svg;
  }

  std::string rows() const {
    std::string svg;
    double y = top() + kRow / 2.0;
    for (const Comparison& row : rows_) {
      svg += text(10, y + 4, row.workload);
      for (const Figure* figure : row.figures) {
        if (isOurs(*figure) || isRaw(*figure)) continue;
        const double times = timesOf(*figure, row.ours);
        svg += dot(xOf(times), y, colours_.at(figure->store),
                   figure->store + ": " + ratio(times) + " times our time");
      }
      y += kRow;
    }
    return svg;
  }

  Size size_;
  std::vector<Comparison> rows_;
  std::vector<std::string> stores_;
  std::map<std::string, std::string> colours_;
};

}  // namespace

double placeOf(double times, double smallest, double largest) {
  const double place = std::log(times / smallest) / std::log(largest / smallest);
  return std::clamp(place, 0.0, 1.0);
}

std::string pictureOf(const Results& results, Size size) {
  return Picture(results, size).draw();
}

}  // namespace bench
