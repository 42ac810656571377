#include "VellumCore/SignalSources.hpp"

#include <algorithm>
#include <cmath>

#include "VellumCore/Kernels/Elementary.hpp"
#include "VellumCore/Kernels/Kernels.hpp"
#include "VellumCore/SignalArithmetic.hpp"

namespace vellum {

void SilentSource::render(float* x, std::int64_t, std::int64_t n) const {
  std::fill_n(x, n, 0.0f);
}

// --- Sine ------------------------------------------------------------------------------------------------

SineSource::SineSource(double frequency, float amplitude, double sampleRate)
    : step_(twoPi * frequency / sampleRate), amplitude_(amplitude) {
  // Above half the rate its alias, whose phase stays within what the kernel takes.
  if (std::fabs(step_) > pi) step_ = std::remainder(step_, twoPi);
}

void SineSource::render(float* x, std::int64_t first, std::int64_t n) const {
  kernels().sine(step_, amplitude_, x, first, n);
}

// --- Band-limited shapes ---------------------------------------------------------------------------------

namespace {

// So many terms cost as much by recurrence as in closed form, which is exact enough from here on.
constexpr double mostTermsBySeries = 32;

// The highest harmonic strictly below half the sample rate, 0 if there is none.
double highestHarmonic(double frequency, double sampleRate) {
  const double nyquist = sampleRate * 0.5;
  if (!(frequency > 0) || !(nyquist > 0)) return 0;
  double highest = std::floor(nyquist / frequency);
  // From 2^53 on there is no next lower number, and none can tell.
  while (highest >= 1 && highest < 0x1p53 && nyquist <= frequency * highest) --highest;
  return std::min(highest, 1e300);
}

double amplitudeOfHarmonic(Waveform waveform, int h) {
  switch (waveform) {
    case Waveform::sawtooth:
      return h % 2 == 1 ? 1.0 / h : -1.0 / h;
    case Waveform::square:
      return 1.0 / h;
    case Waveform::triangle:
      return h % 4 == 1 ? 1.0 / (h * h) : -1.0 / (h * h);
  }
  return 0;
}

}  // namespace

BandlimitedSource::BandlimitedSource(Waveform waveform, double frequency, double sampleRate,
                                     std::optional<std::int64_t> kCap)
    : waveform_(waveform),
      step_(twoPi * frequency / sampleRate),
      harmonics_(highestHarmonic(frequency, sampleRate)) {
  if (kCap) harmonics_ = std::min(harmonics_, static_cast<double>(std::max<std::int64_t>(*kCap, 1)));
  const int stride = waveform == Waveform::sawtooth ? 1 : 2;
  if (harmonics_ <= stride * mostTermsBySeries)
    for (int h = 1; h <= harmonics_; h += stride) coefficients_.push_back(amplitudeOfHarmonic(waveform, h));
}

void BandlimitedSource::render(float* x, std::int64_t first, std::int64_t n) const {
  if (harmonics_ < 1) return SilentSource{}.render(x, first, n);
  if (!coefficients_.empty())
    return kernels().sineSeries({.coefficients = coefficients_.data(),
                                 .count = static_cast<std::int64_t>(coefficients_.size()),
                                 .oddOnly = waveform_ != Waveform::sawtooth},
                                step_, x, first, n);
  const double firstEvenAbove = 2 * std::floor((harmonics_ + 1) / 2);
  switch (waveform_) {
    case Waveform::sawtooth:
      kernels().manyHarmonicsSawtooth(2 * harmonics_ + 1, step_, x, first, n);
      break;
    case Waveform::square:
      kernels().manyHarmonicsSquare(firstEvenAbove, step_, x, first, n);
      break;
    case Waveform::triangle:
      kernels().manyHarmonicsTriangle(firstEvenAbove, step_, x, first, n);
      break;
  }
  // Exactly, where the closed forms leave 1e-10: a module of this one frame is brought to no peak.
  if (first == 0 && n > 0) x[0] = 0;
}

// --- Noise -----------------------------------------------------------------------------------------------

namespace {

// SplitMix64's state after n draws is its seed and n times this. Its last step is left out: it changes none
// of the 24 bits that are used.
constexpr std::uint64_t splitMixStep = 0x9E3779B97F4A7C15u;

void fillWithWhite(std::uint64_t state, float* x, std::int64_t n) {
  for (std::int64_t i = 0; i < n; ++i) {
    state += splitMixStep;
    std::uint64_t z = (state ^ (state >> 30)) * 0xBF58476D1CE4E5B9u;
    z = (z ^ (z >> 27)) * 0x94D049BB133111EBu;
    const float u = static_cast<float>(static_cast<std::int32_t>(z >> 40)) * 0x1p-24f;
    x[i] = u + u - 1;
  }
}

// One pole, for a fall of 6 dB per octave above about 15 Hz at 48 kHz.
void turnBrown(std::array<float, 7>& filter, float* x, std::int64_t n) {
  constexpr float kept = 0.998f, taken = 1 - kept;
  float y = filter[0];
  for (std::int64_t i = 0; i < n; ++i) x[i] = y = kept * y + taken * x[i];
  filter[0] = y;
}

// Six poles and a delay, for a fall of 3 dB per octave.
void turnPink(std::array<float, 7>& filter, float* x, std::int64_t n) {
  auto [b0, b1, b2, b3, b4, b5, b6] = filter;
  for (std::int64_t i = 0; i < n; ++i) {
    const float w = x[i];
    b0 = 0.99886f * b0 + 0.0555179f * w;
    b1 = 0.99332f * b1 + 0.0750759f * w;
    b2 = 0.96900f * b2 + 0.1538520f * w;
    b3 = 0.86650f * b3 + 0.3104856f * w;
    b4 = 0.55000f * b4 + 0.5329522f * w;
    b5 = -0.7616f * b5 - 0.0168980f * w;
    x[i] = b0 + b1 + b2 + b3 + b4 + b5 + b6 + 0.5362f * w;
    b6 = 0.115926f * w;
  }
  filter = {b0, b1, b2, b3, b4, b5, b6};
}

}  // namespace

NoiseSource::NoiseSource(NoiseColor color, std::uint64_t seed) : color_(color), seed_(seed) {}

void NoiseSource::render(float* x, std::int64_t first, std::int64_t n) {
  if (first == 0) filter_ = {};
  fillWithWhite(seed_ + static_cast<std::uint64_t>(first) * splitMixStep, x, n);
  switch (color_) {
    case NoiseColor::white:
      return;
    case NoiseColor::pink:
      return turnPink(filter_, x, n);
    case NoiseColor::brown:
      return turnBrown(filter_, x, n);
  }
}

// --- Sweep -----------------------------------------------------------------------------------------------

SweepSource::SweepSource(const GeneratorSource::Sweep& sweep, float amplitude, std::int64_t frames,
                         double sampleRate)
    : shape_(sweep.shape), amplitude_(amplitude), sampleRate_(sampleRate), startHz_(sweep.start) {
  double endHz = sweep.end;
  // Only ratios to the rate matter. At such rates seconds are too many for 64 bit.
  if (sampleRate < 0x1p-500)
    for (double* hertz : {&sampleRate_, &startHz_, &endHz}) *hertz *= 0x1p600;
  seconds_ = static_cast<double>(frames) / sampleRate_;
  if (shape_ == SweepShape::linear) {
    slope_ = (endHz - startHz_) / seconds_ * 0.5;
    return;
  }
  const double ratio = std::clamp(endHz / startHz_, 1e-300, 1e300);
  if (std::fabs(ratio - 1) < 1e-12) {
    shape_ = SweepShape::linear;  // of slope 0: a tone
    return;
  }
  logRatio_ = naturalLogarithm(ratio);
  scale_ = twoPi * startHz_ * seconds_ / logRatio_;
}

void SweepSource::render(float* x, std::int64_t first, std::int64_t n) const {
  const Chirp chirp = {sampleRate_, startHz_, slope_, seconds_, logRatio_, scale_};
  if (shape_ == SweepShape::linear) return kernels().linearChirp(chirp, amplitude_, x, first, n);
  kernels().logarithmicChirp(chirp, amplitude_, x, first, n);
}

// --- Impulses --------------------------------------------------------------------------------------------

ImpulseSource::ImpulseSource(float amplitude, const std::optional<BurstGate>& burst, double sampleRate)
    : amplitude_(amplitude) {
  if (!burst) return;
  period_ = framesOfSeconds(burst->onSeconds + burst->offSeconds, sampleRate);
  count_ = burst->count;
}

void ImpulseSource::render(float* x, std::int64_t first, std::int64_t n) const {
  std::fill_n(x, n, 0.0f);
  if (period_ < 1) {
    if (first == 0 && n > 0) x[0] = amplitude_;
    return;
  }
  std::int64_t impulse = first / period_ + (first % period_ != 0);
  const std::int64_t end = first + n;
  for (; impulse * period_ < end && (count_ < 1 || impulse < count_); ++impulse)
    x[impulse * period_ - first] = amplitude_;
}

}  // namespace vellum
