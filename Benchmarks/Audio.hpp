#pragma once

#include <cmath>
#include <cstdint>
#include <random>
#include <vector>

#include <benchmark/benchmark.h>

namespace vellum::bench {

// A programme that keeps every part of a meter at work: three tones and noise, loud and soft by turns, so
// that the speech detector gets past its first tests and the gates see a spread of levels.
inline std::vector<std::vector<float>> programme(std::size_t channelCount, double sampleRate,
                                                 double seconds) {
  std::mt19937 rng(7);
  const auto frames = static_cast<std::size_t>(sampleRate * seconds);
  std::vector<std::vector<float>> channels(channelCount, std::vector<float>(frames));
  for (std::size_t c = 0; c < channelCount; ++c)
    for (std::size_t n = 0; n < frames; ++n) {
      const double t = static_cast<double>(n) / sampleRate;
      const double level = 0.2 + 0.15 * std::sin(2 * t) + 0.1 * std::sin(0.3 * t + static_cast<double>(c));
      const double tones = std::sin(900 * t) + 0.7 * std::sin(1800 * t + 1) + 0.5 * std::sin(2700 * t);
      const double noise = static_cast<double>(rng()) / 4294967296.0 - 0.5;
      channels[c][n] = static_cast<float>(level * (0.5 * tones + 0.2 * noise));
    }
  return channels;
}

// Reports the time per channel-sample beside the time per iteration.
inline void reportPerSample(benchmark::State& state, std::int64_t channelSamplesPerIteration) {
  state.counters["per_sample"] =
      benchmark::Counter(static_cast<double>(state.iterations() * channelSamplesPerIteration),
                         benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
}

}  // namespace vellum::bench
