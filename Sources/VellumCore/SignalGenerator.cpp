#include "VellumCore/SignalGenerator.hpp"

#include <algorithm>
#include <cmath>

#include "VellumCore/Kernels/Kernels.hpp"
#include "VellumCore/ModuleSignal.hpp"
#include "VellumCore/SignalArithmetic.hpp"
#include "VellumCore/SignalEnvelopes.hpp"
#include "VellumCore/SumOfSquares.hpp"
#include "VellumCore/Support/Require.hpp"

namespace vellum::SignalGenerator {

namespace {

std::int64_t countOf(std::span<const float> x) {
  return static_cast<std::int64_t>(x.size());
}

template <typename Source>
std::vector<float> framesOf(Source source, std::int64_t frames) {
  VELLUM_REQUIRE(frames >= 0, "SignalGenerator: frames must not be negative");
  VELLUM_REQUIRE(frames <= GeneratorSpec::maxRenderFrames, "SignalGenerator: frames must be below 2^31");
  std::vector<float> samples(static_cast<std::size_t>(frames));
  source.render(samples.data(), 0, frames);
  return samples;
}

std::vector<float> wholeOf(ModuleSignal& signal) {
  std::vector<float> samples(static_cast<std::size_t>(signal.frameCount()));
  signal.render(samples.data(), signal.frameCount());
  return samples;
}

}  // namespace

std::vector<std::vector<float>> render(const GeneratorSpec& spec, std::optional<std::int64_t> harmonicCap) {
  const std::int64_t frames = spec.frameCount();
  if (frames < 1 || !(spec.sampleRate > 0)) return {};
  std::vector<std::vector<float>> channels(spec.channels.size());
  for (std::size_t c = 0; c < channels.size(); ++c) {
    channels[c].resize(static_cast<std::size_t>(frames));
    const auto& modules = spec.channels[c].modules;
    for (std::size_t m = 0; m < modules.size(); ++m) {
      const std::int64_t offset = framesOfSeconds(modules[m].start, spec.sampleRate);
      if (offset >= frames) continue;
      ModuleSignal signal(modules[m], spec.sampleRate, moduleSeed(c, m), harmonicCap);
      const auto samples = wholeOf(signal);
      const std::int64_t heard = std::min(frames - offset, countOf(samples));
      kernels().add(channels[c].data() + offset, samples.data(), heard);
      if (signal.mayOverflow()) saturate(channels[c].data() + offset, heard);
    }
  }
  if (spec.peakCeilingDB) applyPeakCeiling(channels, *spec.peakCeilingDB);
  return channels;
}

std::vector<float> renderModule(const GeneratorModule& module, double sampleRate, std::uint64_t seed,
                                std::optional<std::int64_t> harmonicCap) {
  ModuleSignal signal(module, sampleRate, seed, harmonicCap);
  return wholeOf(signal);
}

std::vector<float> sine(double frequency, float amplitude, std::int64_t frames, double sampleRate) {
  return framesOf(SineSource(frequency, amplitude, sampleRate), frames);
}

std::vector<float> bandlimited(Waveform waveform, double frequency, std::int64_t frames, double sampleRate,
                               std::optional<std::int64_t> kCap) {
  return framesOf(BandlimitedSource(waveform, frequency, sampleRate, kCap), frames);
}

std::vector<float> noise(NoiseColor color, float targetRMS, std::int64_t frames, std::uint64_t seed) {
  if (frames < 1) return {};
  auto samples = framesOf(NoiseSource(color, seed), frames);
  SumOfSquares squares;
  squares.add(samples.data(), frames);
  const double rms = std::sqrt(squares.value() / static_cast<double>(frames));
  scaleToLevel(samples.data(), frames, static_cast<float>(rms), targetRMS);
  return samples;
}

std::vector<float> impulses(float amp, std::int64_t frames, const std::optional<BurstGate>& burst,
                            double sampleRate) {
  return framesOf(ImpulseSource(amp, burst, sampleRate), frames);
}

void normalizePeak(std::span<float> x, float to) {
  scaleToLevel(x.data(), countOf(x), kernels().peakMagnitude(x.data(), countOf(x)), to);
}

void dbToLinearInPlace(std::span<float> x) {
  kernels().decibelsToGains(x.data(), countOf(x));
}

void applyLevelSweep(std::span<float> x, const LevelSweep& sweep) {
  LevelEnvelope(sweep, countOf(x)).apply(x.data(), 0, countOf(x));
}

void applyBurst(std::span<float> x, const BurstGate& gate, double sampleRate) {
  BurstEnvelope(gate, sampleRate).apply(x.data(), 0, countOf(x));
}

void applyFades(std::span<float> x, double fadeInSeconds, double fadeOutSeconds, double sampleRate) {
  FadeEnvelope(fadeInSeconds, fadeOutSeconds, countOf(x), sampleRate).apply(x.data(), 0, countOf(x));
}

void applyPeakCeiling(std::vector<std::vector<float>>& channels, float ceilingDB) {
  float peak = 0;
  for (const auto& channel : channels)
    peak = std::max(peak, kernels().peakMagnitude(channel.data(), countOf(channel)));
  const float gain = ceilingGain(peak, ceilingDB);
  if (gain < 1)
    for (auto& channel : channels) kernels().scale(channel.data(), gain, countOf(channel));
}

}  // namespace vellum::SignalGenerator
