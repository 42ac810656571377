#include "VellumCore/SignalStream.hpp"

#include <algorithm>
#include <cmath>
#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <rapidcheck/gtest.h>

#include "Support/AllocationCounter.hpp"
#include "Support/GeneratorModules.hpp"
#include "Support/Signals.hpp"
#include "VellumCore/ModuleSignal.hpp"
#include "VellumCore/SignalGenerator.hpp"

namespace vellum {
namespace {

using namespace test;
using Source = GeneratorSource;

// The whole stream in these pieces.
std::vector<std::vector<float>> pieced(SignalStream& stream, const std::vector<std::int64_t>& splits) {
  Audio audio(static_cast<std::size_t>(stream.channelCount()), stream.frameCount());
  std::int64_t offset = 0;
  for (const std::int64_t n : splits) {
    std::vector<float*> pointers;
    for (auto& channel : audio.channels) pointers.push_back(channel.data() + offset);
    EXPECT_EQ(stream.position(), offset);
    EXPECT_EQ(stream.render(pointers, n), n);
    offset += n;
  }
  return audio.channels;
}

// Every source and every envelope, over two channels.
GeneratorSpec everything() {
  auto tone = moduleOf({Source::Sine{440}}, 0.3, -6);
  tone.levelSweep = LevelSweep{-60, 0, LevelSweepShape::logarithmic};
  tone.burst = BurstGate{0.03, 0.02, 4, 5};
  auto square = startingAt(0.05, moduleOf({Source::Square{31}}, 0.4, -9));
  square.fadeInSeconds = 0.1;
  square.fadeOutSeconds = 0.35;
  auto saw = startingAt(0.3, moduleOf({Source::Sawtooth{3000}}, 0.4, -9));
  saw.levelSweep = LevelSweep{-200, -1, LevelSweepShape::linear};
  auto impulse = moduleOf({Source::Impulse{}}, 0.5);
  impulse.burst = BurstGate{0.011, 0.003, 0, 2};
  auto spec =
      specOf({{tone, square, saw, impulse},
              {moduleOf({Source::Noise{NoiseColor::pink}}, 0.2, -20), moduleOf({Source::Silence{}}, 0.4),
               startingAt(0.1, moduleOf({Source::Noise{NoiseColor::brown}}, 0.9, -20)),
               startingAt(0.2, moduleOf({Source::Noise{NoiseColor::white}}, 0.2, -30)),
               startingAt(0.1, moduleOf({Source::Sweep{20, 20000, SweepShape::logarithmic}}, 0.3)),
               startingAt(0.2, moduleOf({Source::Sweep{9000, 20, SweepShape::linear}}, 0.3)),
               moduleOf({Source::Triangle{50}}, 0.6, -20)}});
  spec.duration = 0.6;  // some modules are cut
  return spec;
}

TEST(SignalStream, AnySplitEqualsTheWhole) {
  for (const std::optional<float> ceiling : {std::optional<float>{}, {-12.0f}}) {
    auto spec = everything();
    spec.peakCeilingDB = ceiling;
    const auto whole = SignalGenerator::render(spec);
    std::mt19937 rng(59);
    for (int trial = 0; trial < 20; ++trial) {
      SignalStream stream(spec);
      ASSERT_EQ(pieced(stream, randomSplits(rng, stream.frameCount())), whole) << trial;
    }
    SignalStream stream(spec), frameByFrame(spec);
    EXPECT_EQ(pieced(stream, {stream.frameCount()}), whole);
    EXPECT_EQ(pieced(frameByFrame, equalSplits(stream.frameCount(), 1)), whole);
  }
}

TEST(SignalStream, KeepsToTheHarmonicCap) {
  const auto spec = everything();
  SignalStream stream(spec, 3);
  const auto capped = pieced(stream, {stream.frameCount()});
  EXPECT_EQ(capped, SignalGenerator::render(spec, 3));
  EXPECT_NE(capped, SignalGenerator::render(spec));
}

// Modules come in and go in any order, hundreds at a time.
TEST(SignalStream, ManyModulesInAnyOrderEqualTheWhole) {
  std::mt19937 rng(67);
  std::uniform_real_distribution<double> seconds(0, 1);
  std::vector<GeneratorModule> modules;
  for (int m = 0; m < 1000; ++m) {
    const Source source = m % 3 == 0   ? Source{Source::Noise{NoiseColor::pink}}
                          : m % 3 == 1 ? Source{Source::Sawtooth{300.0 + m}}
                                       : Source{Source::Sine{100.0 + m}};
    modules.push_back(
        startingAt(seconds(rng), moduleOf(source, 0.001 + 0.3 * seconds(rng) * seconds(rng), -40)));
  }
  for (const std::optional<float> ceiling : {std::optional<float>{}, {-30.0f}}) {
    auto spec = specOf({modules, {modules.begin(), modules.begin() + 10}});
    spec.peakCeilingDB = ceiling;
    SignalStream stream(spec);
    EXPECT_EQ(pieced(stream, randomSplits(rng, stream.frameCount())), SignalGenerator::render(spec));
  }
}

TEST(SignalStream, LevelsWithoutAPlaceIn32BitEqualTheWhole) {
  const auto loud = moduleOf({Source::Sine{997}}, 0.1, 800);
  const auto spec =
      specOf({{loud, startingAt(0.01, loud), moduleOf({Source::Noise{NoiseColor::white}}, 0.1, 800)}});
  SignalStream stream(spec);
  const auto streamed = pieced(stream, equalSplits(stream.frameCount(), 700));
  EXPECT_EQ(streamed, SignalGenerator::render(spec));
  for (const float value : streamed[0]) ASSERT_TRUE(std::isfinite(value));
}

TEST(SignalStream, APassAheadInAnyStepsChangesNothing) {
  auto spec = everything();
  spec.peakCeilingDB = -12;
  const auto whole = SignalGenerator::render(spec);
  for (const std::int64_t step : {1000, 777, 1 << 20}) {
    SignalStream stream(spec);
    std::int64_t left = stream.unmeasuredFrames();
    while (left > 0) {
      stream.measure(step);
      EXPECT_EQ(stream.position(), 0);
      const std::int64_t now = stream.unmeasuredFrames();
      ASSERT_EQ(now, std::max<std::int64_t>(0, left - step));
      left = now;
    }
    EXPECT_EQ(pieced(stream, {stream.frameCount()}), whole);
  }
  // Left in the middle, the first frames do the rest.
  SignalStream stream(spec);
  stream.measure(stream.unmeasuredFrames() / 2);
  EXPECT_EQ(pieced(stream, equalSplits(stream.frameCount(), 999)), whole);
}

TEST(SignalStream, OnlyNoiseShapesAndACeilingTakeAPassAhead) {
  auto spec =
      specOf({{moduleOf({Source::Sine{440}}), moduleOf({Source::Impulse{}})},
              {moduleOf({Source::Silence{}}), moduleOf({Source::Sweep{20, 200, SweepShape::linear}})}});
  EXPECT_EQ(SignalStream(spec).unmeasuredFrames(), 0);
  spec.channels[1].modules.push_back(moduleOf({Source::Noise{NoiseColor::white}}, 0.5));
  EXPECT_EQ(SignalStream(spec).unmeasuredFrames(), 24000);
  spec.channels[0].modules.push_back(startingAt(0.5, moduleOf({Source::Triangle{440}}, 0.25)));
  EXPECT_EQ(SignalStream(spec).unmeasuredFrames(), 36000);
  spec.peakCeilingDB = -1;
  EXPECT_EQ(SignalStream(spec).unmeasuredFrames(), 84000);
  spec.peakCeilingDB = -200;
  EXPECT_EQ(SignalStream(spec).unmeasuredFrames(), 36000);
  // What is not heard needs no pass; what is heard in part needs the whole.
  spec.duration = 0.5;
  EXPECT_EQ(SignalStream(spec).unmeasuredFrames(), 24000);
  spec.duration = 0.1;
  EXPECT_EQ(SignalStream(spec).unmeasuredFrames(), 24000);
  spec.channels[1].modules.back().gainDB = -200;
  EXPECT_EQ(SignalStream(spec).unmeasuredFrames(), 0);
}

TEST(SignalStream, ChannelsThatAreNotWantedLeaveTheOthersAlone) {
  const auto spec = everything();
  const auto whole = SignalGenerator::render(spec);
  SignalStream stream(spec);
  std::vector<float> second(static_cast<std::size_t>(stream.frameCount()));
  for (std::int64_t offset = 0; offset < stream.frameCount(); offset += 1000) {
    // The noise of the second channel goes on while nobody listens.
    const bool isWanted = offset / 1000 % 2 == 1;
    float* const pointers[] = {nullptr, isWanted ? second.data() + offset : nullptr};
    stream.render(pointers, 1000);
  }
  for (std::size_t i = 0; i < second.size(); ++i)
    ASSERT_EQ(second[i], i / 1000 % 2 == 1 ? whole[1][i] : 0) << i;
}

TEST(SignalStream, EndsWithTheFile) {
  SignalStream stream(specOf({{moduleOf({Source::Sine{440}}, 0.01)}}));
  std::vector<float> x(1000, 7);
  float* const pointers[] = {x.data()};
  EXPECT_EQ(stream.render(pointers, -1), 0);
  EXPECT_EQ(stream.render(pointers, 1000), 480);
  EXPECT_EQ(x[480], 7);
  EXPECT_EQ(stream.render(pointers, 1000), 0);
  EXPECT_EQ(stream.position(), 480);
}

TEST(SignalStream, WithoutFramesOrChannelsThereIsNothing) {
  for (auto spec : {specOf({}), specOf({{}})}) {
    SignalStream stream(spec);
    EXPECT_EQ(stream.channelCount(), 0);
    EXPECT_EQ(stream.frameCount(), 0);
    EXPECT_EQ(stream.render({}, 100), 0);
  }
  auto spec = specOf({{moduleOf({Source::Sine{440}})}});
  spec.sampleRate = -1;
  EXPECT_EQ(SignalStream(spec).channelCount(), 0);
}

TEST(SignalStream, TakesOnePointerPerChannel) {
  SignalStream stream(specOf({{moduleOf({Source::Sine{440}})}}));
  EXPECT_DEATH(stream.render({}, 10), "one pointer per channel");
}

TEST(SignalStream, AllocatesNothingAfterItsConstruction) {
  if (!AllocationCounter::isAvailable) GTEST_SKIP() << "not under a sanitizer";
  auto spec = everything();
  spec.peakCeilingDB = -12;
  SignalStream stream(spec);
  std::vector<float> x(20'000);
  float* const pointers[] = {x.data(), nullptr};
  const AllocationCounter allocations;
  stream.measure(10'000);
  while (stream.render(pointers, 20'000) > 0) {
  }
  EXPECT_EQ(allocations.count(), 0);
}

// --- One module ------------------------------------------------------------------------------------------

TEST(ModuleSignal, PiecesEqualTheWholeThoughNothingWasMeasuredAndTheyComeAgainAfterARewind) {
  std::mt19937 rng(61);
  for (const auto& channel : everything().channels)
    for (const GeneratorModule& module : channel.modules) {
      const auto whole = SignalGenerator::renderModule(module, 48000, 7);
      const auto frames = static_cast<std::int64_t>(whole.size());
      ModuleSignal signal(module, 48000, 7, {});
      ASSERT_EQ(signal.frameCount(), frames);
      for (int trial = 0; trial < 3; ++trial) {
        std::vector<float> x(whole.size() + 100, 7);
        std::int64_t offset = 0;
        for (const std::int64_t n : randomSplits(rng, frames + 100)) {
          signal.render(x.data() + offset, n);
          offset += n;
        }
        ASSERT_TRUE(std::equal(whole.begin(), whole.end(), x.begin()));
        // Silent after its last frame.
        ASSERT_EQ(std::vector<float>(x.begin() + frames, x.end()), std::vector<float>(100));
        signal.rewind();
      }
    }
}

// --- Random documents ------------------------------------------------------------------------------------

double any(double low, double high) {
  return low + (high - low) * static_cast<double>(*rc::gen::inRange(0, 1'000'001)) / 1e6;
}

GeneratorSource anySource(double nyquist) {
  const double frequency = nyquist * std::pow(10.0, any(-8, -0.001));
  switch (*rc::gen::inRange(0, 8)) {
    case 0:
      return {Source::Silence{}};
    case 1:
      return {Source::Sine{frequency}};
    case 2:
      return {Source::Square{frequency}};
    case 3:
      return {Source::Sawtooth{frequency}};
    case 4:
      return {Source::Triangle{frequency}};
    case 5:
      return {Source::Noise{*rc::gen::element(NoiseColor::white, NoiseColor::pink, NoiseColor::brown)}};
    case 6:
      return {Source::Impulse{}};
    default:
      return {Source::Sweep{frequency, nyquist * std::pow(10.0, any(-8, -0.001)),
                            *rc::gen::element(SweepShape::linear, SweepShape::logarithmic)}};
  }
}

// Valid, of at most a few thousand frames.
GeneratorSpec anySpec() {
  std::vector<std::vector<GeneratorModule>> channels(static_cast<std::size_t>(*rc::gen::inRange(1, 4)));
  const double sampleRate = *rc::gen::element(0.5, 1000.0, 44100.0, 1e6);
  const double second = 3000 / sampleRate;
  const double mostDB = *rc::gen::element(40, 40, 40, 1600);  // 32 bit ends at 770
  for (auto& modules : channels)
    for (int m = *rc::gen::inRange(0, 4); m > 0; --m) {
      auto module =
          moduleOf(anySource(sampleRate / 2), any(0.01, 1) * second, static_cast<float>(any(-220, mostDB)));
      module.start = any(0, 0.5) * second;
      if (*rc::gen::arbitrary<bool>())
        module.levelSweep =
            LevelSweep{static_cast<float>(any(-220, mostDB)), static_cast<float>(any(-220, mostDB)),
                       *rc::gen::element(LevelSweepShape::linear, LevelSweepShape::logarithmic)};
      if (*rc::gen::arbitrary<bool>())
        module.burst = BurstGate{any(-0.1, 0.3) * second, any(-0.1, 0.3) * second, *rc::gen::inRange(-2, 5),
                                 any(-1, 200) * second};
      module.fadeInSeconds = any(-0.1, 1) * second;
      module.fadeOutSeconds = any(-0.1, 1) * second;
      modules.push_back(module);
    }
  auto spec = specOf(std::move(channels));
  spec.sampleRate = sampleRate;
  if (*rc::gen::arbitrary<bool>()) spec.duration = any(0, 1.5) * second;
  // Under a low ceiling the gain of infinite levels would lack digits.
  if (*rc::gen::arbitrary<bool>()) spec.peakCeilingDB = static_cast<float>(any(mostDB > 40 ? 20 : -220, 20));
  return spec;
}

RC_GTEST_PROP(SignalStream, AnyValidDocumentRendersToItsFramesWithoutANonFiniteValue, ()) {
  const GeneratorSpec spec = anySpec();
  RC_PRE(!spec.validate());
  std::optional<std::int64_t> cap;
  if (*rc::gen::arbitrary<bool>()) cap = *rc::gen::inRange(-1, 100);
  const auto whole = SignalGenerator::render(spec, cap);
  RC_ASSERT(whole.size() == spec.channels.size());
  const float ceiling = spec.peakCeilingDB && *spec.peakCeilingDB > -200
                            ? static_cast<float>(amplitudeOf(static_cast<double>(*spec.peakCeilingDB)))
                            : HUGE_VALF;
  for (const auto& channel : whole) {
    RC_ASSERT(static_cast<std::int64_t>(channel.size()) == spec.frameCount());
    for (const float value : channel) {
      RC_ASSERT(std::isfinite(value));
      RC_ASSERT(std::fabs(value) <= ceiling * 1.000001f);
    }
  }
  std::mt19937 rng(static_cast<std::uint32_t>(*rc::gen::inRange(0, 1 << 30)));
  SignalStream stream(spec, cap);
  const auto splits = randomSplits(rng, stream.frameCount());
  RC_ASSERT(pieced(stream, splits) == whole);
}

}  // namespace
}  // namespace vellum
