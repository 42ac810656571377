// Finding chapters, in ns per sample of the mono mix, and measuring them, in ns per channel-sample.

#include <algorithm>

#include "Audio.hpp"
#include "VellumCore/ChapterAnalysis.hpp"
#include "VellumCore/ChapterDetection.hpp"

namespace vellum::bench {
namespace {

constexpr double rate = 48000;

// A mono programme with a pause of 2.5 s in every 30 s.
std::vector<float> spokenProgramme(double seconds) {
  auto mono = programme(1, rate, seconds)[0];
  constexpr auto period = static_cast<std::size_t>(30 * rate), pause = static_cast<std::size_t>(2.5 * rate);
  for (std::size_t start = period - pause; start < mono.size(); start += period)
    std::fill_n(mono.begin() + static_cast<std::ptrdiff_t>(start), std::min(pause, mono.size() - start),
                0.0f);
  return mono;
}

void reportRealTime(benchmark::State& state, std::size_t frames) {
  state.counters["x_real_time"] =
      benchmark::Counter(static_cast<double>(state.iterations()) * static_cast<double>(frames) / rate,
                         benchmark::Counter::kIsRate);
}

// The whole signal at once. Ten minutes leave the cache, as any programme does.
void detectChapters(benchmark::State& state) {
  const auto mono = spokenProgramme(static_cast<double>(state.range(0)));
  const auto settings = ChapterDetectionSettings::defaultValue();
  for (auto _ : state) benchmark::DoNotOptimize(ChapterDetector::detectChapters(mono, rate, settings));
  reportPerSample(state, static_cast<std::int64_t>(mono.size()));
  reportRealTime(state, mono.size());
}
BENCHMARK(detectChapters)->ArgName("seconds")->Arg(10)->Arg(600)->Unit(benchmark::kMillisecond);

// In chunks that no block fits or fills.
void scanInChunks(benchmark::State& state) {
  const auto mono = spokenProgramme(60);
  const auto chunk = static_cast<std::size_t>(state.range(0));
  for (auto _ : state) {
    ChapterDetector::SilenceScanner scanner(rate, ChapterDetectionSettings::defaultValue());
    for (std::size_t start = 0; start < mono.size(); start += chunk)
      scanner.add(std::span(mono).subspan(start, std::min(chunk, mono.size() - start)));
    benchmark::DoNotOptimize(scanner.chapters());
  }
  reportPerSample(state, static_cast<std::int64_t>(mono.size()));
  reportRealTime(state, mono.size());
}
BENCHMARK(scanInChunks)
    ->ArgName("chunk")
    ->Arg(64)
    ->Arg(1000)
    ->Arg(4800)
    ->Arg(16384)
    ->Unit(benchmark::kMillisecond);

// One chapter of 20 s, and one too short for loudness.
void analyseChapter(benchmark::State& state) {
  const auto seconds = static_cast<double>(state.range(0));
  const auto channels = programme(2, rate, seconds);
  const std::vector<Chapter> chapters = {
      {.id = {}, .index = 1, .name = "Chapter 01", .startSec = 0, .endSec = seconds}};
  const ChapterAnalyser::Programme programmeInMemory{.channels = channels,
                                                     .sampleRate = rate,
                                                     .speechHistory = std::vector<bool>(200, true),
                                                     .channelWeights = std::nullopt};
  for (auto _ : state) benchmark::DoNotOptimize(ChapterAnalyser::analyse(chapters, programmeInMemory));
  reportPerSample(state, static_cast<std::int64_t>(channels[0].size() * channels.size()));
  reportRealTime(state, channels[0].size());
}
BENCHMARK(analyseChapter)->ArgName("seconds")->Arg(20)->Arg(9)->Unit(benchmark::kMillisecond);

}  // namespace
}  // namespace vellum::bench
