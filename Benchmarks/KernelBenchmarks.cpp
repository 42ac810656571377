// Every loop over samples, for each instruction set that this CPU runs.

#include "Audio.hpp"
#include "VellumCore/Kernels/Kernels.hpp"
#include "VellumCore/LoudnessProcessor.hpp"

namespace vellum::bench {
namespace {

constexpr std::int64_t n = 4800;

template <typename Body>
void add(const KernelTable& table, const char* name, std::int64_t samples, Body body) {
  benchmark::RegisterBenchmark((std::string("kernel/") + table.name + "/" + name).c_str(),
                               [body, samples](benchmark::State& state) {
                                 for (auto _ : state) {
                                   body();
                                   benchmark::ClobberMemory();
                                 }
                                 reportPerSample(state, samples);
                               });
}

const bool registered = [] {
  static const auto audio = programme(2, 48000, 1);
  static std::vector<float> out(n), line(n);
  static const float* x = audio[0].data();
  static const float* y = audio[1].data();
  static KWeightingState left, right;
  static KWeightingState* const states[] = {&left, &right};
  static const float* const inputs[] = {x, y};
  static double energies[2];
  const auto k = LoudnessProcessor::computeKWeightingCoefficients(48000);
  const KWeightingCoefficients weighting = {k.stage1[0], k.stage1[1], k.stage1[2], k.stage1[3],
                                            k.stage1[4], k.stage2[3], k.stage2[4]};
  const PolyphaseFolds folds = {{1, 2, 3, 4, 5, 6}, {1, 2, 3, 4, 5, 6}, {1, 2, 3, 4, 5, 6}};
  const PolyphaseTaps taps = {{{1, 2, 3, 4, 5, 6}, {1, 2, 3, 4, 5, 6}, {1, 2, 3, 4, 5, 6}}};

  static const auto odd = programme(1, 48000, 0.001);  // 48 values
  constexpr std::int64_t oddTaps = 25;

  const KernelTables runnable = runnableKernels();
  for (int t = 0; t < runnable.count; ++t) {
    const KernelTable& table = *runnable.tables[t];
    add(table, "sum", n, [&table] { benchmark::DoNotOptimize(table.sum(x, n)); });
    add(table, "sumOfSquares", n, [&table] { benchmark::DoNotOptimize(table.sumOfSquares(x, n)); });
    add(table, "peakMagnitude", n, [&table] { benchmark::DoNotOptimize(table.peakMagnitude(x, n)); });
    add(table, "nonFiniteCount", n, [&table] { benchmark::DoNotOptimize(table.nonFiniteCount(x, n)); });
    add(table, "add", n, [&table] { table.add(out.data(), x, n); });
    add(table, "scale", n, [&table] { table.scale(out.data(), 0.5f, n); });
    add(table, "multiply", n, [&table] { table.multiply(x, y, out.data(), n); });
    add(table, "power", n, [&table] { table.power(x, y, out.data(), n); });
    add(table, "oversampledPeaks", n,
        [&table, folds] { benchmark::DoNotOptimize(table.oversampledPeaks(folds, x, nullptr, n)); });
    add(table, "raiseToTapPeaks", n, [&table, taps] { table.raiseToTapPeaks(taps, x, out.data(), n); });
    add(table, "ceilingGains", n, [&table] { table.ceilingGains(0.5f, out.data(), n); });
    add(table, "exchangeWithGain", n, [&table] { table.exchangeWithGain(out.data(), line.data(), y, n); });
    add(table, "multiplyAdd", n, [&table] { table.multiplyAdd(out.data(), 0.5f, x, n); });
    add(table, "correlateOddTaps", n, [&table] {
      table.correlateOddTaps({odd[0].data(), oddTaps}, x + 2 * oddTaps, out.data(), n);
    });
    for (const std::int64_t channels : {1, 2})
      add(table, channels == 1 ? "kWeightedEnergy/mono" : "kWeightedEnergy/pair", n * channels,
          [&table, weighting, channels] {
            table.kWeightedEnergy(weighting, states, inputs, energies, channels, n);
          });
  }
  return true;
}();

}  // namespace
}  // namespace vellum::bench
