// The spectral edit kernel, in ns per sample, and an edit in files of different lengths.

#include <algorithm>
#include <ctime>
#include <random>
#include <string>

#include "Audio.hpp"
#include "VellumCore/Fourier/RealFFT.hpp"
#include "VellumCore/SpectralEditKernel.hpp"

#ifdef VELLUM_HAS_APPLICATION
#include "VellumApp/SpectralEdit.hpp"
#endif

namespace vellum::bench {
namespace {

using SpectralEditKernel::Operation;

constexpr double rate = 48000;

// Of this process, so that a busy machine does not blur a ratio.
double cpuSeconds() {
  return static_cast<double>(std::clock()) / CLOCKS_PER_SEC;
}

std::vector<float> tenSeconds() {
  return programme(1, rate, 10)[0];
}

// A round trip beside no more than its transforms, by turns: "to_bare" is how many times longer it takes.
void spectralRoundTrip(benchmark::State& state) {
  const std::int64_t size = state.range(0);
  const SpectralGridConfig config(size, rate);
  const std::vector<float> samples = tenSeconds();
  const auto length = static_cast<std::int64_t>(samples.size());
  RealFFT fft(size);
  std::vector<float> re(static_cast<std::size_t>(fft.binCount())), im(re.size()),
      frame(static_cast<std::size_t>(size));
  double bareSec = 0, wholeSec = 0;
  for (auto _ : state) {
    const double start = cpuSeconds();
    for (std::int64_t c = 0; c < config.columnCount(length); ++c) {
      fft.forward({samples.data() + c * config.hop(), frame.size()}, re, im);
      fft.inverse(re, im, frame);
      benchmark::DoNotOptimize(frame.data());
      benchmark::ClobberMemory();
    }
    const double middle = cpuSeconds();
    benchmark::DoNotOptimize(SpectralEditKernel::roundTrip(samples, config).data());
    const double end = cpuSeconds();
    bareSec += middle - start;
    wholeSec += end - middle;
    state.SetIterationTime(end - middle);
  }
  reportPerSample(state, length);
  state.counters["to_bare"] = wholeSec / bareSec;
}
BENCHMARK(spectralRoundTrip)->Arg(512)->Arg(2048)->Arg(8192)->UseManualTime()->Unit(benchmark::kMillisecond);

void spectralEdit(benchmark::State& state, Operation operation) {
  const SpectralGridConfig config(2048, rate);
  const std::vector<float> samples = tenSeconds();
  SpectralMask mask(config.binCount());
  mask.rasterizeRect({100, 800}, {20, 400}, CombineMode::replace);
  for (auto _ : state)
    benchmark::DoNotOptimize(SpectralEditKernel::process(samples, config, mask, operation, {10, 50}).data());
  reportPerSample(state, 700 * config.hop());
}
BENCHMARK_CAPTURE(spectralEdit, attenuate, {Operation::Attenuate{-20}})->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(spectralEdit, eraseToFloor, {Operation::EraseToFloor{0}})->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(spectralEdit, repair, {Operation::Repair{}})->Unit(benchmark::kMillisecond);

void spectrogramLevels(benchmark::State& state) {
  const SpectralGridConfig config(2048, rate);
  const std::vector<float> samples = tenSeconds();
  for (auto _ : state)
    benchmark::DoNotOptimize(SpectralEditKernel::displayMagnitudesDb(samples, config).values.data());
  reportPerSample(state, static_cast<std::int64_t>(samples.size()));
}
BENCHMARK(spectrogramLevels)->Unit(benchmark::kMillisecond);

#ifdef VELLUM_HAS_APPLICATION
// CPU time of an edit of one second in the middle of a stereo programme of so many seconds, which is never
// decoded or in memory.
double oneSecondEditSec(const std::vector<float>& period, double seconds) {
  const SpectralEditor::Source source = {
      .sampleRate = rate,
      .channelCount = 2,
      .frameCount = static_cast<std::int64_t>(seconds * rate),
      .read = [&](std::int64_t, std::int64_t firstFrame, std::span<float> samples) {
        const auto start = static_cast<std::size_t>(firstFrame) % period.size();
        for (std::size_t n = 0; n < samples.size(); ++n) samples[n] = period[(start + n) % period.size()];
        return true;
      }};
  const double from = seconds / 2;
  const EditStep step = {.name = "",
                         .selection = {{.shape = EditSelection::Rect{from, from + 1, 300, 3000},
                                        .mode = CombineMode::add,
                                        .grow = {}}},
                         .operation = {Operation::EraseToFloor{0}},
                         .feather = EditDefaults::feather,
                         .fftSize = EditDefaults::fftSize,
                         .crossfadeMs = EditDefaults::crossfadeMs,
                         .channels = {}};
  const double start = cpuSeconds();
  SpectralEditor editor(source);
  benchmark::DoNotOptimize(editor.apply(step, 0));
  return cpuSeconds() - start;
}

// What a file's length costs apart from reading and writing it. By turns with a minute: "to_minute" is how
// many times longer the edit takes, and at most 1.5.
void oneSecondEdit(benchmark::State& state) {
  const std::vector<float> period = programme(1, rate, 7)[0];
  double minuteSec = 0, wholeSec = 0;
  for (auto _ : state) {
    minuteSec += oneSecondEditSec(period, 60);
    const double took = oneSecondEditSec(period, static_cast<double>(state.range(0)));
    wholeSec += took;
    state.SetIterationTime(took);
  }
  state.counters["to_minute"] = wholeSec / minuteSec;
}
BENCHMARK(oneSecondEdit)
    ->ArgName("seconds")
    ->Arg(60)
    ->Arg(7200)
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond);
#endif

}  // namespace
}  // namespace vellum::bench
