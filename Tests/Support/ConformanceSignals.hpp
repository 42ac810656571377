#pragma once

#include <algorithm>
#include <cmath>
#include <complex>
#include <cstdint>
#include <limits>
#include <numbers>
#include <span>
#include <vector>

#include "Support/Signals.hpp"

// The makings of the conformance signals (EBU Tech 3341, EBU Tech 3342, ITU-R BS.2217), and what a meter of
// their weighting reads on a steady tone, worked out from the published filter and not from the library.
namespace vellum::test {

// --- Weighting -------------------------------------------------------------------------------------------

// One channel through the K-weighting of ITU-R BS.1770-5, Annex 1, in long double. The document tabulates
// the two sections at 48 kHz; their analogue prototypes, a shelf of 4 dB at 1682 Hz and a high pass at 38 Hz,
// give them at any rate by the bilinear transform. The high pass keeps the numerator 1, -2, 1 of the table at
// every rate, so that its pass band gain, a0 of the denominator, comes down from 0.043 dB at 48 kHz to
// 0.022 dB at 96 kHz.
class ReferenceKWeighting {
 public:
  explicit ReferenceKWeighting(double sampleRate) : sampleRate_(sampleRate) {
    const auto warped = [&](long double frequencyHz) {
      return std::tan(std::numbers::pi_v<long double> * frequencyHz / static_cast<long double>(sampleRate));
    };
    {
      const long double k = warped(1681.974450955533L), q = 0.7071752369554196L;
      const long double high = std::pow(10.0L, 3.999843853973347L / 20.0L);
      const long double band = std::pow(high, 0.4996667741545416L);
      const long double a0 = 1 + k / q + k * k;
      shelf_ = {{(high + band * k / q + k * k) / a0, 2 * (k * k - high) / a0,
                 (high - band * k / q + k * k) / a0, 2 * (k * k - 1) / a0, (1 - k / q + k * k) / a0}};
    }
    {
      const long double k = warped(38.13547087602444L), q = 0.5003270373253953L;
      const long double a0 = 1 + k / q + k * k;
      highPass_ = {{1, -2, 1, 2 * (k * k - 1) / a0, (1 - k / q + k * k) / a0}};
    }
  }

  long double next(long double x) { return highPass_.next(shelf_.next(x)); }

  // Gain in dB of a steady sine.
  double gainDB(double frequencyHz) const {
    const auto z = std::polar(
        1.0L, -2 * std::numbers::pi_v<long double> * static_cast<long double>(frequencyHz / sampleRate_));
    return static_cast<double>(10 * std::log10(std::norm(shelf_.response(z) * highPass_.response(z))));
  }

 private:
  struct Section {
    long double c[5];  // b0, b1, b2, a1, a2
    long double x1 = 0, x2 = 0, y1 = 0, y2 = 0;

    long double next(long double x) {
      const long double y = c[0] * x + c[1] * x1 + c[2] * x2 - c[3] * y1 - c[4] * y2;
      x2 = x1, x1 = x;
      y2 = y1, y1 = y;
      return y;
    }
    std::complex<long double> response(std::complex<long double> z) const {
      return (c[0] + z * (c[1] + z * c[2])) / (1.0L + z * (c[3] + z * c[4]));
    }
  };

  double sampleRate_;
  Section shelf_{}, highPass_{};
};

// LUFS of a sine that stands in one channel of weight 1 at a peak level in dBFS. Powers add up: two equal
// channels read 3.01 LU more.
inline double steadyToneLUFS(double sampleRate, double frequencyHz, double peakDBFS) {
  return peakDBFS + 10 * std::log10(0.5) + ReferenceKWeighting(sampleRate).gainDB(frequencyHz) - 0.691;
}

// How much higher a 1 kHz tone reads at a sample rate than at 48 kHz, for which the figures are worked out:
// +0.003 LU at 44.1 kHz, -0.017 LU at 96 kHz.
inline double shiftFrom48kHz(double sampleRate) {
  return ReferenceKWeighting(sampleRate).gainDB(1000) - ReferenceKWeighting(48000).gainDB(1000);
}

// --- Tones in steps --------------------------------------------------------------------------------------

constexpr double silent = -std::numeric_limits<double>::infinity();

// A part of a tone: how long, and the peak level in every channel in dBFS (or `silent`).
struct TonePart {
  double seconds, peakDBFS;
};

// One sine whose level steps from part to part without a break in its phase.
struct ToneProgramme {
  double sampleRate;  // whole hertz
  std::vector<TonePart> parts;
  double frequencyHz = 1000;                    // whole hertz
  std::vector<double> channelGainsDB = {0, 0};  // of each channel, on top of the parts' level
};

// Calls play(channels, frameCount) for chunk after chunk, of a second or less.
template <typename Play>
void playTone(const ToneProgramme& tone, Play play) {
  // Whole hertz: the second repeats exactly.
  const auto rate = static_cast<std::int64_t>(tone.sampleRate);
  std::vector<double> second(static_cast<std::size_t>(rate));
  for (std::int64_t n = 0; n < rate; ++n) {
    const double cycles = tone.frequencyHz * static_cast<double>(n) / tone.sampleRate;
    second[static_cast<std::size_t>(n)] = std::sin(2 * std::numbers::pi * (cycles - std::floor(cycles)));
  }

  const std::vector<double>& gains = tone.channelGainsDB;
  Audio chunk(gains.size(), rate);
  std::vector<const float*> pointers = chunk.pointers();
  std::int64_t frame = 0;
  double endSec = 0;
  for (const TonePart& part : tone.parts) {
    endSec += part.seconds;
    const auto end = static_cast<std::int64_t>(std::llround(endSec * tone.sampleRate));
    while (frame < end) {
      const std::int64_t start = frame % rate, n = std::min(end - frame, rate - start);
      for (std::size_t c = 0; c < gains.size(); ++c) {
        const auto equal =
            static_cast<std::size_t>(std::find(gains.begin(), gains.end(), gains[c]) - gains.begin());
        pointers[c] = chunk.channels[equal].data();
        if (equal != c) continue;
        const double amplitude = amplitudeOf(part.peakDBFS + gains[c]);
        for (std::int64_t i = 0; i < n; ++i)
          chunk.channels[c][static_cast<std::size_t>(i)] =
              static_cast<float>(amplitude * second[static_cast<std::size_t>(start + i)]);
      }
      play(std::span<const float* const>(pointers), n);
      frame += n;
    }
  }
}

// The parts `times` over.
inline std::vector<TonePart> repeated(const std::vector<TonePart>& parts, int times) {
  std::vector<TonePart> all;
  for (int k = 0; k < times; ++k) all.insert(all.end(), parts.begin(), parts.end());
  return all;
}

// EBU Tech 3341, signal 3 and ITU-R BS.2217's test of the relative gate: what the two kinds of gating blocks
// read differently.
inline std::vector<TonePart> ebuSignal3() {
  return {{10, -36}, {60, -23}, {10, -36}};
}
inline std::vector<TonePart> relativeGateTest() {
  return {{0.9, -19.9}, {1.3, -7.1}, {0.8, -19.9}, {1, -88}};
}

// --- Tones for the true peak -----------------------------------------------------------------------------

// Raised-cosine fades of 10 ms at both ends: a hard edge rings in the 4x filter.
template <typename Sample>
void fadeEnds(std::vector<Sample>& samples, double sampleRate) {
  const auto frames = static_cast<std::size_t>(std::llround(0.01 * sampleRate));
  for (std::size_t n = 0; n < frames; ++n) {
    const double gain =
        0.5 - 0.5 * std::cos(std::numbers::pi * (static_cast<double>(n) + 0.5) / static_cast<double>(frames));
    for (Sample* sample : {&samples[n], &samples[samples.size() - 1 - n]})
      *sample = static_cast<Sample>(static_cast<double>(*sample) * gain);
  }
}

// Linear-phase low-pass by which a signal made at four times a rate is brought down to it: a sinc of cut-off
// 0.48 fs under a Kaiser window, so narrow that its stop band begins at fs/2.
inline std::vector<double> decimationLowPass() {
  constexpr int half = 320;
  constexpr double cutoff = 0.48 / 4;  // of the fourfold rate
  constexpr double beta = 9;           // stop band below -90 dB
  const auto bessel = [](double x) {
    double sum = 1, term = 1;
    for (int k = 1; k < 60; ++k) sum += term *= (x / (2 * k)) * (x / (2 * k));
    return sum;
  };
  std::vector<double> taps;
  for (int k = -half; k <= half; ++k) {
    const double x = 2 * std::numbers::pi * cutoff * k, r = static_cast<double>(k) / half;
    taps.push_back((k == 0 ? 1 : std::sin(x) / x) * bessel(beta * std::sqrt(1 - r * r)));
  }
  double sum = 0;
  for (double tap : taps) sum += tap;
  for (double& tap : taps) tap /= sum;
  return taps;
}

// A tone of fs/6 at 0.50 with one period of fs/4 at 1.00 in its middle, phase-continuous, half a second long:
// made at four times the rate, low-passed, decimated from sample `offset` on.
inline std::vector<float> decimatedPeakTone(double sampleRate, std::size_t offset) {
  const auto frames = static_cast<std::size_t>(sampleRate / 8) * 16;  // half a second at the fourfold rate
  const std::size_t burst = frames / 48 * 24;                         // after whole periods of fs/6
  std::vector<double> fine(frames);
  for (std::size_t n = 0; n < frames; ++n) {
    const double cycles = n < burst        ? static_cast<double>(n) / 24
                          : n < burst + 16 ? static_cast<double>(n - burst) / 16
                                           : static_cast<double>(n - burst - 16) / 24;
    const double amplitude = n >= burst && n < burst + 16 ? 1.0 : 0.5;
    fine[n] = amplitude * std::sin(2 * std::numbers::pi * (cycles - std::floor(cycles)));
  }
  fadeEnds(fine, 4 * sampleRate);

  const std::vector<double> taps = decimationLowPass();
  const std::size_t half = taps.size() / 2;
  std::vector<float> samples;
  for (std::size_t n = offset; n < frames; n += 4) {
    double sum = 0;
    const std::size_t first = n < half ? half - n : 0;
    for (std::size_t k = first; k < taps.size() && n + k < frames + half; ++k)
      sum += taps[k] * fine[n + k - half];
    samples.push_back(static_cast<float>(sum));
  }
  return samples;
}

}  // namespace vellum::test
