// libebur128 in its all-modes configuration, fed the same audio as our whole meter in the same run.

#include <ebur128.h>

#include "Audio.hpp"

namespace vellum::bench {
namespace {

void peerEbur128(benchmark::State& state) {
  const auto channels = state.range(0), rate = state.range(1), chunk = state.range(2);
  const auto audio = programme(static_cast<std::size_t>(channels), static_cast<double>(rate), 10);
  const std::size_t frames = audio[0].size();
  std::vector<float> interleaved;
  for (std::size_t n = 0; n < frames; ++n)
    for (const auto& channel : audio) interleaved.push_back(channel[n]);

  for (auto _ : state) {
    constexpr int allModes = EBUR128_MODE_M | EBUR128_MODE_S | EBUR128_MODE_I | EBUR128_MODE_LRA |
                             EBUR128_MODE_SAMPLE_PEAK | EBUR128_MODE_TRUE_PEAK;
    ebur128_state* peer =
        ebur128_init(static_cast<unsigned>(channels), static_cast<unsigned long>(rate), allModes);
    for (std::size_t offset = 0; offset < frames; offset += static_cast<std::size_t>(chunk))
      ebur128_add_frames_float(peer, interleaved.data() + offset * static_cast<std::size_t>(channels),
                               std::min(static_cast<std::size_t>(chunk), frames - offset));
    double loudness = 0, range = 0;
    ebur128_loudness_global(peer, &loudness);
    ebur128_loudness_range(peer, &range);
    benchmark::DoNotOptimize(loudness + range);
    ebur128_destroy(&peer);
  }
  reportPerSample(state, static_cast<std::int64_t>(frames) * channels);
}
BENCHMARK(peerEbur128)
    ->ArgNames({"channels", "rate", "chunk"})
    ->Unit(benchmark::kMillisecond)
    ->Args({1, 48000, 4800})
    ->Args({2, 48000, 4800})
    ->Args({6, 48000, 4800})
    ->Args({2, 96000, 4800});

}  // namespace
}  // namespace vellum::bench
