#include "VellumApp/SampleQuantiser.hpp"

#include <gtest/gtest.h>

#include <bit>
#include <cmath>
#include <cstdint>
#include <limits>
#include <vector>

#include "Support/Signals.hpp"

namespace vellum {
namespace {

using test::Audio;

constexpr float infinity = std::numeric_limits<float>::infinity();
constexpr SampleCoding integerCodings[] = {SampleCoding::pcm16, SampleCoding::pcm24};

double scaleOf(SampleCoding coding) {
  return coding == SampleCoding::pcm16 ? 32768.0 : 8388608.0;
}

void quantise(SampleQuantiser& quantiser, Audio& audio, const Audio* original = nullptr,
              const std::vector<std::int64_t>& splits = {}) {
  std::int64_t at = 0;
  for (const std::int64_t frames : splits.empty() ? std::vector{audio.frameCount()} : splits) {
    std::vector<float*> pointers;
    for (auto& channel : audio.channels) pointers.push_back(channel.data() + at);
    const std::vector<const float*> before = original ? original->pointers(at) : std::vector<const float*>{};
    quantiser.quantise(pointers, before, frames);
    at += frames;
  }
}

Audio quantised(Audio audio, SampleCoding coding, Dither dither, const Audio* original = nullptr) {
  SampleQuantiser quantiser({coding, dither, static_cast<std::int64_t>(audio.channels.size())});
  quantise(quantiser, audio, original);
  return audio;
}

Audio mono(std::vector<float> samples) {
  Audio audio;
  audio.channels = {std::move(samples)};
  return audio;
}

// The errors in steps of the grid.
std::vector<double> errorsOf(const std::vector<float>& exact, const std::vector<float>& rounded,
                             double scale) {
  std::vector<double> errors;
  for (std::size_t n = 0; n < exact.size(); ++n)
    errors.push_back((static_cast<double>(rounded[n]) - static_cast<double>(exact[n])) * scale);
  return errors;
}

double meanOf(const std::vector<double>& values) {
  double sum = 0;
  for (const double value : values) sum += value;
  return sum / static_cast<double>(values.size());
}

double meanProduct(const std::vector<double>& a, const std::vector<double>& b) {
  double sum = 0;
  for (std::size_t n = 0; n < a.size(); ++n) sum += a[n] * b[n];
  return sum / static_cast<double>(a.size());
}

TEST(SampleQuantiser, WithoutDitherEverySampleGoesToTheNearestInteger) {
  std::mt19937 rng(1);
  for (const SampleCoding coding : integerCodings) {
    const Audio exact = test::noiseAudio(rng, 2, 20'000, 0.9);
    const Audio rounded = quantised(exact, coding, Dither::none);
    for (std::size_t c = 0; c < 2; ++c)
      for (std::size_t n = 0; n < exact.channels[c].size(); ++n) {
        const long double scaled = static_cast<long double>(exact.channels[c][n]) * scaleOf(coding);
        ASSERT_EQ(static_cast<long double>(rounded.channels[c][n]) * scaleOf(coding), std::roundl(scaled));
      }
  }
}

TEST(SampleQuantiser, HalvesGoAwayFromZeroAndZeroIsPositive) {
  const float half = 0.5f / 32768;
  const Audio rounded =
      quantised(mono({half, -half, 3 * half, -3 * half, half * 0.99f, -half * 0.99f, -0.0f}),
                SampleCoding::pcm16, Dither::none);
  EXPECT_EQ(rounded.channels[0], (std::vector<float>{2 * half, -2 * half, 4 * half, -4 * half, 0, 0, 0}));
  for (const std::size_t n : {5u, 6u}) EXPECT_FALSE(std::signbit(rounded.channels[0][n]));
}

TEST(SampleQuantiser, ValuesOutsideOfTheRangeAreClampedAndCounted) {
  for (const SampleCoding coding : integerCodings) {
    const double scale = scaleOf(coding);
    const auto step = static_cast<float>(1 / scale);
    const float largest = 1 - step;
    Audio audio = mono({1.0f, largest, -1.0f, -1.0f - step, 2.5f, infinity, -infinity, std::nanf(""), 0.5f,
                        std::numeric_limits<float>::max()});
    SampleQuantiser quantiser({coding, Dither::none, 1});
    quantise(quantiser, audio);
    EXPECT_EQ(audio.channels[0],
              (std::vector<float>{largest, largest, -1, -1, largest, largest, -1, 0, 0.5f, largest}));
    EXPECT_EQ(quantiser.clippedSamples(), 7);  // 1, -1 - step, 2.5, both infinities, the largest number, NaN
    quantise(quantiser, audio);
    EXPECT_EQ(quantiser.clippedSamples(), 7);
  }
}

TEST(SampleQuantiser, FloatsAreLeftAlone) {
  const Audio audio = mono({0.1f, 3.5f, -0.0f, infinity, std::numeric_limits<float>::denorm_min()});
  Audio copy = audio;
  SampleQuantiser quantiser({SampleCoding::float32, Dither::tpdf, 1});
  quantise(quantiser, copy);
  for (std::size_t n = 0; n < audio.channels[0].size(); ++n)
    EXPECT_EQ(std::bit_cast<std::uint32_t>(copy.channels[0][n]),
              std::bit_cast<std::uint32_t>(audio.channels[0][n]));
  EXPECT_EQ(quantiser.clippedSamples(), 0);
}

TEST(SampleQuantiser, SamplesThatNothingTouchedKeepTheirIntegers) {
  std::mt19937 rng(2);
  for (const SampleCoding coding : integerCodings) {
    Audio original(2, 50'000);
    for (auto& channel : original.channels)
      for (float& sample : channel)
        sample =
            static_cast<float>(std::floor(test::uniform(rng, -1, 1) * scaleOf(coding)) / scaleOf(coding));
    original.channels[0][0] = -1;
    original.channels[0][1] = static_cast<float>(1 - 1 / scaleOf(coding));
    EXPECT_EQ(quantised(original, coding, Dither::tpdf, &original).channels, original.channels);
    EXPECT_NE(quantised(original, coding, Dither::tpdf).channels, original.channels);
  }
}

// Half of the samples go through a gain: these are dithered, the others are kept.
TEST(SampleQuantiser, OnlyTouchedSamplesAreDithered) {
  std::mt19937 rng(3);
  Audio original(1, 20'000);
  for (float& sample : original.channels[0])
    sample = static_cast<float>(std::floor(test::uniform(rng, -0.5, 0.5) * 32768) / 32768);
  Audio rendered = original;
  for (std::size_t n = 0; n < 10'000; ++n) rendered.channels[0][n] *= 0.7071f;
  const Audio result = quantised(rendered, SampleCoding::pcm16, Dither::tpdf, &original);
  const Audio all = quantised(rendered, SampleCoding::pcm16, Dither::tpdf);
  std::int64_t differing = 0;
  for (std::size_t n = 0; n < 20'000; ++n) {
    if (n >= 10'000) {
      ASSERT_EQ(result.channels[0][n], original.channels[0][n]);
    } else if (original.channels[0][n] != 0) {
      ASSERT_EQ(result.channels[0][n], all.channels[0][n]);
      if (result.channels[0][n] != std::round(rendered.channels[0][n] * 32768) / 32768) ++differing;
    }
  }
  EXPECT_GT(differing, 2'000);
}

TEST(SampleQuantiser, AnUntouchedSampleBesideTheGridIsDithered) {
  const Audio original = mono(std::vector<float>(10'000, 0.3f / 32768));
  const Audio result = quantised(original, SampleCoding::pcm16, Dither::tpdf, &original);
  std::int64_t ones = 0;
  for (const float sample : result.channels[0]) ones += sample == 1.0f / 32768;
  EXPECT_GT(ones, 2'000);
}

TEST(SampleQuantiser, AChannelWithoutAnOriginalIsDithered) {
  Audio audio(2, 1000);
  SampleQuantiser quantiser({SampleCoding::pcm16, Dither::tpdf, 2});
  const Audio original = audio;
  std::vector<float*> pointers = {audio.channels[0].data(), audio.channels[1].data()};
  const std::vector<const float*> before = {nullptr, original.channels[1].data()};
  quantiser.quantise(pointers, before, 1000);
  EXPECT_NE(audio.channels[0], original.channels[0]);
  EXPECT_EQ(audio.channels[1], original.channels[1]);
}

TEST(SampleQuantiser, AnAbsentChannelChangesNothingInTheOthers) {
  std::mt19937 rng(4);
  const Audio audio = test::noiseAudio(rng, 2, 1000, 0.5);
  const Audio both = quantised(audio, SampleCoding::pcm16, Dither::tpdf);
  Audio one = audio;
  SampleQuantiser quantiser({SampleCoding::pcm16, Dither::tpdf, 2});
  const std::vector<float*> pointers = {nullptr, one.channels[1].data()};
  quantiser.quantise(pointers, {}, 1000);
  EXPECT_EQ(one.channels[0], audio.channels[0]);
  EXPECT_EQ(one.channels[1], both.channels[1]);
}

TEST(SampleQuantiser, EqualRunsAndAnySplitGiveEqualSamples) {
  std::mt19937 rng(5);
  const Audio audio = test::noiseAudio(rng, 3, 40'000, 1.1);
  const Audio whole = quantised(audio, SampleCoding::pcm16, Dither::tpdf);
  EXPECT_EQ(quantised(audio, SampleCoding::pcm16, Dither::tpdf).channels, whole.channels);
  SampleQuantiser inOne({SampleCoding::pcm16, Dither::tpdf, 3});
  Audio copy = audio;
  quantise(inOne, copy);
  for (int trial = 0; trial < 10; ++trial) {
    Audio split = audio;
    SampleQuantiser quantiser({SampleCoding::pcm16, Dither::tpdf, 3});
    quantise(quantiser, split, nullptr, test::randomSplits(rng, audio.frameCount()));
    ASSERT_EQ(split.channels, whole.channels);
    EXPECT_EQ(quantiser.clippedSamples(), inOne.clippedSamples());
  }
}

// On a constant value, the error of a dithered sample has mean 0 and variance 1/4 whatever the value is: 1/6
// of the triangular dither and 1/12 of the rounding. Bounds are 6 standard deviations of such a mean.
TEST(SampleQuantiser, TheDitheredErrorHasTheSameMeanAndPowerAtEveryValue) {
  constexpr std::size_t count = 400'000;
  for (const double fraction : {0.0, 0.1, 0.25, 0.5, 0.77, -0.4}) {
    const auto value = static_cast<float>((100 + fraction) / 32768);
    const Audio audio = mono(std::vector<float>(count, value));
    const auto errors =
        errorsOf(audio.channels[0], quantised(audio, SampleCoding::pcm16, Dither::tpdf).channels[0], 32768);
    EXPECT_NEAR(meanOf(errors), 0, 6 * 0.5 / std::sqrt(count)) << fraction;
    EXPECT_NEAR(meanProduct(errors, errors), 0.25, 6 * 0.25 / std::sqrt(count)) << fraction;
    for (const double error : errors) ASSERT_LT(std::abs(error), 1.5) << fraction;
  }
}

// At a value on the grid, rounding gives -1, 0 or 1 with the areas of a triangle from -1 to 1: 1/8, 3/4, 1/8.
TEST(SampleQuantiser, TheDitherIsTriangular) {
  constexpr std::size_t count = 400'000;
  const Audio audio = mono(std::vector<float>(count));
  const Audio result = quantised(audio, SampleCoding::pcm24, Dither::tpdf);
  double below = 0, at = 0, above = 0;
  for (const float sample : result.channels[0]) {
    if (sample == -1.0f / 8388608) ++below;
    if (sample == 0) ++at;
    if (sample == 1.0f / 8388608) ++above;
  }
  EXPECT_EQ(below + at + above, static_cast<double>(count));
  const double bound = 6 * std::sqrt(0.25 / count);
  EXPECT_NEAR(below / count, 0.125, bound);
  EXPECT_NEAR(at / count, 0.75, bound);
  EXPECT_NEAR(above / count, 0.125, bound);
}

// A tone below one step: plain rounding makes it silence, dither keeps it.
TEST(SampleQuantiser, TheErrorIsIndependentOfTheSignal) {
  constexpr std::size_t count = 480'000;
  const Audio tone = mono(test::sine(48000, count, 997, 0.4 / 32768));
  std::vector<double> signal;
  for (const float sample : tone.channels[0]) signal.push_back(static_cast<double>(sample) * 32768);
  const auto plain =
      errorsOf(tone.channels[0], quantised(tone, SampleCoding::pcm16, Dither::none).channels[0], 32768);
  EXPECT_NEAR(meanProduct(plain, signal), -0.08, 1e-3);  // the error is the tone itself: -0.4^2 / 2
  const auto dithered =
      errorsOf(tone.channels[0], quantised(tone, SampleCoding::pcm16, Dither::tpdf).channels[0], 32768);
  EXPECT_NEAR(meanProduct(dithered, signal), 0, 6 * 0.5 * 0.2829 / std::sqrt(count));
}

TEST(SampleQuantiser, TheDitherIsWhiteAndDiffersBetweenChannels) {
  constexpr std::size_t count = 400'000;
  const Audio silence(2, count);
  const Audio result = quantised(silence, SampleCoding::pcm24, Dither::tpdf);
  const auto left = errorsOf(silence.channels[0], result.channels[0], 8388608);
  const auto right = errorsOf(silence.channels[1], result.channels[1], 8388608);
  const double bound = 6 * 0.25 / std::sqrt(count);
  EXPECT_NEAR(meanProduct(left, right), 0, bound);
  for (const std::size_t lag : {1u, 2u, 3u, 64u, 4096u}) {
    std::vector<double> late(left.begin() + static_cast<std::ptrdiff_t>(lag), left.end());
    EXPECT_NEAR(meanProduct(late, left), 0, bound) << lag;
  }
}

TEST(SampleQuantiserDeathTest, AListOfBuffersOfAnotherLengthStops) {
  SampleQuantiser quantiser({SampleCoding::pcm16, Dither::none, 2});
  Audio audio(1, 4);
  const std::vector<float*> one = {audio.channels[0].data()};
  EXPECT_DEATH(quantiser.quantise(one, {}, 4), "one buffer per channel");
  const std::vector<float*> two = {audio.channels[0].data(), audio.channels[0].data()};
  EXPECT_DEATH(quantiser.quantise(two, audio.pointers(), 4), "original has one buffer per channel");
}

// The number just below a half, which is less than half a step from 0, is not rounded to 1.
TEST(NearestInteger, OnlyHalvesGoAwayFromZero) {
  const double belowHalf = std::nextafter(0.5, 0);
  EXPECT_EQ(nearestInteger(belowHalf, 32768), 0);
  EXPECT_EQ(nearestInteger(-belowHalf, 32768), 0);
  EXPECT_EQ(nearestInteger(0.5, 32768), 1);
  EXPECT_EQ(nearestInteger(-0.5, 32768), -1);
  EXPECT_EQ(nearestInteger(8388606.5, 8388608), 8388607);
  EXPECT_EQ(nearestInteger(-8388607.5, 8388608), -8388608);
}

}  // namespace
}  // namespace vellum
