// The true-peak limiter, in ns per channel-sample.

#include <algorithm>

#include "Audio.hpp"
#include "VellumCore/TruePeakLimiterDSP.hpp"

namespace vellum::bench {
namespace {

constexpr double rate = 48000, seconds = 10;

// A ceiling that the programme never reaches, and one that it is over in every cycle of its tones.
enum class Ceiling { outOfReach, alwaysExceeded };

// Limits the programme again and again in chunks of range(1) frames. Each chunk is copied first, because the
// limiter works in place: that is timed too.
void limiter(benchmark::State& state, Ceiling ceiling) {
  const auto channels = state.range(0), chunk = state.range(1);
  const auto audio = programme(static_cast<std::size_t>(channels), rate, seconds);
  const auto frames = static_cast<std::int64_t>(audio[0].size());
  TruePeakLimiterDSP limiter({.sampleRate = rate,
                              .channelCount = channels,
                              .ceilingDB = ceiling == Ceiling::outOfReach ? 20.0f : -40.0f,
                              .lookaheadMs = 5,
                              .releaseMs = 100,
                              .maxFrameCount = chunk});
  std::vector<std::vector<float>> block(audio.size(), std::vector<float>(static_cast<std::size_t>(chunk)));
  std::vector<float*> pointers;
  for (auto& channel : block) pointers.push_back(channel.data());
  for (auto _ : state) {
    for (std::int64_t offset = 0; offset < frames; offset += chunk) {
      const std::int64_t n = std::min(chunk, frames - offset);
      for (std::size_t c = 0; c < audio.size(); ++c) std::copy_n(audio[c].data() + offset, n, pointers[c]);
      limiter.process(pointers, n);
    }
    benchmark::ClobberMemory();
  }
  reportPerSample(state, frames * channels);
  state.counters["smallest_gain"] = static_cast<double>(limiter.smallestGain());
}

void everyFormat(benchmark::internal::Benchmark* benchmark) {
  benchmark->ArgNames({"channels", "chunk"})->Unit(benchmark::kMillisecond);
  for (const int channels : {1, 2, 6})
    for (const int chunk : {64, 480, 4800}) benchmark->Args({channels, chunk});
}

BENCHMARK_CAPTURE(limiter, quiet, Ceiling::outOfReach)->Apply(everyFormat);
BENCHMARK_CAPTURE(limiter, loud, Ceiling::alwaysExceeded)->Apply(everyFormat);

}  // namespace
}  // namespace vellum::bench
