#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <vector>

#include "VellumCore/GeneratorSpec.hpp"
#include "VellumCore/SignalSources.hpp"

// Renders a test signal's document into planar audio. The same document gives the same samples on every run
// and every x86-64 CPU: noise is seeded by the positions of channel and module, and no sine, exponential or
// logarithm is the C library's. Tones are off by less than 1e-6 of full scale 10 minutes after their start.
//
// GeneratorSpec::validate is the caller's to ask. Levels are not bounded by it: samples and gains of a
// document that have no place in 32 bit (+771 dB) are held at the largest float.
//
// Everything here holds its whole result in memory. SignalStream renders the same samples piece by piece.
namespace vellum::SignalGenerator {

using vellum::Waveform;

// One list of frameCount samples per channel of the document; none at all if that is below 1 or the sample
// rate not above 0. `harmonicCap` is the most harmonics that a band-limited shape has, 1 at least; absent:
// all below half the sample rate. Takes the memory of the result and of the longest module.
std::vector<std::vector<float>> render(const GeneratorSpec& spec,
                                       std::optional<std::int64_t> harmonicCap = std::nullopt);

// One module from its own start: as many samples as its duration rounds to. The seed is that of its noise.
std::vector<float> renderModule(const GeneratorModule& module, double sampleRate, std::uint64_t seed,
                                std::optional<std::int64_t> harmonicCap = std::nullopt);

// --- Sources. `frames` below 2^31 and, except for noise, not negative ------------------------------------

// amplitude sin(2 pi frequency n / sampleRate)
std::vector<float> sine(double frequency, float amplitude, std::int64_t frames, double sampleRate);

// The harmonics below half the sample rate, at most max(kCap, 1), of a fundamental of amplitude 1. See
// BandlimitedSource. Silent for a frequency that is not above 0.
std::vector<float> bandlimited(Waveform waveform, double frequency, std::int64_t frames, double sampleRate,
                               std::optional<std::int64_t> kCap = std::nullopt);

// Noise whose RMS over all its frames, added up in 64 bit, is targetRMS. Empty for less than one frame.
std::vector<float> noise(NoiseColor color, float targetRMS, std::int64_t frames, std::uint64_t seed);

// Single samples of `amp`. See ImpulseSource.
std::vector<float> impulses(float amp, std::int64_t frames, const std::optional<BurstGate>& burst,
                            double sampleRate);

// --- In place --------------------------------------------------------------------------------------------

// To a largest magnitude of `to`. Silence stays silence.
void normalizePeak(std::span<float> x, float to);

// e^(0.115129255 x), which is 10^(x / 20) in 32 bit. Without a floor: -200 dB is 1e-10.
void dbToLinearInPlace(std::span<float> x);

// A gain from the first sample to the last. See LevelEnvelope.
void applyLevelSweep(std::span<float> x, const LevelSweep& sweep);

// See BurstEnvelope.
void applyBurst(std::span<float> x, const BurstGate& gate, double sampleRate);

// See FadeEnvelope.
void applyFades(std::span<float> x, double fadeInSeconds, double fadeOutSeconds, double sampleRate);

// One gain for all channels, where their largest magnitude lies above the ceiling. -200 dBFS and below is no
// ceiling.
void applyPeakCeiling(std::vector<std::vector<float>>& channels, float ceilingDB);

}  // namespace vellum::SignalGenerator
