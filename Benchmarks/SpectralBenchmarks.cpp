#include <random>

#include "Audio.hpp"
#include "VellumCore/FFTProcessor.hpp"
#include "VellumCore/SpectralMask.hpp"
#include "VellumCore/SpectralWand.hpp"

namespace vellum::bench {
namespace {

// One frame of a display, in which the bare transform of the same size is most of the work.
void analyserFrame(benchmark::State& state) {
  const std::int64_t size = state.range(0);
  const auto audio = programme(1, 48000, 2);
  FFTProcessor processor(size, 48000, FFTWindowType::hann);
  for (auto _ : state) {
    benchmark::DoNotOptimize(processor.process(audio[0].data(), size).data());
    benchmark::ClobberMemory();
  }
  reportPerSample(state, size);
}
BENCHMARK(analyserFrame)->RangeMultiplier(2)->Range(1024, 16384);

std::vector<float> levels(std::int64_t columns, std::int64_t bins, double holesShare) {
  std::vector<float> values(static_cast<std::size_t>(columns * bins));
  std::mt19937 rng(7);
  for (float& value : values) value = static_cast<double>(rng()) < holesShare * 0x1p32 ? -90.0f : -30.0f;
  return values;
}

// 1,025 bins are a transform of 2,048; 600 columns are 6 seconds of them at 48 kHz.
void wandCells(benchmark::State& state) {
  const std::int64_t columns = 600, bins = 1025;
  const auto values = levels(columns, bins, static_cast<double>(state.range(0)) / 100);
  std::size_t cells = 0;
  for (auto _ : state) {
    const auto region =
        SpectralWand::grow(values, columns, bins, columns / 2, bins / 2, 20, {}, columns * bins);
    cells = region.size();
    benchmark::DoNotOptimize(region.data());
  }
  state.counters["cells"] = static_cast<double>(cells);
  state.counters["per_cell"] =
      benchmark::Counter(static_cast<double>(cells),
                         benchmark::Counter::kIsIterationInvariantRate | benchmark::Counter::kInvert);
}
BENCHMARK(wandCells)->ArgName("percentQuiet")->Arg(0)->Arg(20);

// A few cells of a grid of ten minutes: the grid's size must not show.
void wandFewCellsOfLongGrid(benchmark::State& state) {
  const std::int64_t columns = 60000, bins = 1025;
  const auto values = levels(columns, bins, 0);
  for (auto _ : state)
    benchmark::DoNotOptimize(
        SpectralWand::grow(values, columns, bins, columns / 2, bins / 2, 20, {}, 100).data());
}
BENCHMARK(wandFewCellsOfLongGrid);

// A second at 48 kHz under a brush as wide as a tenth of it.
void maskOfBrushStrokes(benchmark::State& state) {
  for (auto _ : state) {
    SpectralMask mask(1025);
    for (int k = 0; k < 94; ++k) mask.stampEllipse(k, 300 + 2 * k, 10, 40, CombineMode::add);
    benchmark::DoNotOptimize(mask.selectedCellCount());
  }
}
BENCHMARK(maskOfBrushStrokes);

}  // namespace
}  // namespace vellum::bench
