#include "VellumCore/ModuleSignal.hpp"

#include <algorithm>
#include <cmath>

#include "VellumCore/Kernels/Kernels.hpp"
#include "VellumCore/SignalArithmetic.hpp"

namespace vellum {

namespace {

template <typename... Cases>
struct Visitor : Cases... {
  using Cases::operator()...;
};
template <typename... Cases>
Visitor(Cases...) -> Visitor<Cases...>;

}  // namespace

ModuleSignal::ModuleSignal(const GeneratorModule& module, double sampleRate, std::uint64_t seed,
                           std::optional<std::int64_t> harmonicCap)
    : frames_(framesOfSeconds(module.duration, sampleRate)),
      amplitude_(flooredAmplitude(module.gainDB)),
      fadeEnvelope_(module.fadeInSeconds, module.fadeOutSeconds, frames_, sampleRate) {
  const auto shape = [&](Waveform waveform, double frequency) {
    source_ = BandlimitedSource(waveform, frequency, sampleRate, harmonicCap);
    leveling_ = Leveling::peak;
  };
  if (amplitude_ > 0)  // else silent, and nothing is to be measured
    std::visit(Visitor{
                   [](const GeneratorSource::Silence&) {},
                   [&](const GeneratorSource::Sine& sine) {
                     source_ = SineSource(sine.frequency, amplitude_, sampleRate);
                   },
                   [&](const GeneratorSource::Square& square) { shape(Waveform::square, square.frequency); },
                   [&](const GeneratorSource::Sawtooth& saw) { shape(Waveform::sawtooth, saw.frequency); },
                   [&](const GeneratorSource::Triangle& tri) { shape(Waveform::triangle, tri.frequency); },
                   [&](const GeneratorSource::Noise& noise) {
                     source_ = NoiseSource(noise.color, seed);
                     leveling_ = Leveling::rms;
                   },
                   [&](const GeneratorSource::Impulse&) {
                     source_ = ImpulseSource(amplitude_, module.burst, sampleRate);
                   },
                   [&](const GeneratorSource::Sweep& sweep) {
                     source_ = SweepSource(sweep, amplitude_, frames_, sampleRate);
                   },
               },
               module.source.value);
  if (module.levelSweep) levelEnvelope_.emplace(*module.levelSweep, frames_);
  // To an impulse the burst is its spacing, not a gate.
  if (module.burst && !std::holds_alternative<ImpulseSource>(source_))
    burstEnvelope_.emplace(*module.burst, sampleRate);
  // Sources before their level, and the sum of all modules that a document can hold, stay far below 2^28.
  const float gain = levelEnvelope_ ? levelEnvelope_->largestGain() : 1.0f;
  mayOverflow_ = static_cast<double>(amplitude_) * static_cast<double>(std::max(gain, 1.0f)) > 0x1p100;
}

void ModuleSignal::renderSource(float* x, std::int64_t first, std::int64_t n) {
  std::visit([&](auto& source) { source.render(x, first, n); }, source_);
}

void ModuleSignal::measure(const float* x, std::int64_t n) {
  if (leveling_ == Leveling::peak) peak_ = std::max(peak_, kernels().peakMagnitude(x, n));
  if (leveling_ == Leveling::rms) squares_.add(x, n);
  measured_ += n;
}

void ModuleSignal::measure(std::int64_t frames) {
  constexpr std::int64_t block = 1024;
  float x[block];
  for (frames = std::min(frames, unmeasuredFrames()); frames > 0;) {
    const std::int64_t run = std::min(frames, block);
    renderSource(x, measured_, run);
    measure(x, run);
    frames -= run;
  }
}

float ModuleSignal::level() const {
  if (leveling_ == Leveling::peak) return peak_;
  return static_cast<float>(std::sqrt(squares_.value() / static_cast<double>(frames_)));
}

void ModuleSignal::render(float* x, std::int64_t n) {
  const std::int64_t first = position_, run = std::clamp<std::int64_t>(frames_ - first, 0, n);
  std::fill_n(x + run, n - run, 0.0f);
  if (run < 1) return;
  const bool measuresOnTheWay = run == frames_ && measured_ == 0;
  if (!measuresOnTheWay) measure(unmeasuredFrames());
  renderSource(x, first, run);
  if (!isMeasured()) measure(x, run);
  if (leveling_ != Leveling::none) scaleToLevel(x, run, level(), amplitude_);
  if (mayOverflow_) saturate(x, run);
  if (levelEnvelope_) levelEnvelope_->apply(x, first, run);
  if (mayOverflow_) saturate(x, run);
  if (burstEnvelope_) burstEnvelope_->apply(x, first, run);
  fadeEnvelope_.apply(x, first, run);
  position_ += run;
}

}  // namespace vellum
