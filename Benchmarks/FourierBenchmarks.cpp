#include "Audio.hpp"
#include "VellumCore/Fourier/RealFFT.hpp"

namespace vellum::bench {
namespace {

void realFFT(benchmark::State& state) {
  const std::int64_t size = state.range(0);
  const auto audio = programme(1, 48000, 2);
  RealFFT fft(size);
  std::vector<float> re(static_cast<std::size_t>(fft.binCount())), im(re.size());
  const auto signal = std::span<const float>(audio[0]).first(static_cast<std::size_t>(size));
  for (auto _ : state) {
    fft.forward(signal, re, im);
    benchmark::DoNotOptimize(re.data());
    benchmark::ClobberMemory();
  }
  reportPerSample(state, size);
}
BENCHMARK(realFFT)->RangeMultiplier(4)->Range(256, 65536);

}  // namespace
}  // namespace vellum::bench
