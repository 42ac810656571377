#pragma once

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <limits>
#include <numbers>
#include <vector>

#include "Support/Signals.hpp"

namespace vellum::test {

// The meter's definition, written down plainly in long double: whole arrays, no streaming, everything
// sorted and added up anew for each block. Slow on purpose; the oracle for LoudnessProcessor.
class PlainMeter {
 public:
  using Real = long double;
  static constexpr Real unmeasured = -std::numeric_limits<Real>::infinity();

  PlainMeter(double sampleRate, std::vector<float> weights)
      : sampleRate_(sampleRate), weights_(std::move(weights)), blockFrames_(std::llround(sampleRate * 0.1)) {}

  struct Figures {
    Real momentary = unmeasured, shortTerm = unmeasured, integrated = unmeasured, range = unmeasured;
    Real speechGated = unmeasured, noiseFloor = unmeasured, speechPercentage = 0;
  };

  // Block powers of every whole block, and of the partial one behind them where there is one.
  std::vector<Real> blockPowers(const Audio& audio) const {
    const std::int64_t frames = audio.frameCount();
    std::vector<Real> powers(static_cast<std::size_t>((frames + blockFrames_ - 1) / blockFrames_));
    for (std::size_t c = 0; c < audio.channels.size(); ++c) {
      const std::vector<Real> weighted = kWeighted(audio.channels[c]);
      for (std::size_t b = 0; b < powers.size(); ++b) {
        const auto first = static_cast<std::int64_t>(b) * blockFrames_;
        const std::int64_t end = std::min(first + blockFrames_, frames);
        Real sum = 0;
        for (std::int64_t n = first; n < end; ++n) {
          const Real y = weighted[static_cast<std::size_t>(n)];
          sum += y * y;
        }
        powers[b] += static_cast<Real>(weights_[c]) * sum / static_cast<Real>(end - first);
      }
    }
    return powers;
  }

  // Every figure after the whole audio, its partial block flushed. `speech` holds a flag per block.
  Figures measure(const Audio& audio, const std::vector<bool>& speech) const {
    const std::vector<Real> powers = blockPowers(audio);
    const auto wholeBlocks = static_cast<std::size_t>(audio.frameCount() / blockFrames_);
    Figures figures;
    std::vector<Real> gated, speechGated, shortTermValues, quietRMS;
    std::int64_t nonSilent = 0, spoken = 0;
    for (std::size_t b = 0; b < powers.size(); ++b) {
      figures.momentary = windowLoudness(powers, b, 4);
      figures.shortTerm = windowLoudness(powers, b, 30);
      if (b >= 29 && figures.shortTerm > -70) shortTermValues.push_back(figures.shortTerm);
      if (!speech[b]) quietRMS.push_back(monoRMS(audio, b));
      if (!(powers[b] > absoluteGate())) continue;
      ++nonSilent;
      if (speech[b]) ++spoken;
      if (b >= wholeBlocks) continue;
      gated.push_back(powers[b]);
      if (speech[b]) speechGated.push_back(powers[b]);
    }
    figures.integrated = gatedLoudness(gated);
    figures.speechGated = gatedLoudness(speechGated);
    figures.range = range(shortTermValues);
    figures.noiseFloor = noiseFloor(quietRMS);
    if (nonSilent > 0)
      figures.speechPercentage = 100 * static_cast<Real>(spoken) / static_cast<Real>(nonSilent);
    return figures;
  }

  static Real loudness(Real power) { return 10 * std::log10(std::max(power, Real{1e-10})) - 0.691L; }
  static Real absoluteGate() { return std::pow(Real{10}, (-70 + 0.691L) / 10); }

  static Real gatedLoudness(const std::vector<Real>& powers) {
    if (powers.empty()) return unmeasured;
    Real sum = 0, gatedSum = 0, count = 0;
    for (Real power : powers) sum += power;
    for (Real power : powers)
      if (power > sum / static_cast<Real>(powers.size()) / 10) gatedSum += power, count += 1;
    return loudness(gatedSum / count);
  }

  static Real range(std::vector<Real> values) {
    if (values.size() < 10) return unmeasured;
    Real sum = 0;
    for (Real value : values) sum += std::pow(Real{10}, (value + 0.691L) / 10);
    const Real gate = loudness(sum / static_cast<Real>(values.size())) - 20;
    std::erase_if(values, [&](Real value) { return !(value > gate); });
    if (values.size() < 10) return unmeasured;
    std::sort(values.begin(), values.end());
    const auto at = [&](Real share) {
      return values[static_cast<std::size_t>(std::llround(static_cast<Real>(values.size() - 1) * share))];
    };
    return at(0.95L) - at(0.1L);
  }

  static Real noiseFloor(std::vector<Real> rms) {
    if (rms.empty()) return unmeasured;
    std::sort(rms.begin(), rms.end());
    const auto rank = static_cast<std::size_t>((rms.size() * 9 + 9) / 10 - 1);  // ceil(0.9 n) - 1
    return 20 * std::log10(std::max(rms[rank], Real{1e-10}));
  }

  // Both sections with their coefficients worked out in long double; the second numerator is 1, -2, 1.
  std::vector<Real> kWeighted(const std::vector<float>& samples) const {
    const Real pi = std::numbers::pi_v<Real>;
    const Real fs = sampleRate_;
    std::vector<Real> x(samples.begin(), samples.end());
    {
      const Real K = std::tan(pi * 1681.974450955533L / fs), Q = 0.7071752369554196L;
      const Real Vh = 1.5848647011308556L, Vb = 1.2587209302325617L, a0 = K * K + K / Q + 1;
      x = biquad(x, (K * K + Vb * K / Q + Vh) / a0, 2 * (K * K - Vh) / a0, (K * K - Vb * K / Q + Vh) / a0,
                 2 * (K * K - 1) / a0, (K * K - K / Q + 1) / a0);
    }
    const Real K = std::tan(pi * 38.13547087602444L / fs), Q = 0.5003270373253953L, a0 = K * K + K / Q + 1;
    return biquad(x, 1, -2, 1, 2 * (K * K - 1) / a0, (K * K - K / Q + 1) / a0);
  }

 private:
  static std::vector<Real> biquad(const std::vector<Real>& x, Real b0, Real b1, Real b2, Real a1, Real a2) {
    std::vector<Real> y(x.size());
    Real s1 = 0, s2 = 0;
    for (std::size_t n = 0; n < x.size(); ++n) {
      y[n] = b0 * x[n] + s1;
      s1 = b1 * x[n] - a1 * y[n] + s2;
      s2 = b2 * x[n] - a2 * y[n];
    }
    return y;
  }

  static Real windowLoudness(const std::vector<Real>& powers, std::size_t last, std::size_t blocks) {
    const std::size_t count = std::min(last + 1, blocks);
    Real sum = 0;
    for (std::size_t k = 0; k < count; ++k) sum += powers[last - k];
    return sum > 0 ? loudness(sum / static_cast<Real>(count)) : unmeasured;
  }

  Real monoRMS(const Audio& audio, std::size_t block) const {
    const auto first = static_cast<std::int64_t>(block) * blockFrames_;
    const std::int64_t end = std::min(first + blockFrames_, audio.frameCount());
    const auto mixed = std::max<std::ptrdiff_t>(
        std::count_if(weights_.begin(), weights_.end(), [](float w) { return w > 0; }), 1);
    Real squares = 0;
    for (std::int64_t n = first; n < end; ++n) {
      Real mono = 0;
      for (std::size_t c = 0; c < weights_.size(); ++c)
        if (weights_[c] > 0) mono += static_cast<Real>(audio.channels[c][static_cast<std::size_t>(n)]);
      mono /= static_cast<Real>(mixed);
      squares += mono * mono;
    }
    return std::sqrt(std::max(squares / static_cast<Real>(end - first), Real{1e-20}));
  }

  double sampleRate_;
  std::vector<float> weights_;
  std::int64_t blockFrames_;
};

}  // namespace vellum::test
