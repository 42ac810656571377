#include "VellumApp/SpectrogramImage.hpp"

#include <algorithm>
#include <bit>
#include <cmath>
#include <cstddef>
#include <limits>
#include <span>

#include "VellumApp/FrameStream.hpp"
#include "VellumApp/SpectrumAnalysis.hpp"
#include "VellumCore/PowerSpectrum.hpp"

namespace vellum {
namespace {

constexpr double lowestPower = 1e-20;  // -200 dB

// The bins that a row of the picture stands for; none where it lies between two of them.
struct Row {
  std::size_t first, end;
  std::size_t below;  // the bin at or below the row's middle, and how far the middle lies from it
  double fraction;
};

std::vector<Row> rowsOf(const FrequencyAxis& axis, std::int64_t height, double binHz, std::size_t binCount) {
  const auto bins = static_cast<double>(binCount);
  const auto binAt = [&](double row) {
    return axis.frequencyAt(1 - row / static_cast<double>(height)) / binHz;
  };
  std::vector<Row> rows;
  for (std::int64_t r = 0; r < height; ++r) {
    const auto top = static_cast<double>(r);
    const double middle = std::clamp(binAt(top + 0.5), 0.0, bins - 1);
    const double below = std::min(std::floor(middle), std::max(bins - 2, 0.0));
    // Half open, so that each bin belongs to one row; the last bin to the highest.
    const double end = r == 0 ? bins : std::ceil(binAt(top));
    rows.push_back({.first = static_cast<std::size_t>(std::clamp(std::ceil(binAt(top + 1)), 0.0, bins)),
                    .end = static_cast<std::size_t>(std::clamp(end, 0.0, bins)),
                    .below = static_cast<std::size_t>(below),
                    .fraction = middle - below});
  }
  return rows;
}

// Which frames a column of the picture shows: all between its edges, or the nearest where there are fewer
// frames than columns.
struct Frames {
  std::int64_t first, end;
};
Frames framesOf(std::int64_t column, std::int64_t width, std::int64_t frameCount) {
  const auto at = [&](std::int64_t edge) {
    return static_cast<std::int64_t>(
        std::floor(static_cast<double>(edge) * static_cast<double>(frameCount) / static_cast<double>(width)));
  };
  const std::int64_t first = std::min(at(column), frameCount - 1);
  return {first, std::max(first + 1, at(column + 1))};
}

}  // namespace

std::int64_t spectrogramFFTSize(double sampleRate) {
  const auto samples = static_cast<std::uint64_t>(std::max(sampleRate / 30, 1.0));
  return std::clamp(static_cast<std::int64_t>(std::bit_ceil(samples)), leastFFTSize, mostFFTSize);
}

std::optional<SpectrogramImage> renderSpectrogram(const std::filesystem::path& path,
                                                  const SpectrogramSettings& settings,
                                                  const std::function<bool(const MeasureProgress&)>& goOn) {
  AudioFile file(path);
  const double sampleRate = file.sampleRate();
  const std::int64_t fftSize = settings.fftSize.value_or(spectrogramFFTSize(sampleRate));
  const auto channels = channelsOf(file, settings.channels);
  const auto mayGoOn = [&] { return goOn({0, {}}); };
  const auto section = sectionOf(file, settings.fromSec, settings.toSec, mayGoOn);
  if (!section) return {};
  const std::int64_t length = section->to - section->from;
  const std::int64_t hop = std::clamp<std::int64_t>(length / settings.width, 1, fftSize / 4);
  const std::int64_t frameCount = (length - 1) / hop + 1;
  // Frame k has its middle in the middle of the k-th hop.
  const std::int64_t start = section->from + hop / 2 - fftSize / 2;
  if (!file.seekTo(std::max<std::int64_t>(start, 0), mayGoOn)) return {};

  SpectrogramImage image{
      .formatName = file.formatName(),
      .sampleRate = sampleRate,
      .channelCount = file.channelCount(),
      .channels = channels,
      .fromSec = static_cast<double>(section->from) / sampleRate,
      .toSec = static_cast<double>(section->to) / sampleRate,
      .axis = frequencyAxisOf(settings.scale, sampleRate),
      .fftSize = fftSize,
      .width = settings.width,
      .height = settings.height,
      .levels = std::vector<float>(static_cast<std::size_t>(settings.width * settings.height)),
      .warnings = {}};
  PowerSpectrum spectrum(fftSize, FFTWindowType::hann);
  const auto binCount = static_cast<std::size_t>(spectrum.binCount());
  const auto rows = rowsOf(image.axis, image.height, sampleRate / static_cast<double>(fftSize), binCount);
  std::vector<double> frame(binCount), highest(binCount);
  std::vector<float> levels(binCount);
  std::int64_t brokenFrames = 0;

  const auto draw = [&](std::int64_t column) {
    for (std::size_t k = 0; k < binCount; ++k)
      levels[k] = static_cast<float>(10 * std::log10(std::max(highest[k], lowestPower)));
    for (std::int64_t r = 0; r < image.height; ++r) {
      const Row& row = rows[static_cast<std::size_t>(r)];
      float& level = image.levels[static_cast<std::size_t>(r * image.width + column)];
      if (row.first < row.end) {
        level = *std::max_element(levels.begin() + static_cast<std::ptrdiff_t>(row.first),
                                  levels.begin() + static_cast<std::ptrdiff_t>(row.end));
      } else {
        const std::size_t above = std::min(row.below + 1, binCount - 1);
        level = levels[row.below] + static_cast<float>(row.fraction) * (levels[above] - levels[row.below]);
      }
    }
  };

  FrameStream stream(file, {.channels = channels,
                            .size = fftSize,
                            .hop = hop,
                            .start = start,
                            .end = std::numeric_limits<std::int64_t>::max()});
  std::int64_t column = 0;
  for (std::int64_t k = 0; k < frameCount; ++k) {
    if (!goOn({static_cast<double>(k * hop) / sampleRate, static_cast<double>(length) / sampleRate}))
      return {};
    stream.next();
    if (stream.averagePower(spectrum, frame))
      for (std::size_t b = 0; b < binCount; ++b) highest[b] = std::max(highest[b], frame[b]);
    else
      ++brokenFrames;
    // With more columns than frames, several show the same one.
    while (column < image.width && framesOf(column, image.width, frameCount).end == k + 1) draw(column++);
    if (column == image.width || framesOf(column, image.width, frameCount).first > k)
      std::fill(highest.begin(), highest.end(), 0.0);
  }

  image.warnings = sectionWarnings(*section, sampleRate, settings.toSec, brokenFrames, frameCount);
  return image;
}

}  // namespace vellum
