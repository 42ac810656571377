#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <vector>

#include "VellumCore/GeneratorSpec.hpp"

// The signals that a generator's modules play, before their level is set and their envelopes shape them. Each
// writes frames first .. first + n - 1 of itself, the same samples however it is cut.
namespace vellum {

enum class Waveform { sawtooth, square, triangle };

struct SilentSource {
  void render(float* x, std::int64_t first, std::int64_t n) const;
};

// amplitude sin(2 pi frequency n / sampleRate)
class SineSource {
 public:
  SineSource(double frequency, float amplitude, double sampleRate);
  void render(float* x, std::int64_t first, std::int64_t n) const;

 private:
  double step_;
  float amplitude_;
};

// The harmonics of a waveform below half the sample rate, at most max(kCap, 1) of them: sines of amplitude
//   sawtooth 1/h, -1/h by turns; square 1/h, odd h only; triangle 1/h^2, -1/h^2 by turns, odd h only.
// Silent where there is none. A few are added up by a recurrence and many in closed form, off by less than
// 2e-8, so that even 1 nHz, which has 10^13 harmonics, costs no more than 400 Hz. That is before a module's
// peak is brought to its level, which enlarges it where the module ends long before its highest harmonic's
// first crest: only a harmonic cap makes such modules of more than a frame.
class BandlimitedSource {
 public:
  BandlimitedSource(Waveform waveform, double frequency, double sampleRate, std::optional<std::int64_t> kCap);
  void render(float* x, std::int64_t first, std::int64_t n) const;

 private:
  Waveform waveform_;
  double step_;
  double harmonics_;                  // 0 or more, whole
  std::vector<double> coefficients_;  // of the sines that differ from 0, where they are few
};

// White noise of SplitMix64, uniform in [-1, 1); pink and brown are filters upon it, in 32 bit. Samples are
// exact on every CPU. Frames are taken in order, and frame 0 starts again.
class NoiseSource {
 public:
  NoiseSource(NoiseColor color, std::uint64_t seed);
  void render(float* x, std::int64_t first, std::int64_t n);

 private:
  NoiseColor color_;
  std::uint64_t seed_;
  std::array<float, 7> filter_{};
};

// amplitude times a sine that goes from `start` to `end` Hz in `frames` frames. The ratio of a logarithmic
// sweep's frequencies is held between 1e-300 and 1e300.
class SweepSource {
 public:
  SweepSource(const GeneratorSource::Sweep& sweep, float amplitude, std::int64_t frames, double sampleRate);
  void render(float* x, std::int64_t first, std::int64_t n) const;

 private:
  SweepShape shape_;
  float amplitude_;
  double sampleRate_, startHz_, slope_ = 0;
  double seconds_, logRatio_ = 0, scale_ = 0;
};

// Single samples of `amplitude`: one at frame 0 or, with a burst gate, one at the start of each of its
// cycles, whose length is the sum of its times, rounded.
class ImpulseSource {
 public:
  ImpulseSource(float amplitude, const std::optional<BurstGate>& burst, double sampleRate);
  void render(float* x, std::int64_t first, std::int64_t n) const;

 private:
  float amplitude_;
  std::int64_t period_ = 0;  // 0: no second impulse
  std::int64_t count_ = 0;   // below 1: without end
};

}  // namespace vellum
