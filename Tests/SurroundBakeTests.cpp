#include "VellumCore/SurroundBake.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <limits>
#include <numbers>
#include <random>
#include <vector>

#include "Support/AllocationCounter.hpp"
#include "Support/Signals.hpp"

namespace vellum {
namespace {

using SurroundBake::render;
using SurroundBake::Route;
using Channels = std::vector<std::vector<float>>;
using Routes = std::vector<std::vector<Route>>;

Channels noiseChannels(std::mt19937& rng, std::size_t count, std::int64_t frames) {
  return test::noiseAudio(rng, count, frames, 1.0).channels;
}

bool asksForQuadrature(const Routes& outputs) {
  for (const auto& routes : outputs)
    for (const Route& route : routes)
      if (route.useQuadrature) return true;
  return false;
}

// The render as a plain sum: every feed's sample, 50 late where any route asks for quadrature, and its
// correlation with all 101 taps.
std::vector<std::vector<long double>> plainRender(const Channels& source, const Routes& outputs) {
  const auto frames = source.empty() ? 0 : static_cast<std::int64_t>(source[0].size());
  const std::int64_t delay = asksForQuadrature(outputs) ? 50 : 0;
  const HilbertPhaseShifter shifter(101, 1);
  const auto sample = [&](std::int64_t s, std::int64_t n) {
    return n < 0 ? 0.0L
                 : static_cast<long double>(source[static_cast<std::size_t>(s)][static_cast<std::size_t>(n)]);
  };
  std::vector<std::vector<long double>> result;
  for (const auto& routes : outputs) {
    auto& out = result.emplace_back(static_cast<std::size_t>(frames));
    for (const Route& route : routes) {
      if (route.source < 0 || route.source >= static_cast<std::int64_t>(source.size())) continue;
      for (std::int64_t n = 0; n < frames; ++n) {
        long double feed = sample(route.source, n - delay);
        if (route.useQuadrature) {
          feed = 0;
          for (std::int64_t j = 0; j < 101; ++j)
            feed += static_cast<long double>(shifter.coef()[static_cast<std::size_t>(j)]) *
                    sample(route.source, n + j - 100);
        }
        out[static_cast<std::size_t>(n)] += static_cast<long double>(route.gain) * feed;
      }
    }
  }
  return result;
}

void expectPlain(const Channels& source, const Routes& outputs) {
  const Channels actual = render(source, outputs, 48000);
  const auto expected = plainRender(source, outputs);
  ASSERT_EQ(actual.size(), expected.size());
  for (std::size_t o = 0; o < actual.size(); ++o) {
    ASSERT_EQ(actual[o].size(), expected[o].size());
    for (std::size_t n = 0; n < actual[o].size(); ++n)
      ASSERT_NEAR(actual[o][n], static_cast<double>(expected[o][n]), 4e-6) << "output " << o << " at " << n;
  }
}

Channels renderInPieces(const Channels& source, const Routes& outputs,
                        const std::vector<std::int64_t>& splits) {
  SurroundBake::Stream stream(static_cast<std::int64_t>(source.size()), outputs);
  Channels result(outputs.size());
  std::size_t offset = 0;
  for (const std::int64_t n : splits) {
    std::vector<const float*> from;
    for (const auto& channel : source) from.push_back(channel.data() + offset);
    Channels piece(outputs.size(), std::vector<float>(static_cast<std::size_t>(n), 7.0f));
    std::vector<float*> to;
    for (auto& channel : piece) to.push_back(channel.data());
    stream.process(from, n, to);
    for (std::size_t o = 0; o < piece.size(); ++o)
      result[o].insert(result[o].end(), piece[o].begin(), piece[o].end());
    offset += static_cast<std::size_t>(n);
  }
  return result;
}

const Routes plainRoutes = {{{0, 1.0f, false}, {2, 0.7071f, false}}, {{1, -0.5f, false}}, {}};
const Routes mixedRoutes = {{{0, 1.0f, false}, {2, -0.7071f, true}},
                            {{1, 1.0f, false}, {2, 0.7071f, true}, {2, 0.25f, false}},
                            {{1, 0.5f, false}}};

TEST(SurroundBake, RoutesAreComparedMemberByMember) {
  const Route route = {1, 0.5f, true};
  EXPECT_EQ(route, (Route{1, 0.5f, true}));
  EXPECT_NE(route, (Route{2, 0.5f, true}));
  EXPECT_NE(route, (Route{1, 0.25f, true}));
  EXPECT_NE(route, (Route{1, 0.5f, false}));
}

TEST(SurroundBake, NothingGivesNothing) {
  std::mt19937 rng(41);
  const Channels source = noiseChannels(rng, 2, 100);
  EXPECT_EQ(render(source, Routes{}, 48000), Channels{});
  EXPECT_EQ(render(Channels{}, Routes(3), 48000), Channels(3));
  EXPECT_EQ(render(Channels{}, mixedRoutes, 48000), Channels(3));
  EXPECT_EQ(render(Channels(2), mixedRoutes, 48000), Channels(3));
  EXPECT_EQ(render(Channels{}, Routes{}, 48000), Channels{});
}

// To the sample: 32-bit products, added up in the order of the routes.
TEST(SurroundBake, PlainRoutesAreTheSumOfGainedSourcesWithoutDelay) {
  std::mt19937 rng(42);
  for (const std::int64_t frames : {1, 2, 15, 17, 8191, 8192, 8193, 20'000}) {
    const Channels source = noiseChannels(rng, 3, frames);
    const Channels out = render(source, plainRoutes, 48000);
    ASSERT_EQ(out.size(), 3u);
    for (std::size_t n = 0; n < source[0].size(); ++n) {
      float left = 1.0f * source[0][n];
      left += 0.7071f * source[2][n];
      ASSERT_EQ(out[0][n], left) << frames << " " << n;
      ASSERT_EQ(out[1][n], -0.5f * source[1][n]) << frames << " " << n;
    }
  }
}

TEST(SurroundBake, EqualsThePlainSumAcrossBlockBorders) {
  std::mt19937 rng(43);
  for (const std::int64_t frames : {1, 49, 50, 51, 100, 101, 8191, 8192, 8193, 16'384, 16'385}) {
    SCOPED_TRACE(frames);
    const Channels source = noiseChannels(rng, 3, frames);
    expectPlain(source, plainRoutes);
    expectPlain(source, mixedRoutes);
  }
}

TEST(SurroundBake, EqualsThePlainSumForRandomRoutes) {
  std::mt19937 rng(44);
  for (int trial = 0; trial < 60; ++trial) {
    SCOPED_TRACE(trial);
    const auto sources = rng() % 5;
    const Channels source = noiseChannels(rng, sources, 1 + static_cast<std::int64_t>(rng() % 600));
    Routes outputs(rng() % 4);
    for (auto& routes : outputs)
      for (auto left = rng() % 5; left > 0; --left)
        routes.push_back({static_cast<std::int64_t>(rng() % 8) - 2,
                          static_cast<float>(test::uniform(rng, -1, 1)), rng() % 3 == 0});
    expectPlain(source, outputs);
  }
}

TEST(SurroundBake, OneQuadratureRouteDelaysEveryOutputBy50Samples) {
  std::mt19937 rng(45);
  const Channels source = noiseChannels(rng, 2, 9000);
  const Channels out = render(source, Routes{{{0, 1.0f, false}}, {{1, 1.0f, true}}}, 48000);
  for (std::size_t n = 0; n < 9000; ++n) ASSERT_EQ(out[0][n], n < 50 ? 0.0f : source[0][n - 50]) << n;
}

TEST(SurroundBake, OutputsFedByPlainRoutesBeginWith50Zeros) {
  std::mt19937 rng(45);
  const Channels source = noiseChannels(rng, 3, 300);
  const Channels out = render(source, mixedRoutes, 48000);
  EXPECT_TRUE(std::all_of(out[2].begin(), out[2].begin() + 50, [](float x) { return x == 0; }));
  EXPECT_NE(out[2][50], 0.0f);
}

// Asked for by a source that does not exist.
TEST(SurroundBake, AQuadratureRouteWithoutSourceDelaysTheRenderToo) {
  std::mt19937 rng(46);
  const Channels source = noiseChannels(rng, 1, 200);
  for (const std::int64_t missing :
       {std::int64_t{1}, std::int64_t{-1}, std::numeric_limits<std::int64_t>::min(),
        std::numeric_limits<std::int64_t>::max()}) {
    const Channels out = render(source, Routes{{{0, 1.0f, false}, {missing, 1.0f, true}}}, 48000);
    for (std::size_t n = 0; n < 200; ++n) ASSERT_EQ(out[0][n], n < 50 ? 0.0f : source[0][n - 50]) << missing;
  }
}

TEST(SurroundBake, RoutesOfSourcesThatDoNotExistContributeNothing) {
  std::mt19937 rng(47);
  const Channels source = noiseChannels(rng, 2, 100);
  const Channels out = render(
      source, Routes{{{2, 1.0f, false}, {-1, 1.0f, false}}, {{2, 1.0f, false}, {1, 1.0f, false}}}, 48000);
  EXPECT_EQ(out[0], std::vector<float>(100));
  EXPECT_EQ(out[1], source[1]);
}

TEST(SurroundBake, AnOutputWithoutRoutesIsSilentAndAsLong) {
  std::mt19937 rng(48);
  const Channels source = noiseChannels(rng, 1, 8193);
  EXPECT_EQ(render(source, Routes{{}}, 48000)[0], std::vector<float>(8193));
  EXPECT_EQ(render(source, Routes{{}, {{0, 1.0f, true}}}, 48000)[0], std::vector<float>(8193));
}

TEST(SurroundBake, AKilohertzInQuadratureIsItsCosine50SamplesLate) {
  const Channels source = {test::sine(48000, 10'000, 1000, 0.5)};
  const Channels out = render(source, Routes{{{0, 1.0f, true}}}, 48000);
  const auto cosine = test::sine(48000, 10'000, 1000, 0.5, std::numbers::pi / 2, -50);
  for (std::size_t n = 101; n < 10'000; ++n) ASSERT_NEAR(out[0][n], cosine[n], 0.5 * 0.016) << n;
}

TEST(SurroundBake, TheFirstSourceTellsTheLength) {
  std::mt19937 rng(49);
  Channels source = noiseChannels(rng, 2, 300);
  source[0].resize(200);
  const Channels out = render(source, Routes{{{1, 1.0f, false}}}, 48000);
  EXPECT_EQ(out[0], std::vector<float>(source[1].begin(), source[1].begin() + 200));
  source[1].resize(199);
  for (const bool quadrature : {false, true}) {
    EXPECT_DEATH(render(source, Routes{{{1, 1.0f, quadrature}}}, 48000),
                 "SurroundBake: no source of a route may be shorter than the first");
    // A short one that goes nowhere is not read.
    EXPECT_EQ(render(source, Routes{{{0, 1.0f, quadrature}}}, 48000)[0].size(), 200u);
  }
  EXPECT_TRUE(render(source, Routes{}, 48000).empty());
}

TEST(SurroundBake, TheSampleRateHasNoMeaning) {
  std::mt19937 rng(50);
  const Channels source = noiseChannels(rng, 3, 500);
  const Channels out = render(source, mixedRoutes, 48000);
  for (const double rate : {0.0, -1.0, 96000.0, std::numeric_limits<double>::quiet_NaN()})
    EXPECT_EQ(render(source, mixedRoutes, rate), out);
}

// Renders do not influence each other.
TEST(SurroundBake, EveryRenderBeginsAnew) {
  std::mt19937 rng(51);
  const Channels source = noiseChannels(rng, 3, 500);
  EXPECT_EQ(render(source, mixedRoutes, 48000), render(source, mixedRoutes, 48000));
}

TEST(SurroundBakeStream, AnySplitGivesTheSamplesOfTheWhole) {
  std::mt19937 rng(52);
  for (const Routes& routes : {plainRoutes, mixedRoutes})
    for (const std::int64_t frames : {1, 700, 8191, 8192, 8193, 40'000}) {
      const Channels source = noiseChannels(rng, 3, frames);
      const Channels whole = render(source, routes, 48000);
      for (int trial = 0; trial < 5; ++trial)
        ASSERT_EQ(renderInPieces(source, routes, test::randomSplits(rng, frames)), whole) << frames;
      if (frames < 1000) {
        ASSERT_EQ(renderInPieces(source, routes, test::equalSplits(frames, 1)), whole);
      }
    }
}

TEST(SurroundBakeStream, SilenceBehindTheEndBringsOutTheTail) {
  std::mt19937 rng(53);
  Channels source = noiseChannels(rng, 3, 400);
  for (auto& channel : source) channel.resize(450);
  const Channels out = renderInPieces(source, mixedRoutes, {400, 50});
  for (std::size_t n = 0; n < 400; ++n) ASSERT_EQ(out[2][50 + n], 0.5f * source[1][n]) << n;
}

TEST(SurroundBakeStream, TellsItsDelay) {
  EXPECT_EQ(SurroundBake::Stream(3, plainRoutes).delayFrames(), 0);
  EXPECT_EQ(SurroundBake::Stream(3, mixedRoutes).delayFrames(), 50);
  EXPECT_EQ(SurroundBake::Stream(0, mixedRoutes).delayFrames(), 50);
}

TEST(SurroundBakeStream, AnotherNumberOfPointersStopsTheProgram) {
  SurroundBake::Stream stream(2, plainRoutes);
  float samples[1] = {};
  const std::vector<const float*> one(1, samples), two(2, samples);
  const std::vector<float*> outputs(3, samples);
  EXPECT_DEATH(stream.process(one, 1, outputs), "one pointer per source");
  EXPECT_DEATH(stream.process(two, 1, std::vector<float*>(2, samples)), "one pointer per output");
}

TEST(SurroundBakeStream, ProcessAllocatesNothing) {
  if (!test::AllocationCounter::isAvailable) GTEST_SKIP() << "the sanitizer has an allocator of its own";
  std::mt19937 rng(54);
  const Channels source = noiseChannels(rng, 3, 20'000);
  Channels result(3, std::vector<float>(20'000));
  std::vector<const float*> from;
  std::vector<float*> to;
  for (const auto& channel : source) from.push_back(channel.data());
  for (auto& channel : result) to.push_back(channel.data());
  SurroundBake::Stream stream(3, mixedRoutes);
  const test::AllocationCounter counter;
  stream.process(from, 20'000, to);
  stream.process(from, 1, to);
  EXPECT_EQ(counter.count(), 0);
}

}  // namespace
}  // namespace vellum
