// Test signals, in ns per sample: every source by the streaming renderer, its pass ahead included, and the
// whole-programme renderer beside it.

#include <vector>

#include "Audio.hpp"
#include "VellumCore/SignalGenerator.hpp"
#include "VellumCore/SignalStream.hpp"

namespace vellum::bench {
namespace {

using Source = GeneratorSource;

constexpr double rate = 48000, seconds = 10;

GeneratorSpec specOf(const Source& source) {
  return {.sampleRate = rate,
          .bitDepth = GeneratorBitDepth::int24,
          .container = GeneratorContainer::wav,
          .channels = {{.id = {},
                        .name = "",
                        .modules = {{.id = {},
                                     .start = 0,
                                     .duration = seconds,
                                     .source = source,
                                     .gainDB = -6,
                                     .levelSweep = {},
                                     .burst = {},
                                     .fadeInSeconds = 0,
                                     .fadeOutSeconds = 0}}}},
          .duration = {},
          .peakCeilingDB = {}};
}

void streamed(benchmark::State& state, const GeneratorSpec& spec) {
  std::vector<float> block(4096);
  float* const channels[] = {block.data()};
  for (auto _ : state) {
    SignalStream stream(spec);
    while (stream.render(channels, 4096) > 0) benchmark::ClobberMemory();
  }
  reportPerSample(state, spec.frameCount());
}

void whole(benchmark::State& state, const GeneratorSpec& spec) {
  for (auto _ : state) benchmark::DoNotOptimize(SignalGenerator::render(spec));
  reportPerSample(state, spec.frameCount());
}

void source(benchmark::State& state, const Source& played) {
  streamed(state, specOf(played));
}
void wholeSource(benchmark::State& state, const Source& played) {
  whole(state, specOf(played));
}

BENCHMARK_CAPTURE(source, silence, Source{Source::Silence{}});
BENCHMARK_CAPTURE(source, impulse, Source{Source::Impulse{}});
BENCHMARK_CAPTURE(source, sine_440, Source{Source::Sine{440}});
BENCHMARK_CAPTURE(source, sine_20, Source{Source::Sine{20}});
BENCHMARK_CAPTURE(source, square_440, Source{Source::Square{440}});
BENCHMARK_CAPTURE(source, square_20, Source{Source::Square{20}});
BENCHMARK_CAPTURE(source, sawtooth_440, Source{Source::Sawtooth{440}});
BENCHMARK_CAPTURE(source, sawtooth_20, Source{Source::Sawtooth{20}});
BENCHMARK_CAPTURE(source, triangle_440, Source{Source::Triangle{440}});
BENCHMARK_CAPTURE(source, triangle_20, Source{Source::Triangle{20}});
BENCHMARK_CAPTURE(source, noise_white, Source{Source::Noise{NoiseColor::white}});
BENCHMARK_CAPTURE(source, noise_pink, Source{Source::Noise{NoiseColor::pink}});
BENCHMARK_CAPTURE(source, noise_brown, Source{Source::Noise{NoiseColor::brown}});
BENCHMARK_CAPTURE(source, sweep_linear, Source{Source::Sweep{20, 20000, SweepShape::linear}});
BENCHMARK_CAPTURE(source, sweep_logarithmic, Source{Source::Sweep{20, 20000, SweepShape::logarithmic}});

BENCHMARK_CAPTURE(wholeSource, sine_440, Source{Source::Sine{440}});
BENCHMARK_CAPTURE(wholeSource, square_440, Source{Source::Square{440}});
BENCHMARK_CAPTURE(wholeSource, noise_white, Source{Source::Noise{NoiseColor::white}});
BENCHMARK_CAPTURE(wholeSource, noise_pink, Source{Source::Noise{NoiseColor::pink}});

// What the envelopes add to a module of silence.
void envelopes(benchmark::State& state) {
  auto spec = specOf({Source::Silence{}});
  auto& module = spec.channels[0].modules[0];
  module.levelSweep = LevelSweep{-60, 0, LevelSweepShape::logarithmic};
  module.burst = BurstGate{0.1, 0.1, 0, 20};
  module.fadeInSeconds = module.fadeOutSeconds = seconds / 2;
  streamed(state, spec);
}
BENCHMARK(envelopes);

}  // namespace
}  // namespace vellum::bench
