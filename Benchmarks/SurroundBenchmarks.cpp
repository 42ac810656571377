// Rendering channels into others: the 90-degree shift in ns per sample, a whole bake in ns per channel-sample
// of its sources.

#include <algorithm>

#include "Audio.hpp"
#include "VellumCore/HilbertPhaseShifter.hpp"
#include "VellumCore/SurroundBake.hpp"

namespace vellum::bench {
namespace {

constexpr std::int64_t taps = 101, blockFrames = 8192;

void phaseShifter(benchmark::State& state) {
  const auto audio = programme(1, 48000, 1);
  const std::int64_t n = state.range(0);
  HilbertPhaseShifter shifter(taps, n);
  std::vector<float> reference(static_cast<std::size_t>(n)), quadrature(reference);
  for (auto _ : state) {
    shifter.process(audio[0].data(), n, reference.data(), quadrature.data());
    benchmark::ClobberMemory();
  }
  reportPerSample(state, n);
}
BENCHMARK(phaseShifter)->ArgName("frames")->Arg(64)->Arg(512)->Arg(blockFrames);

// The same filter as it is written down: 101 products a sample.
void plainCorrelation(benchmark::State& state) {
  const auto audio = programme(1, 48000, 1);
  const HilbertPhaseShifter shifter(taps, blockFrames);
  const auto coef = shifter.coef();
  std::vector<float> quadrature(blockFrames);
  for (auto _ : state) {
    for (std::size_t i = 0; i < quadrature.size(); ++i) {
      float sum = 0;
      for (std::size_t j = 0; j < coef.size(); ++j) sum += coef[j] * audio[0][i + j];
      quadrature[i] = sum;
    }
    benchmark::ClobberMemory();
  }
  reportPerSample(state, blockFrames);
}
BENCHMARK(plainCorrelation);

// 5.1 to stereo, the surrounds as they are or in quadrature.
void bakeToStereo(benchmark::State& state, bool useQuadrature) {
  const auto audio = programme(6, 48000, 10);
  const auto frames = static_cast<std::int64_t>(audio[0].size());
  const float surround = 0.7071f, outOfPhase = useQuadrature ? -surround : surround;
  const std::vector<std::vector<SurroundBake::Route>> routes = {
      {{0, 1.0f, false}, {2, 0.7071f, false}, {4, outOfPhase, useQuadrature}},
      {{1, 1.0f, false}, {2, 0.7071f, false}, {5, surround, useQuadrature}}};
  SurroundBake::Stream stream(6, routes);
  std::vector<std::vector<float>> out(2, std::vector<float>(blockFrames));
  std::vector<float*> outputs = {out[0].data(), out[1].data()};
  std::vector<const float*> block(audio.size());
  for (auto _ : state) {
    for (std::int64_t offset = 0; offset < frames; offset += blockFrames) {
      for (std::size_t c = 0; c < audio.size(); ++c) block[c] = audio[c].data() + offset;
      stream.process(block, std::min(blockFrames, frames - offset), outputs);
    }
    benchmark::ClobberMemory();
  }
  reportPerSample(state, frames * 6);
}
BENCHMARK_CAPTURE(bakeToStereo, plain, false)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(bakeToStereo, quadrature, true)->Unit(benchmark::kMillisecond);

}  // namespace
}  // namespace vellum::bench
