// The meter, stage by stage and whole, in ns per channel-sample.

#include "Audio.hpp"
#include "VellumCore/DRProcessor.hpp"
#include "VellumCore/LoudnessProcessor.hpp"
#include "VellumCore/SpeechVAD.hpp"

namespace vellum::bench {
namespace {

constexpr double seconds = 10;

enum class Stage { process, truePeak, whole };

// Feeds the programme again and again in chunks of range(2) frames.
void meter(benchmark::State& state, Stage stage) {
  const auto channels = state.range(0), rate = state.range(1), chunk = state.range(2);
  const auto audio = programme(static_cast<std::size_t>(channels), static_cast<double>(rate), seconds);
  const auto frames = static_cast<std::int64_t>(audio[0].size());
  LoudnessProcessor meter({.sampleRate = static_cast<double>(rate),
                           .channelCount = channels,
                           .precomputedSpeechHistory = std::nullopt,
                           .channelWeights = std::nullopt});
  std::vector<const float*> pointers(audio.size());
  for (auto _ : state) {
    for (std::int64_t offset = 0; offset < frames; offset += chunk) {
      for (std::size_t c = 0; c < audio.size(); ++c) pointers[c] = audio[c].data() + offset;
      const std::int64_t n = std::min(chunk, frames - offset);
      if (stage != Stage::process) meter.updateTruePeak(pointers, n);
      if (stage != Stage::truePeak) meter.process(pointers, n);
    }
    benchmark::DoNotOptimize(meter.integratedLUFS());
    state.PauseTiming();
    meter.resetState();
    state.ResumeTiming();
  }
  reportPerSample(state, frames * channels);
}

void everyFormat(benchmark::internal::Benchmark* benchmark) {
  benchmark->ArgNames({"channels", "rate", "chunk"})->Unit(benchmark::kMillisecond);
  for (const int channels : {1, 2, 6})
    for (const int rate : {48000, 96000})
      for (const int chunk : {1, 64, 480, 4800}) benchmark->Args({channels, rate, chunk});
}

BENCHMARK_CAPTURE(meter, whole, Stage::whole)->Apply(everyFormat);
BENCHMARK_CAPTURE(meter, process, Stage::process)
    ->Args({1, 48000, 4800})
    ->Args({2, 48000, 4800})
    ->Args({6, 48000, 4800});
BENCHMARK_CAPTURE(meter, truePeak, Stage::truePeak)
    ->Args({1, 48000, 4800})
    ->Args({2, 48000, 4800})
    ->Args({6, 48000, 4800});

// One 100 ms block of mono, as the meter asks once per block.
void speechDetector(benchmark::State& state) {
  const auto audio = programme(1, 48000, 1);
  SpeechVAD detector(48000);
  std::size_t offset = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(detector.isSpeech(std::span<const float>(audio[0]).subspan(offset, 4800)));
    offset = (offset + 4800) % 48000;
  }
  reportPerSample(state, 4800);
}
BENCHMARK(speechDetector);

void dynamicRange(benchmark::State& state) {
  const auto audio = programme(2, 48000, seconds);
  const std::vector<const float*> pointers = {audio[0].data(), audio[1].data()};
  const auto frames = static_cast<std::int64_t>(audio[0].size());
  for (auto _ : state) benchmark::DoNotOptimize(DRProcessor::computeDR(pointers, 2, frames, 48000));
  reportPerSample(state, frames * 2);
}
BENCHMARK(dynamicRange);

// What one block costs after ten minutes, ten hours and a day. Short blocks and given speech flags leave
// little but the statistics to be timed; every second block is speech, so that all four of them grow.
void blockAfter(benchmark::State& state) {
  constexpr double rate = 500;  // one of the low rates at which the K-weighting happens to be stable
  constexpr std::int64_t blockFrames = 50, blocksPerMinute = 600, timedBlocks = 6000;
  const std::int64_t heldBlocks = state.range(0) * blocksPerMinute;
  std::vector<bool> speech(static_cast<std::size_t>(heldBlocks + timedBlocks));
  for (std::size_t b = 0; b < speech.size(); b += 2) speech[b] = true;
  LoudnessProcessor meter({.sampleRate = rate,
                           .channelCount = 1,
                           .precomputedSpeechHistory = std::move(speech),
                           .channelWeights = std::nullopt});
  std::mt19937 rng(3);
  std::vector<float> block(blockFrames);
  const float* pointer = block.data();
  const auto nextBlock = [&] {
    const float level = 0.02f + static_cast<float>(rng() % 1000) * 0.0005f;
    for (std::size_t n = 0; n < block.size(); ++n) block[n] = n % 2 ? level : -level;
    meter.process(std::span(&pointer, 1), blockFrames);
  };
  for (std::int64_t b = 0; b < heldBlocks; ++b) nextBlock();
  for (auto _ : state) nextBlock();
}
BENCHMARK(blockAfter)->ArgName("minutes")->Arg(1)->Arg(10)->Arg(600)->Arg(1440)->Iterations(6000);

}  // namespace
}  // namespace vellum::bench
