#include "VellumApp/SpectrumAnalysis.hpp"

#include <fmt/format.h>

#include <algorithm>
#include <bit>
#include <cmath>
#include <cstddef>
#include <span>
#include <utility>

#include "VellumApp/FrameStream.hpp"
#include "VellumCore/PowerSpectrum.hpp"

namespace vellum {
namespace {

double decibels(double power) {
  return 10 * std::log10(power);
}

// The name of the band that lies `index` bands above 1 kHz.
double nominalHzOf(int index) {
  constexpr int names[] = {100, 125, 160, 200, 250, 315, 400, 500, 630, 800};
  const int decade = static_cast<int>(std::floor(index / 10.0));
  const int name = names[index - 10 * decade];
  return decade < -1 ? name / std::pow(10.0, -1 - decade) : name * std::pow(10.0, decade + 1);
}

// What a band takes of each bin, which is a rectangle around its frequency.
class Band {
 public:
  Band(int index, double binHz, std::int64_t lastBin) : index_(index) {
    const double low = lowHz() / binHz + 0.5, high = highHz() / binHz + 0.5;  // in bins' left edges
    first_ = static_cast<std::int64_t>(low);
    for (std::int64_t k = first_; k <= lastBin && static_cast<double>(k) < high; ++k) {
      const auto left = static_cast<double>(k);
      shares_.push_back(std::min(left + 1, high) - std::max(left, low));
    }
  }

  double centreHz() const { return 1000 * std::pow(10.0, index_ / 10.0); }
  double lowHz() const { return centreHz() * std::pow(10.0, -0.05); }
  double highHz() const { return centreHz() * std::pow(10.0, 0.05); }

  void add(std::span<const double> power) {
    double sum = 0;
    for (std::size_t k = 0; k < shares_.size(); ++k)
      sum += shares_[k] * power[static_cast<std::size_t>(first_) + k];
    total_ += sum;
    peak_ = std::max(peak_, sum);
  }

  SpectrumBand result(double frames, double noiseBandwidth) const {
    return {.nominalHz = nominalHzOf(index_),
            .centreHz = centreHz(),
            .lowHz = lowHz(),
            .highHz = highHz(),
            .averageDB = decibels(total_ / frames / noiseBandwidth),
            .peakDB = decibels(peak_ / noiseBandwidth)};
  }

 private:
  int index_;  // 0 at 1 kHz
  std::int64_t first_;
  std::vector<double> shares_;
  double total_ = 0, peak_ = 0;
};

std::vector<Band> bandsOf(double sampleRate, std::int64_t fftSize, double noiseBandwidthHz) {
  std::vector<Band> bands;
  constexpr int lowest = -17, highest = 26;  // 20 Hz to 400 kHz
  for (int index = lowest; index <= highest; ++index) {
    Band band(index, sampleRate / static_cast<double>(fftSize), fftSize / 2);
    if (band.highHz() <= sampleRate / 2 && band.highHz() - band.lowHz() >= noiseBandwidthHz)
      bands.push_back(std::move(band));
  }
  return bands;
}

}  // namespace

std::int64_t spectrumFFTSize(double sampleRate) {
  const auto samples = static_cast<std::uint64_t>(std::max(sampleRate / 3, 1.0));
  return std::clamp(static_cast<std::int64_t>(std::bit_ceil(samples)), leastFFTSize, mostFFTSize);
}

std::optional<FileSpectrum> analyseSpectrum(const std::filesystem::path& path,
                                            const SpectrumSettings& settings,
                                            const std::function<bool(const MeasureProgress&)>& goOn) {
  AudioFile file(path);
  const double sampleRate = file.sampleRate();
  const std::int64_t fftSize = settings.fftSize.value_or(spectrumFFTSize(sampleRate)), hop = fftSize / 4;
  const auto channels = channelsOf(file, settings.channels);
  const auto mayGoOn = [&] { return goOn({0, {}}); };
  const auto section = sectionOf(file, settings.fromSec, settings.toSec, mayGoOn);
  if (!section || !file.seekTo(section->from, mayGoOn)) return {};
  const double sectionSec = static_cast<double>(section->to - section->from) / sampleRate;

  PowerSpectrum spectrum(fftSize, settings.window);
  const double noiseBandwidthHz = spectrum.noiseBandwidth() * sampleRate / static_cast<double>(fftSize);
  std::vector<Band> bands = bandsOf(sampleRate, fftSize, noiseBandwidthHz);
  std::vector<double> frame(static_cast<std::size_t>(spectrum.binCount())), total(frame.size()),
      peak(frame.size());
  std::int64_t frameCount = 0, brokenFrames = 0;

  FrameStream stream(
      file, {.channels = channels, .size = fftSize, .hop = hop, .start = section->from, .end = section->to});
  double doneSec = 0;
  for (std::int64_t samples; (samples = stream.next()) == fftSize || frameCount + brokenFrames == 0;) {
    if (!goOn({doneSec, sectionSec})) return {};
    doneSec += static_cast<double>(hop) / sampleRate;
    if (!stream.averagePower(spectrum, frame)) {
      ++brokenFrames;
      continue;
    }
    ++frameCount;
    for (std::size_t k = 0; k < frame.size(); ++k) {
      total[k] += frame[k];
      peak[k] = std::max(peak[k], frame[k]);
    }
    for (Band& band : bands) band.add(frame);
  }

  FileSpectrum result{.formatName = file.formatName(),
                      .sampleRate = sampleRate,
                      .channelCount = file.channelCount(),
                      .channels = channels,
                      .fromSec = static_cast<double>(section->from) / sampleRate,
                      .toSec = static_cast<double>(section->to) / sampleRate,
                      .window = settings.window,
                      .fftSize = fftSize,
                      .frameCount = frameCount,
                      .noiseBandwidthHz = noiseBandwidthHz,
                      .averageDB = {},
                      .peakDB = {},
                      .bands = {},
                      .warnings = sectionWarnings(*section, sampleRate, settings.toSec, brokenFrames,
                                                  frameCount + brokenFrames)};
  if (frameCount == 0) throw FileError("every frame of the section holds samples that are not finite");
  const auto frames = static_cast<double>(frameCount);
  for (std::size_t k = 0; k < frame.size(); ++k) {
    result.averageDB.push_back(static_cast<float>(decibels(total[k] / frames)));
    result.peakDB.push_back(static_cast<float>(decibels(peak[k])));
  }
  for (const Band& band : bands) result.bands.push_back(band.result(frames, spectrum.noiseBandwidth()));
  if (section->to - section->from < fftSize)
    result.warnings.push_back(
        fmt::format("the section is shorter than one transform of {} samples: levels read low", fftSize));
  return result;
}

}  // namespace vellum
