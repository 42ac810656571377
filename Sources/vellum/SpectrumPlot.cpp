#include "vellum/SpectrumPlot.hpp"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <iterator>
#include <string_view>
#include <utility>
#include <vector>

#include "VellumApp/FrequencyScale.hpp"
#include "vellum/AxisTicks.hpp"

namespace vellum {
namespace {

constexpr double width = 960, height = 540;
constexpr double left = 64, right = 940, top = 52, bottom = 484;
constexpr double mostRangeDB = 120, leastRangeDB = 40;
constexpr std::string_view averageColour = "#1f5fa8", peakColour = "#d9822b";

std::string escaped(std::string_view text) {
  std::string result;
  for (const char c : text) switch (c) {
      case '&':
        result += "&amp;";
        break;
      case '<':
        result += "&lt;";
        break;
      case '>':
        result += "&gt;";
        break;
      default:
        result += static_cast<unsigned char>(c) < 0x20 ? '?' : c;
    }
  return result;
}

struct Range {
  double low, high;  // dB
};

// Whole tens around both curves, from the highest peak down to the lowest average, within reason.
Range rangeOf(const FileSpectrum& spectrum) {
  double high = -HUGE_VAL, low = HUGE_VAL;
  for (std::size_t k = 1; k < spectrum.peakDB.size(); ++k) {
    high = std::max(high, static_cast<double>(spectrum.peakDB[k]));
    if (std::isfinite(spectrum.averageDB[k])) low = std::min(low, static_cast<double>(spectrum.averageDB[k]));
  }
  if (!std::isfinite(high)) return {-mostRangeDB, 0};  // silence
  high = std::ceil((high + 1) / 10) * 10;
  low = std::clamp(std::floor(low / 10) * 10, high - mostRangeDB, high - leastRangeDB);
  return {low, high};
}

class Plot {
 public:
  explicit Plot(const FileSpectrum& spectrum)
      : spectrum_(spectrum),
        axis_(frequencyAxisOf(FrequencyScale::log, spectrum.sampleRate)),
        range_(rangeOf(spectrum)) {}

  std::string svg(const std::string& title, const std::string& subtitle) {
    add(R"(<svg xmlns="http://www.w3.org/2000/svg" viewBox="0 0 {0} {1}" width="{0}" height="{1}")"
        R"( font-family="DejaVu Sans, Verdana, sans-serif" font-size="12" fill="#222">)",
        width, height);
    add("<title>{}</title>", escaped(title));
    add(R"(<rect width="{}" height="{}" fill="#fff"/>)", width, height);
    add(R"(<text x="{}" y="24" font-size="15">{}</text>)", left, escaped(title));
    add(R"(<text x="{}" y="42" fill="#555">{}</text>)", left, escaped(subtitle));
    addGrid();
    addCurve("peak", spectrum_.peakDB, peakColour, 1);
    addCurve("average", spectrum_.averageDB, averageColour, 1.6);
    add(R"(<rect x="{}" y="{}" width="{}" height="{}" fill="none" stroke="#444"/>)", left, top, right - left,
        bottom - top);
    addLegend();
    add("</svg>");
    return std::move(svg_);
  }

 private:
  template <typename... Values>
  void add(fmt::format_string<Values...> format, Values&&... values) {
    fmt::format_to(std::back_inserter(svg_), format, std::forward<Values>(values)...);
    svg_ += '\n';
  }

  double xOf(double hz) const { return left + axis_.positionOf(hz) * (right - left); }
  double yOf(double dB) const {
    const double share = (range_.high - dB) / (range_.high - range_.low);
    return top + std::clamp(share, 0.0, 1.0) * (bottom - top);
  }

  void addGrid() {
    for (const double hz : minorFrequencies(axis_))
      add(R"(<path d="M{0:.1f} {1}V{2}" stroke="#eee"/>)", xOf(hz), top, bottom);
    for (const Tick& tick : frequencyTicks(axis_, 15)) {
      add(R"(<path d="M{0:.1f} {1}V{2}" stroke="#ccc"/>)", xOf(tick.value), top, bottom);
      add(R"(<text x="{:.1f}" y="{}" text-anchor="middle">{}</text>)", xOf(tick.value), bottom + 18,
          tick.label);
    }
    for (const Tick& tick : levelTicks(range_.low, range_.high, 13)) {
      add(R"(<path d="M{0} {1:.1f}H{2}" stroke="#ccc"/>)", left, yOf(tick.value), right);
      add(R"(<text x="{}" y="{:.1f}" text-anchor="end">{}</text>)", left - 6, yOf(tick.value) + 4,
          tick.label);
    }
    add(R"(<text x="{}" y="{}" text-anchor="middle">Frequency / Hz</text>)", (left + right) / 2, height - 14);
    add(R"svg(<text transform="translate(18 {}) rotate(-90)" text-anchor="middle">Level / dBFS</text>)svg",
        (top + bottom) / 2);
  }

  void addCurve(std::string_view name, const std::vector<float>& levels, std::string_view colour,
                double stroke) {
    std::string points;
    std::size_t best = 0;  // of the pixel that is under way; none while 0
    const auto addPoint = [&] {
      if (best == 0) return;
      fmt::format_to(std::back_inserter(points), "{}{:.1f},{:.1f}", points.empty() ? "" : " ",
                     xOf(spectrum_.frequency(static_cast<std::int64_t>(best))),
                     yOf(static_cast<double>(levels[best])));
    };
    double pixel = -1;
    for (std::size_t k = 1; k < levels.size(); ++k) {
      const double hz = spectrum_.frequency(static_cast<std::int64_t>(k));
      if (hz < axis_.lowHz) continue;
      if (const double own = std::floor(xOf(hz)); own != pixel) {
        addPoint();
        pixel = own;
        best = k;
      } else if (levels[k] > levels[best]) {
        best = k;
      }
    }
    addPoint();
    add(R"(<polyline id="{}" fill="none" stroke="{}" stroke-width="{}" stroke-linejoin="round" points="{}"/>)",
        name, colour, stroke, points);
  }

  void addLegend() {
    const auto addEntry = [&](double x, std::string_view colour, std::string_view text) {
      add(R"(<path d="M{} 38h26" stroke="{}" stroke-width="3"/>)", x, colour);
      add(R"(<text x="{}" y="42">{}</text>)", x + 32, text);
    };
    addEntry(right - 190, averageColour, "average");
    addEntry(right - 80, peakColour, "peak");
  }

  const FileSpectrum& spectrum_;
  const FrequencyAxis axis_;
  const Range range_;
  std::string svg_;
};

}  // namespace

std::string spectrumSVG(const FileSpectrum& spectrum, const std::string& title, const std::string& subtitle) {
  return Plot(spectrum).svg(title, subtitle);
}

}  // namespace vellum
