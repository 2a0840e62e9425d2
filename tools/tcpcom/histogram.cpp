#include "histogram.h"

#include <algorithm>
#include <array>

#include "text_format.h"

namespace tcpcom {
namespace {

constexpr int kWidth = 720, kHeight = 260;  // of one histogram
constexpr int kLeft = 60, kRight = 20, kTop = 50, kBottom = 40;
constexpr std::size_t kBins = 60;
constexpr double kShownPercent = 99.5;

std::string escaped(const std::string& text) {
  std::string result;
  for (const char one : text) {
    switch (one) {
      case '<':
        result += "&lt;";
        break;
      case '>':
        result += "&gt;";
        break;
      case '&':
        result += "&amp;";
        break;
      default:
        result += one;
    }
  }
  return result;
}

std::string text(double x, double y, const char* anchor, const std::string& content) {
  return "<text x=\"" + fixed(x, 1) + "\" y=\"" + fixed(y, 1) + "\" text-anchor=\"" + anchor +
         "\">" + escaped(content) + "</text>\n";
}

std::string figures(const Statistics& values) {
  return std::to_string(values.count()) + " values, mean " + fixed(values.mean(), 3) +
         " ms, median " + fixed(values.percentile(50), 3) + " ms, p99 " +
         fixed(values.percentile(99), 3) + " ms, max " + fixed(values.max(), 3) + " ms";
}

/// A few outliers would press all others into one bar: the last bin takes them.
class Panel {
 public:
  Panel(const Histogram& histogram, int top)
      : histogram_(histogram),
        values_(*histogram.valuesMs),
        top_(top),
        low_(values_.min()),
        high_(std::max(values_.percentile(kShownPercent), low_ + 0.001)) {
    for (const double value : values_.values()) {
      const double place = (value - low_) / (high_ - low_) * kBins;
      ++bins_[std::min(static_cast<std::size_t>(place), kBins - 1)];
    }
  }

  std::string draw() const {
    const double base = top_ + kHeight - kBottom;
    std::string svg = text(kLeft, top_ + 20, "start", histogram_.title);
    svg += text(kLeft, top_ + 38, "start", figures(values_));
    const std::size_t most = *std::max_element(bins_.begin(), bins_.end());
    for (std::size_t i = 0; i < kBins; ++i) svg += bar(i, base, most);
    svg += "<path d=\"M" + std::to_string(kLeft) + " " + fixed(base, 1) + "H" +
           std::to_string(kWidth - kRight) + "\" stroke=\"#333\"/>\n";
    svg += text(kLeft - 6, top_ + kTop + 10, "end", std::to_string(most));
    svg += text(kLeft - 6, base, "end", "0");
    svg += text(kLeft, base + 18, "start", fixed(low_, 3) + " ms");
    svg += text((kLeft + kWidth - kRight) / 2.0, base + 18, "middle",
                fixed((low_ + high_) / 2, 3) + " ms");
    return svg + text(kWidth - kRight, base + 18, "end", fixed(high_, 3) + " ms and more");
  }

 private:
  std::string bar(std::size_t index, double base, std::size_t most) const {
    constexpr double width = static_cast<double>(kWidth - kLeft - kRight) / kBins;
    constexpr double full = kHeight - kTop - kBottom;
    const double height = full * static_cast<double>(bins_[index]) / static_cast<double>(most);
    if (bins_[index] == 0) return "";
    return "<rect x=\"" + fixed(kLeft + width * static_cast<double>(index), 1) + "\" y=\"" +
           fixed(base - height, 1) + "\" width=\"" + fixed(width - 1, 1) + "\" height=\"" +
           fixed(height, 1) + "\" fill=\"#3b78b5\"/>\n";
  }

  const Histogram& histogram_;
  const Statistics& values_;
  const int top_;
  const double low_, high_;
  std::array<std::size_t, kBins> bins_{};
};

}  // namespace

std::string drawHistograms(const std::vector<Histogram>& histograms) {
  std::string panels;
  int top = 0;
  for (const Histogram& histogram : histograms) {
    if (histogram.valuesMs->count() == 0) continue;
    panels += Panel(histogram, top).draw();
    top += kHeight;
  }
  const std::string size = std::to_string(kWidth) + "\" height=\"" + std::to_string(top);
  return "<svg xmlns=\"http://www.w3.org/2000/svg\" width=\"" + size +
         "\" font-family=\"sans-serif\" font-size=\"12\">\n"
         "<rect width=\"100%\" height=\"100%\" fill=\"white\"/>\n" +
         panels + "</svg>\n";
}

}  // namespace tcpcom
