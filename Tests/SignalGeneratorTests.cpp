#include "VellumCore/SignalGenerator.hpp"

#include <algorithm>
#include <bit>
#include <cmath>
#include <complex>
#include <limits>
#include <numbers>
#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "Support/GeneratorModules.hpp"
#include "Support/Signals.hpp"
#include "VellumCore/Fourier/RealFFT.hpp"
#include "VellumCore/LevelConversions.hpp"

namespace vellum {
namespace {

using namespace test;
namespace Generator = SignalGenerator;
using Source = GeneratorSource;

constexpr double rate = 48000, infinity = std::numeric_limits<double>::infinity(),
                 nan = std::numeric_limits<double>::quiet_NaN();
constexpr long double turn = 2 * std::numbers::pi_v<long double>;
constexpr Waveform waveforms[] = {Waveform::sawtooth, Waveform::square, Waveform::triangle};
constexpr NoiseColor colors[] = {NoiseColor::white, NoiseColor::pink, NoiseColor::brown};

float peakOf(const std::vector<float>& x) {
  float peak = 0;
  for (const float value : x) peak = std::max(peak, std::fabs(value));
  return peak;
}

double rmsOf(const std::vector<float>& x) {
  long double sum = 0;
  for (const float value : x) sum += static_cast<long double>(value) * value;
  return static_cast<double>(std::sqrt(sum / static_cast<long double>(x.size())));
}

bool isSilent(const std::vector<float>& x) {
  return std::all_of(x.begin(), x.end(), [](float value) { return value == 0; });
}

template <typename SourceSignal>
std::vector<float> framesOf(SourceSignal source, std::int64_t first, std::int64_t n) {
  std::vector<float> x(static_cast<std::size_t>(n));
  source.render(x.data(), first, n);
  return x;
}

// Amplitudes of the bins of a whole number of periods, summed up in 64 bit.
std::vector<double> spectrumOf(const std::vector<float>& x) {
  const std::size_t n = x.size();
  std::vector<std::complex<double>> turns(n);
  for (std::size_t k = 0; k < n; ++k)
    turns[k] = std::polar(1.0, 2 * std::numbers::pi * static_cast<double>(k) / static_cast<double>(n));
  std::vector<double> amplitudes;
  for (std::size_t bin = 0; bin <= n / 2; ++bin) {
    std::complex<double> sum = 0;
    for (std::size_t i = 0; i < n; ++i) sum += turns[bin * i % n] * static_cast<double>(x[i]);
    amplitudes.push_back(std::abs(sum) * 2 / static_cast<double>(n));
  }
  return amplitudes;
}

// --- The plain twins -------------------------------------------------------------------------------------

struct Harmonic {
  std::int64_t h;
  long double amplitude;
};

std::vector<Harmonic> plainHarmonics(Waveform waveform, double frequency, double sampleRate,
                                     std::int64_t cap = 1 << 30) {
  std::vector<Harmonic> list;
  for (std::int64_t h = 1; static_cast<long double>(frequency) * h < sampleRate / 2.0L && h <= cap; ++h) {
    const auto one = 1.0L / static_cast<long double>(h);
    if (waveform == Waveform::sawtooth) list.push_back({h, h % 2 == 1 ? one : -one});
    if (waveform == Waveform::square && h % 2 == 1) list.push_back({h, one});
    if (waveform == Waveform::triangle && h % 2 == 1)
      list.push_back({h, h % 4 == 1 ? one * one : -one * one});
  }
  return list;
}

// sin(2 pi cycles): the whole turns are taken off before they cost digits.
long double sineOfCycles(long double cycles) {
  return std::sin(turn * (cycles - std::floor(cycles)));
}

long double plainSum(const std::vector<Harmonic>& harmonics, double frequency, double sampleRate,
                     std::int64_t n) {
  long double sum = 0;
  for (const Harmonic& each : harmonics)
    sum += each.amplitude * sineOfCycles(static_cast<long double>(frequency) * n * each.h / sampleRate);
  return sum;
}

class PlainNoise {
 public:
  PlainNoise(NoiseColor color, std::uint64_t seed) : color_(color), state_(seed) {}

  float next() {
    state_ += 0x9E3779B97F4A7C15u;
    std::uint64_t z = state_;
    z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9u;
    z = (z ^ (z >> 27)) * 0x94D049BB133111EBu;
    const float u = static_cast<float>(z >> 40) * std::ldexp(1.0f, -24);
    const float w = u + u - 1;
    if (color_ == NoiseColor::white) return w;
    if (color_ == NoiseColor::brown) {
      y_ = std::bit_cast<float>(0x3F7F7CEEu) * y_ + std::bit_cast<float>(0x3B031200u) * w;
      return y_;
    }
    const float kept[] = {0.99886f, 0.99332f, 0.96900f, 0.86650f, 0.55000f, -0.7616f};
    const float taken[] = {0.0555179f, 0.0750759f, 0.1538520f, 0.3104856f, 0.5329522f, -0.0168980f};
    float sum = 0;
    for (int k = 0; k < 6; ++k) {
      b_[k] = kept[k] * b_[k] + taken[k] * w;
      sum += b_[k];
    }
    sum = sum + b_[6] + 0.5362f * w;
    b_[6] = 0.115926f * w;
    return sum;
  }

 private:
  NoiseColor color_;
  std::uint64_t state_;
  float y_ = 0, b_[7] = {};
};

// 0.5 - 0.5 cos(p pi / R) in 32 bit with the 32-bit pi below pi.
float plainRamp(std::int64_t p, std::int64_t R) {
  const float angle = static_cast<float>(p) * std::bit_cast<float>(0x40490FDAu) / static_cast<float>(R);
  return 0.5f - 0.5f * static_cast<float>(std::cos(static_cast<long double>(angle)));
}

std::int64_t plainFrames(double seconds, double sampleRate) {
  const double product = seconds * sampleRate;
  if (!(product >= 0) || product == infinity) return 0;
  return static_cast<std::int64_t>(std::min(std::floor(product + 0.5), 9e15));
}

std::vector<float> plainGate(std::int64_t n, const BurstGate& gate, double sampleRate) {
  std::vector<float> gains(static_cast<std::size_t>(n));
  const std::int64_t on = plainFrames(gate.onSeconds, sampleRate);
  const std::int64_t period = on + plainFrames(gate.offSeconds, sampleRate);
  if (on < 1) return gains;
  const std::int64_t ramp = std::min(on / 2, plainFrames(gate.rampMilliseconds / 1000, sampleRate));
  const std::int64_t count = gate.count < 1 ? (n + period - 1) / period : gate.count;
  for (std::int64_t i = 0, s = 0; i < count && s < n; ++i, s += period)
    for (std::int64_t k = s; k < std::min(s + on, n); ++k) {
      const std::int64_t p = k - s, q = s + on - 1 - k;
      float gain = 1;
      if (ramp >= 1 && p < ramp)
        gain = plainRamp(p, ramp);
      else if (ramp >= 1 && q < ramp)
        gain = plainRamp(q, ramp);
      gains[static_cast<std::size_t>(k)] = gain;
    }
  return gains;
}

// --- Sine ------------------------------------------------------------------------------------------------

TEST(SignalGeneratorSine, StaysWithinAMillionthForTenMinutes) {
  for (const double sampleRate : {8000.0, 44100.0, 48000.0, 192000.0})
    for (const double frequency : {20.0, 440.0, 997.3, 3999.9, sampleRate * 0.4999})
      for (const double seconds : {0.0, 59.9, 599.0}) {
        const auto first = static_cast<std::int64_t>(seconds * sampleRate);
        const auto x = framesOf(SineSource(frequency, 1, sampleRate), first, 2000);
        for (std::int64_t i = 0; i < 2000; ++i)
          ASSERT_NEAR(x[static_cast<std::size_t>(i)],
                      static_cast<double>(sineOfCycles(static_cast<long double>(frequency) * (first + i) /
                                                       static_cast<long double>(sampleRate))),
                      1e-6)
              << frequency << " Hz at " << sampleRate << ", frame " << first + i;
      }
}

TEST(SignalGeneratorSine, IsRoundedToSingleBeforeTheAmplitudeIsTaken) {
  const float amplitude = 0.3f;
  const auto loud = Generator::sine(997, 1, 5000, rate), soft = Generator::sine(997, amplitude, 5000, rate);
  for (std::size_t i = 0; i < loud.size(); ++i) {
    const double exact = std::sin(static_cast<double>(i) * (2 * std::numbers::pi * 997 / rate));
    ASSERT_NEAR(loud[i], exact, std::fabs(exact) * 6.1e-8);  // half a unit of the last place, and a little
    ASSERT_EQ(soft[i], loud[i] * amplitude);
  }
}

TEST(SignalGeneratorSine, OfNoFramesIsEmptyAndOfNegativeOnesAFault) {
  EXPECT_TRUE(Generator::sine(440, 1, 0, rate).empty());
  EXPECT_DEATH(Generator::sine(440, 1, -1, rate), "frames must not be negative");
  EXPECT_DEATH(Generator::sine(440, 1, std::int64_t{1} << 31, rate), "below 2\\^31");
  EXPECT_DEATH(Generator::impulses(1, -1, {}, rate), "frames must not be negative");
}

// --- Band-limited shapes ---------------------------------------------------------------------------------

TEST(SignalGeneratorShapes, StayWithinAMillionthOfTheSumOfTheirHarmonicsForTenMinutes) {
  for (const Waveform waveform : waveforms)
    for (const double frequency : {20.0, 31.7, 370.0, 440.0, 1000.0, 6000.0, 11999.9, 23999.0})
      for (const std::int64_t first : {std::int64_t{0}, std::int64_t{28'799'000}}) {
        const auto x = framesOf(BandlimitedSource(waveform, frequency, rate, {}), first, 300);
        const auto harmonics = plainHarmonics(waveform, frequency, rate);
        for (std::int64_t i = 0; i < 300; ++i)
          ASSERT_NEAR(x[static_cast<std::size_t>(i)],
                      static_cast<double>(plainSum(harmonics, frequency, rate, first + i)), 1e-6)
              << static_cast<int>(waveform) << ", " << frequency << " Hz, frame " << first + i;
      }
}

TEST(SignalGeneratorShapes, StayWithinAMillionthAtEveryNumberOfHarmonics) {
  std::mt19937 rng(5);
  for (const Waveform waveform : waveforms)
    for (std::int64_t cap = 1; cap <= 160; ++cap) {
      const double frequency = uniform(rng, 1, 150);
      const auto first = static_cast<std::int64_t>(rng() % 1000);
      const auto x = framesOf(BandlimitedSource(waveform, frequency, rate, cap), first, 80);
      const auto harmonics = plainHarmonics(waveform, frequency, rate, cap);
      for (std::int64_t i = 0; i < 80; ++i)
        ASSERT_NEAR(x[static_cast<std::size_t>(i)],
                    static_cast<double>(plainSum(harmonics, frequency, rate, first + i)), 1e-6)
            << static_cast<int>(waveform) << ", cap " << cap << ", frame " << first + i;
    }
}

// 0.25 Hz has 96000 harmonics; the frames lie around every edge and corner of the first cycle.
TEST(SignalGeneratorShapes, StayWithinAMillionthAroundEdgesAndCornersOfALongCycle) {
  constexpr double frequency = 0.25;
  for (const Waveform waveform : waveforms) {
    const auto harmonics = plainHarmonics(waveform, frequency, rate);
    for (const std::int64_t first : {0, 47990, 95990, 143990, 191990, 60000}) {
      const auto x = framesOf(BandlimitedSource(waveform, frequency, rate, {}), first, 20);
      for (std::int64_t i = 0; i < 20; ++i)
        ASSERT_NEAR(x[static_cast<std::size_t>(i)],
                    static_cast<double>(plainSum(harmonics, frequency, rate, first + i)), 1e-6)
            << static_cast<int>(waveform) << ", frame " << first + i;
    }
  }
}

TEST(SignalGeneratorShapes, A1000HzSquareHoldsTheOddHarmonicsUpTo23) {
  const auto bins = spectrumOf(Generator::bandlimited(Waveform::square, 1000, 480, rate));  // 100 Hz each
  for (std::size_t bin = 0; bin < bins.size(); ++bin) {
    const std::size_t h = bin / 10;
    const bool isPresent = bin % 10 == 0 && h % 2 == 1;
    ASSERT_NEAR(bins[bin], isPresent ? 1.0 / static_cast<double>(h) : 0.0, 1e-7) << bin * 100 << " Hz";
  }
}

TEST(SignalGeneratorShapes, WithOneHarmonicEachIsAPureSineAndACapBelowOneMeansOne) {
  const auto tone = Generator::sine(1000, 1, 4800, rate);
  for (const Waveform waveform : waveforms)
    for (const std::int64_t cap :
         {std::int64_t{1}, std::int64_t{0}, std::int64_t{-7}, std::numeric_limits<std::int64_t>::min()})
      EXPECT_EQ(Generator::bandlimited(waveform, 1000, 4800, rate, cap), tone);
  const auto module = Generator::renderModule(moduleOf({Source::Square{1000}}, 0.1), rate, 1, 1);
  EXPECT_EQ(module, tone);  // of peak 1 at frame 12, so that leveling changes nothing
}

TEST(SignalGeneratorShapes, ACapAboveAllHarmonicsChangesNothing) {
  for (const Waveform waveform : waveforms)
    EXPECT_EQ(Generator::bandlimited(waveform, 440, 480, rate, std::numeric_limits<std::int64_t>::max()),
              Generator::bandlimited(waveform, 440, 480, rate));
}

TEST(SignalGeneratorShapes, TheHarmonicAtHalfTheSampleRateIsExcluded) {
  const auto bins = spectrumOf(Generator::bandlimited(Waveform::sawtooth, 6000, 80, rate));  // 600 Hz each
  for (std::size_t bin = 0; bin < bins.size(); ++bin)
    ASSERT_NEAR(bins[bin], bin == 10 || bin == 20 || bin == 30 ? 10.0 / static_cast<double>(bin) : 0.0, 1e-7);
  // At half the rate a sine reads as 0, so only the sums tell: 3 of 4 harmonics.
  EXPECT_EQ(Generator::bandlimited(Waveform::sawtooth, 6000, 80, rate),
            Generator::bandlimited(Waveform::sawtooth, 6000, 80, rate, 3));
  EXPECT_NE(Generator::bandlimited(Waveform::sawtooth, 5999, 80, rate),
            Generator::bandlimited(Waveform::sawtooth, 5999, 80, rate, 3));
  EXPECT_TRUE(isSilent(Generator::bandlimited(Waveform::sawtooth, 24000, 80, rate)));
}

TEST(SignalGeneratorShapes, NothingStandsBesideTheHarmonics) {
  for (const double frequency : {20.0, 440.0})  // whole periods of both: 2400 samples
    for (const Waveform waveform : waveforms) {
      const auto bins = spectrumOf(Generator::bandlimited(waveform, frequency, 2400, rate));
      std::vector<double> expected(bins.size());
      for (const Harmonic& each : plainHarmonics(waveform, frequency, rate))
        expected[static_cast<std::size_t>(frequency / 20) * static_cast<std::size_t>(each.h)] =
            static_cast<double>(std::fabs(each.amplitude));
      for (std::size_t bin = 0; bin < bins.size(); ++bin) {
        if (expected[bin] == 0) {
          ASSERT_LT(20 * std::log10(bins[bin]), -110) << bin * 20 << " Hz";
        }
        ASSERT_NEAR(bins[bin], expected[bin], 1e-6) << bin * 20 << " Hz";
      }
    }
}

TEST(SignalGeneratorShapes, ThePeakIsTheModulesGain) {
  for (const Source& source : {Source{Source::Square{1000}}, Source{Source::Sawtooth{997}},
                               Source{Source::Triangle{33}}, Source{Source::Square{0.01}}})
    for (const float gainDB : {0.0f, -6.0f, -18.0f, 6.0f})
      EXPECT_NEAR(peakOf(Generator::renderModule(moduleOf(source, 0.5, gainDB), rate, 1)),
                  amplitudeOf(static_cast<double>(gainDB)), 2e-7 * amplitudeOf(static_cast<double>(gainDB)));
}

TEST(SignalGeneratorShapes, NoFrequencyIsTooLow) {
  for (const double frequency : {1e-3, 1e-9, 1e-20, 1e-300, std::numeric_limits<double>::denorm_min()})
    for (const Source& source : {Source{Source::Square{frequency}}, Source{Source::Sawtooth{frequency}},
                                 Source{Source::Triangle{frequency}}})
      for (const std::optional<std::int64_t> cap : {std::optional<std::int64_t>{}, {1}, {1000}})
        for (const float value : Generator::renderModule(moduleOf(source, 0.1, -6), rate, 1, cap))
          ASSERT_LE(std::fabs(value), 0.51f) << frequency << " Hz";
  // Its first cycle takes 31 years: for a tenth of a second it is a step with its ripple.
  const auto step = Generator::renderModule(moduleOf({Source::Square{1e-9}}, 0.1), rate, 1);
  EXPECT_EQ(step[0], 0);
  EXPECT_EQ(step[1], 1);                           // the overshoot
  EXPECT_NEAR(step[4000], 1 / 1.178979744, 1e-4);  // 2 Si(pi) / pi above where it settles
}

// Frame 0 is a sum of sines of 0, which no level can be brought to.
TEST(SignalGeneratorShapes, OfOneFrameAreSilent) {
  for (const double frequency : {1e-9, 1.0, 100.0, 440.0, 12'000.0})
    for (const Source& source : {Source{Source::Square{frequency}}, Source{Source::Sawtooth{frequency}},
                                 Source{Source::Triangle{frequency}}})
      EXPECT_EQ(Generator::renderModule(moduleOf(source, 1 / rate, 0), rate, 1), std::vector<float>{0})
          << frequency << " Hz";
}

TEST(SignalGeneratorShapes, OfNoFrequencyOrNoFramesAreSilentOrEmpty) {
  for (const double frequency : {0.0, -1.0, -440.0, nan, infinity, 24000.0, 1e300})
    for (const Waveform waveform : waveforms)
      EXPECT_EQ(Generator::bandlimited(waveform, frequency, 100, rate), std::vector<float>(100)) << frequency;
  EXPECT_TRUE(Generator::bandlimited(Waveform::square, 440, 0, rate).empty());
}

TEST(SignalGeneratorNormalizePeak, BringsTheLargestMagnitudeToTheTarget) {
  std::vector<float> x = {0.1f, -0.4f, 0.3f};
  Generator::normalizePeak(x, 0.8f);
  EXPECT_EQ(x, (std::vector<float>{0.1f * (0.8f / 0.4f), -0.8f, 0.3f * (0.8f / 0.4f)}));
  std::vector<float> silence(3), none;
  Generator::normalizePeak(silence, 1);
  Generator::normalizePeak(none, 1);
  EXPECT_EQ(silence, std::vector<float>(3));
  std::vector<float> vanishing = {std::numeric_limits<float>::denorm_min(), 0};
  Generator::normalizePeak(vanishing, 0.5f);
  EXPECT_EQ(vanishing, (std::vector<float>{0.5f, 0}));
}

// --- Noise -----------------------------------------------------------------------------------------------

// The hashes (FNV-1a over the little-endian samples) come from the definition of SplitMix64 in integers of
// any size and exact fractions, written in another language.
TEST(SignalGeneratorNoise, TheWhiteSourceIsExact) {
  const std::pair<std::uint64_t, std::uint64_t> hashes[] = {
      {0x0000000000000000u, 0xaba96b34c0beb399u},
      {0x0000000000000001u, 0xdd26abfba51b1014u},
      {0xffffffffffffffffu, 0x71a61da2c2d194e4u},
      {0x4f82338baed89116u, 0x4960b639677413c9u}};  // of the first module of the first channel
  for (const auto& [seed, expected] : hashes) {
    std::uint64_t hash = 0xcbf29ce484222325u;
    for (const float sample : framesOf(NoiseSource(NoiseColor::white, seed), 0, 100'000)) {
      const auto bits = std::bit_cast<std::uint32_t>(sample);
      for (int byte = 0; byte < 4; ++byte) hash = (hash ^ ((bits >> (8 * byte)) & 0xff)) * 0x100000001b3u;
    }
    EXPECT_EQ(hash, expected) << "seed " << seed;
  }
}

TEST(SignalGeneratorNoise, EveryColorEqualsItsPlainTwinToTheBit) {
  for (const NoiseColor color : colors)
    for (const std::uint64_t seed : {0ull, 1ull, 0xD1B54A32D192ED03ull, ~0ull}) {
      PlainNoise plain(color, seed);
      for (const float value : framesOf(NoiseSource(color, seed), 0, 50'000)) ASSERT_EQ(value, plain.next());
    }
}

TEST(SignalGeneratorNoise, AtMinus20DBHasAnRMSOfATenthWhateverItsLength) {
  for (const NoiseColor color : colors)
    for (const double frames : {1.0, 2.0, 7.0, 1000.0, 48000.0, 48001.0, 1e6}) {
      const auto x = Generator::renderModule(moduleOf({Source::Noise{color}}, frames / rate, -20), rate, 77);
      ASSERT_EQ(static_cast<double>(x.size()), frames);
      EXPECT_NEAR(rmsOf(x), 0.1, 2e-8) << frames;
    }
}

TEST(SignalGeneratorNoise, ScalesItsSourceByOneFactor) {
  for (const NoiseColor color : colors) {
    const auto source = framesOf(NoiseSource(color, 9), 0, 10'000);
    const auto noise = Generator::noise(color, 0.25f, 10'000, 9);
    const double factor = 0.25 / rmsOf(source);
    for (std::size_t i = 0; i < noise.size(); ++i)
      ASSERT_NEAR(noise[i], source[i] * factor, 2e-7 * std::fabs(source[i]) * factor);
  }
}

TEST(SignalGeneratorNoise, OfNoFramesIsEmpty) {
  for (const std::int64_t frames : {0, -1, -100})
    EXPECT_TRUE(Generator::noise(NoiseColor::pink, 1, frames, 1).empty());
}

// Level per octave by averaged spectra, from low to high.
std::vector<double> octaveDensitiesDB(NoiseColor color, double lowest, int octaves) {
  constexpr std::int64_t size = 8192;
  const auto x = Generator::noise(color, 0.1f, size * 400, 3);
  RealFFT fft(size);
  std::vector<float> window(size), re(size / 2), im(size / 2);
  std::vector<double> power(size / 2);
  for (std::size_t offset = 0; offset < x.size(); offset += size) {
    for (std::size_t i = 0; i < size; ++i)
      window[i] =
          x[offset + i] *
          static_cast<float>(0.5 - 0.5 * std::cos(2 * std::numbers::pi * static_cast<double>(i) / size));
    fft.forward(window, re, im);
    for (std::size_t k = 1; k < power.size(); ++k)
      power[k] += static_cast<double>(re[k]) * re[k] + static_cast<double>(im[k]) * im[k];
  }
  std::vector<double> densities;
  for (int octave = 0; octave < octaves; ++octave) {
    const double from = std::ldexp(lowest, octave) * size / rate;
    double sum = 0;
    for (auto k = static_cast<std::size_t>(from); k < static_cast<std::size_t>(2 * from); ++k)
      sum += power[k];
    densities.push_back(10 * std::log10(sum / std::floor(from)));
  }
  return densities;
}

TEST(SignalGeneratorNoise, WhiteIsFlatPinkFalls3DBAndBrown6DBPerOctave) {
  const auto expectSlope = [](NoiseColor color, double lowest, int octaves, double dB, double tolerance) {
    const auto densities = octaveDensitiesDB(color, lowest, octaves);
    for (std::size_t k = 1; k < densities.size(); ++k)
      EXPECT_NEAR(densities[k] - densities[k - 1], dB, tolerance)
          << static_cast<int>(color) << ", octave " << k;
  };
  // The fewest bins of an octave, 16, times 400 spectra leave a scatter of 0.08 dB.
  expectSlope(NoiseColor::white, 93.75, 7, 0, 0.3);
  expectSlope(NoiseColor::pink, 93.75, 7, -3.01, 0.5);   // the filter's own ripple
  expectSlope(NoiseColor::brown, 93.75, 5, -6.02, 0.4);  // it flattens towards half the rate
}

// --- Impulses --------------------------------------------------------------------------------------------

std::vector<std::size_t> spikesOf(const std::vector<float>& x, float value) {
  std::vector<std::size_t> places;
  for (std::size_t i = 0; i < x.size(); ++i)
    if (x[i] != 0) {
      EXPECT_EQ(x[i], value);
      places.push_back(i);
    }
  return places;
}

using Places = std::vector<std::size_t>;

TEST(SignalGeneratorImpulses, HalfASecondOnAndOffOverTwoSecondsGivesTwo) {
  auto module = moduleOf({Source::Impulse{}}, 2, -6);
  module.burst = BurstGate{0.5, 0.5, 0, 2};
  EXPECT_EQ(spikesOf(Generator::renderModule(module, rate, 1), std::pow(10.0f, -6.0f / 20)),
            (Places{0, 48000}));
}

TEST(SignalGeneratorImpulses, WithoutABurstIsOneAtTheStart) {
  EXPECT_EQ(spikesOf(Generator::impulses(0.5f, 100, {}, rate), 0.5f), Places{0});
  EXPECT_TRUE(Generator::impulses(0.5f, 0, {}, rate).empty());
}

TEST(SignalGeneratorImpulses, ThePeriodIsTheRoundedSumAndTheCountIsKept) {
  const auto spikes = [](const BurstGate& burst, std::int64_t frames) {
    return spikesOf(Generator::impulses(1, frames, burst, 10), 1);
  };
  EXPECT_EQ(spikes({0.14, 0.14, 0, 0}, 10), (Places{0, 3, 6, 9}));  // 2.8 frames; rounded apart it were 2
  EXPECT_EQ(spikes({0.2, 0.2, 2, 0}, 10), (Places{0, 4}));
  EXPECT_EQ(spikes({0.2, 0.2, 100, 0}, 8), (Places{0, 4}));
  EXPECT_EQ(spikes({0.2, 0.2, -3, 0}, 9), (Places{0, 4, 8}));
  EXPECT_EQ(spikes({0.2, 0.2, std::numeric_limits<std::int64_t>::max(), 0}, 9), (Places{0, 4, 8}));
  EXPECT_EQ(spikes({0.1, 0, 0, 0}, 3), (Places{0, 1, 2}));
}

TEST(SignalGeneratorImpulses, APeriodBelowOneFrameIsNone) {
  for (const double off : {0.04, -1.0, nan, infinity, -infinity, 1e300})
    EXPECT_EQ(spikesOf(Generator::impulses(1, 10, BurstGate{0, off, 5, 0}, 10), 1), Places{0}) << off;
}

// --- Levels ----------------------------------------------------------------------------------------------

TEST(SignalGeneratorDBToLinear, IsTheExponentialOfTheProductIn32Bit) {
  std::mt19937 rng(3);
  std::vector<float> dB = {0, -200, -20, 6, 20, 700, -700, -0.0f, 1e-30f};
  for (int i = 0; i < 2000; ++i) dB.push_back(static_cast<float>(uniform(rng, -300, 300)));
  auto gains = dB;
  Generator::dbToLinearInPlace(gains);
  for (std::size_t i = 0; i < dB.size(); ++i) {
    const auto exact = static_cast<double>(std::exp(static_cast<long double>(dB[i] * 0.115129255f)));
    ASSERT_NEAR(gains[i], exact, exact * 6.1e-8) << dB[i];
  }
  EXPECT_EQ(gains[0], 1);
  EXPECT_NEAR(gains[1], 1e-10, 1e-15);  // no floor
}

TEST(SignalGeneratorDBToLinear, EndsIn32Bit) {
  std::vector<float> x = {771, 1e30f, HUGE_VALF, -1000, -1e30f, -HUGE_VALF, NAN};
  Generator::dbToLinearInPlace(x);
  for (std::size_t i = 0; i < 3; ++i) EXPECT_EQ(x[i], HUGE_VALF);
  for (std::size_t i = 3; i < 6; ++i) EXPECT_EQ(x[i], 0);
  EXPECT_TRUE(std::isnan(x[6]));
}

TEST(SignalGeneratorLevels, AModulesGainIsDBToLinearWithItsFloor) {
  for (float dB = -260; dB <= 60; dB += 0.37f) {
    const auto x = Generator::renderModule(moduleOf({Source::Impulse{}}, 0.01, dB), rate, 1);
    ASSERT_NEAR(x[0], dbToLinear(dB), dbToLinear(dB) * 1.2e-7) << dB;
  }
  EXPECT_EQ(Generator::renderModule(moduleOf({Source::Impulse{}}, 0.01, -200), rate, 1)[0], 0);
  EXPECT_NEAR(Generator::renderModule(moduleOf({Source::Impulse{}}, 0.01, -199.9f), rate, 1)[0], 1.0116e-10,
              1e-13);
}

std::vector<float> sweptOnes(std::size_t n, const LevelSweep& sweep) {
  std::vector<float> x(n, 1);
  Generator::applyLevelSweep(x, sweep);
  return x;
}

TEST(SignalGeneratorLevelSweep, ALinearOneIsStraightInAmplitudeAndExactAtItsEnds) {
  const auto x = sweptOnes(1001, {-6, -40, LevelSweepShape::linear});
  EXPECT_EQ(x.front(), std::pow(10.0f, -6.0f / 20));
  EXPECT_EQ(x.back(), std::pow(10.0f, -40.0f / 20));
  const double start = amplitudeOf(-6), end = amplitudeOf(-40);
  for (std::size_t i = 0; i < x.size(); ++i)
    ASSERT_NEAR(x[i], start + (end - start) * static_cast<double>(i) / 1000, 6e-8);
}

TEST(SignalGeneratorLevelSweep, ALinearOneFromMinus200DBStartsAtZeroALogarithmicOneAt1eMinus10) {
  const auto linear = sweptOnes(500, {-200, 0, LevelSweepShape::linear});
  EXPECT_EQ(linear.front(), 0);
  EXPECT_EQ(linear.back(), 1);
  const auto logarithmic = sweptOnes(500, {-200, 0, LevelSweepShape::logarithmic});
  EXPECT_NEAR(logarithmic.front(), 1e-10, 1e-16);
  EXPECT_EQ(logarithmic.back(), 1);
}

TEST(SignalGeneratorLevelSweep, ALogarithmicOneIsStraightInDB) {
  const auto x = sweptOnes(2001, {-80, 12, LevelSweepShape::logarithmic});
  for (std::size_t i = 0; i < x.size(); ++i) {
    const double exact = amplitudeOf(-80 + 92 * static_cast<double>(i) / 2000);
    ASSERT_NEAR(x[i], exact, exact * 1e-6);  // the dB value has 24 bits
  }
}

TEST(SignalGeneratorLevelSweep, TheEndIsExactWhereRoundingWouldMissIt) {
  std::mt19937 rng(11);
  for (int trial = 0; trial < 500; ++trial) {
    const LevelSweep sweep = {static_cast<float>(uniform(rng, -250, 60)),
                              static_cast<float>(uniform(rng, -250, 60)), LevelSweepShape::linear};
    const auto x = sweptOnes(2 + rng() % 3000, sweep);
    const auto gain = [](float dB) {
      return Generator::renderModule(moduleOf({Source::Impulse{}}, 1 / rate, dB), rate, 1)[0];
    };
    ASSERT_EQ(x.front(), gain(sweep.startDB));
    ASSERT_EQ(x.back(), gain(sweep.endDB));
  }
}

TEST(SignalGeneratorLevelSweep, OneSampleTakesTheStartAndNoneNothing) {
  EXPECT_EQ(sweptOnes(1, {-200, 0, LevelSweepShape::linear}), std::vector<float>{0});
  EXPECT_EQ(sweptOnes(1, {0, -200, LevelSweepShape::logarithmic}), std::vector<float>{1});
  EXPECT_TRUE(sweptOnes(0, {0, -20, LevelSweepShape::linear}).empty());
}

// --- Bursts ----------------------------------------------------------------------------------------------

std::vector<float> gatedOnes(std::int64_t n, const BurstGate& gate, double sampleRate = 1000) {
  std::vector<float> x(static_cast<std::size_t>(n), 1);
  Generator::applyBurst(x, gate, sampleRate);
  return x;
}

void expectPlainGate(std::int64_t n, const BurstGate& gate, double sampleRate = 1000) {
  const auto actual = gatedOnes(n, gate, sampleRate), expected = plainGate(n, gate, sampleRate);
  for (std::size_t i = 0; i < expected.size(); ++i)
    ASSERT_NEAR(actual[i], expected[i], expected[i] == 0 || expected[i] == 1 ? 0 : 1.2e-7)
        << "frame " << i << " of " << n << ": " << gate.onSeconds << " s on, " << gate.offSeconds
        << " s off, " << gate.count << " times, " << gate.rampMilliseconds << " ms";
}

TEST(SignalGeneratorBurst, OfNoOnTimeSilencesTheModule) {
  for (const double on : {0.0, 0.0004, -1.0, nan, infinity})
    EXPECT_TRUE(isSilent(gatedOnes(100, {on, 0.01, 0, 2}))) << on;
  auto module = moduleOf({Source::Sine{440}});
  module.burst = BurstGate{0, 0.1, 3, 2};
  EXPECT_TRUE(isSilent(Generator::renderModule(module, rate, 1)));
}

TEST(SignalGeneratorBurst, OfCountThreeSoundsThreeTimes) {
  const auto x = gatedOnes(1000, {0.05, 0.05, 3, 0});
  for (std::size_t i = 0; i < x.size(); ++i) ASSERT_EQ(x[i], i < 300 && i % 100 < 50 ? 1 : 0) << i;
}

TEST(SignalGeneratorBurst, ARampLongerThanHalfTheOnTimeIsCutToHalf) {
  EXPECT_EQ(gatedOnes(500, {0.1, 0.1, 0, 5000}), gatedOnes(500, {0.1, 0.1, 0, 50}));
  EXPECT_EQ(gatedOnes(500, {0.101, 0.1, 0, 80}), gatedOnes(500, {0.101, 0.1, 0, 50}));
  EXPECT_NE(gatedOnes(500, {0.1, 0.1, 0, 50}), gatedOnes(500, {0.1, 0.1, 0, 49}));
}

TEST(SignalGeneratorBurst, EqualsItsPlainTwin) {
  expectPlainGate(1000, {0.1, 0.05, 0, 10});
  expectPlainGate(1000, {0.001, 0, 0, 10});
  expectPlainGate(1000, {0.001, 0.001, 0, 10});
  expectPlainGate(1000, {0.003, 0, 4, 1});
  expectPlainGate(1000, {9e15, 9e15, 0, 10});
  expectPlainGate(1000, {1e300, 1e300, 1, 10});
  expectPlainGate(0, {0.1, 0.05, 0, 10});
  std::mt19937 rng(29);
  for (int trial = 0; trial < 500; ++trial)
    expectPlainGate(static_cast<std::int64_t>(rng() % 700),
                    {uniform(rng, -0.01, 0.2), uniform(rng, -0.02, 0.2),
                     static_cast<std::int64_t>(rng() % 6) - 1, uniform(rng, -5, 120)});
}

// --- Fades -----------------------------------------------------------------------------------------------

std::vector<float> fadedOnes(std::int64_t n, double in, double out, double sampleRate = 1000) {
  std::vector<float> x(static_cast<std::size_t>(n), 1);
  Generator::applyFades(x, in, out, sampleRate);
  return x;
}

TEST(SignalGeneratorFades, EqualTheirPlainTwin) {
  std::mt19937 rng(31);
  for (int trial = 0; trial < 500; ++trial) {
    const auto n = static_cast<std::int64_t>(rng() % 400);
    const double in = uniform(rng, -0.05, 0.5), out = uniform(rng, -0.05, 0.5);
    const auto actual = fadedOnes(n, in, out);
    const std::int64_t I = std::min(n, plainFrames(in, 1000)), O = std::min(n, plainFrames(out, 1000));
    std::vector<float> expected(static_cast<std::size_t>(n), 1);
    for (std::int64_t k = 0; k < I && I >= 2; ++k)
      expected[static_cast<std::size_t>(k)] *= plainRamp(k, I - 1);
    for (std::int64_t j = 0; j < O && O >= 2; ++j)
      expected[static_cast<std::size_t>(n - O + j)] *= plainRamp(O - 1 - j, O - 1);
    for (std::size_t i = 0; i < expected.size(); ++i)
      ASSERT_NEAR(actual[i], expected[i], 2e-7) << "frame " << i << " of " << n << ", " << I << " in, " << O;
  }
}

TEST(SignalGeneratorFades, ReachZeroAtTheModulesEndsAndOneAtTheirOwn) {
  const auto x = fadedOnes(1000, 0.1, 0.2);
  EXPECT_EQ(x[0], 0);
  EXPECT_GT(x[1], 0);
  EXPECT_LT(x[98], 1);
  EXPECT_EQ(x[99], 1);
  EXPECT_EQ(x[800], 1);
  EXPECT_LT(x[801], 1);
  EXPECT_GT(x[998], 0);
  EXPECT_EQ(x[999], 0);
}

TEST(SignalGeneratorFades, OfOneFrameOrNoLengthDoNothing) {
  for (const double seconds : {0.001, 0.0, -1.0, nan, infinity, -infinity})
    EXPECT_EQ(fadedOnes(100, seconds, seconds), std::vector<float>(100, 1)) << seconds;
  EXPECT_EQ(fadedOnes(1, 5, 5), std::vector<float>(1, 1));
  EXPECT_TRUE(fadedOnes(0, 5, 5).empty());
}

TEST(SignalGeneratorFades, LongerThanTheModuleAreCutToItAndOverlap) {
  EXPECT_EQ(fadedOnes(100, 0.3, 1e300), fadedOnes(100, 0.1, 0.1));
  const auto both = fadedOnes(100, 0.1, 0.1), in = fadedOnes(100, 0.1, 0), out = fadedOnes(100, 0, 0.1);
  for (std::size_t i = 0; i < 100; ++i) ASSERT_EQ(both[i], in[i] * out[i]);
}

// --- Sweeps ----------------------------------------------------------------------------------------------

// In cycles, without the detour over the document's own 64-bit steps.
long double plainSweepCycles(const Source::Sweep& sweep, long double seconds, long double t) {
  const long double f0 = sweep.start, f1 = sweep.end;
  if (sweep.shape == SweepShape::linear) return f0 * t + (f1 - f0) / seconds * 0.5L * t * t;
  if (std::fabs(f1 / f0 - 1) < 1e-12L) return f0 * t;
  return f0 * seconds / std::log(f1 / f0) * std::expm1(t / seconds * std::log(f1 / f0));
}

TEST(SignalGeneratorSweep, StaysWithinAMillionthForTenMinutes) {
  for (const SweepShape shape : {SweepShape::linear, SweepShape::logarithmic})
    for (const auto& [start, end] : {std::pair{20.0, 20000.0},
                                     {20000.0, 20.0},
                                     {440.0, 440.0},
                                     {1000.0, 1000.001},
                                     {0.001, 23999.0},
                                     {500.0, 501.0}})
      for (const double seconds : {0.01, 1.0, 600.0}) {
        const Source::Sweep sweep = {start, end, shape};
        const auto frames = static_cast<std::int64_t>(std::llround(seconds * rate));
        const SweepSource source(sweep, 1, frames, rate);
        for (const std::int64_t first : {std::int64_t{0}, frames / 2, frames - 400}) {
          const auto x = framesOf(source, first, 400);
          for (std::int64_t i = 0; i < 400; ++i)
            ASSERT_NEAR(x[static_cast<std::size_t>(i)],
                        static_cast<double>(
                            sineOfCycles(plainSweepCycles(sweep, frames / static_cast<long double>(rate),
                                                          (first + i) / static_cast<long double>(rate)))),
                        1e-6)
                << start << " to " << end << " Hz in " << seconds << " s, shape " << static_cast<int>(shape)
                << ", frame " << first + i;
        }
      }
}

TEST(SignalGeneratorSweep, AlmostEqualFrequenciesAreATone) {
  const auto tone =
      Generator::renderModule(moduleOf({Source::Sweep{1000, 1000, SweepShape::logarithmic}}), rate, 1);
  const double next = 1000 * (1 + 5e-13);
  EXPECT_EQ(Generator::renderModule(moduleOf({Source::Sweep{1000, next, SweepShape::logarithmic}}), rate, 1),
            tone);
}

TEST(SignalGeneratorSweep, IsFiniteForAnyFrequencies) {
  constexpr double frequencies[] = {
      std::numeric_limits<double>::denorm_min(), 1e-310, 1e-200, 1e-9, 1, 23999.99};
  for (const double start : frequencies)
    for (const double end : frequencies)
      for (const SweepShape shape : {SweepShape::linear, SweepShape::logarithmic})
        for (const float value :
             Generator::renderModule(moduleOf({Source::Sweep{start, end, shape}}, 0.05), rate, 1))
          ASSERT_LE(std::fabs(value), 1) << start << " to " << end;
}

// --- Peak ceiling ----------------------------------------------------------------------------------------

TEST(SignalGeneratorPeakCeiling, LowersAllChannelsByOneGain) {
  std::vector<std::vector<float>> channels = {{0.5f, -1.0f}, {0.25f, 0.125f}};
  Generator::applyPeakCeiling(channels, -20);
  const float gain = std::pow(10.0f, -1.0f);
  EXPECT_EQ(channels, (std::vector<std::vector<float>>{{0.5f * gain, -gain}, {0.25f * gain, 0.125f * gain}}));
}

TEST(SignalGeneratorPeakCeiling, AtMinus200DBOrLowerIsIgnoredAndNeverRaises) {
  const std::vector<std::vector<float>> loud = {{0.5f, -1.0f}, {0.25f, 0.125f}};
  for (const float ceiling : {-200.0f, -300.0f, -HUGE_VALF, NAN, 0.0f, 0.001f, 20.0f}) {
    auto channels = loud;
    Generator::applyPeakCeiling(channels, ceiling);
    EXPECT_EQ(channels, loud) << ceiling;
  }
  std::vector<std::vector<float>> none;
  Generator::applyPeakCeiling(none, -1);
  EXPECT_TRUE(none.empty());
}

// --- Whole documents -------------------------------------------------------------------------------------

GeneratorModule noiseModule(double duration = 0.1, float gainDB = -20) {
  return moduleOf({Source::Noise{NoiseColor::pink}}, duration, gainDB);
}

TEST(SignalGeneratorRender, TheSameDocumentGivesIdenticalSamples) {
  const auto spec =
      specOf({{noiseModule(), moduleOf({Source::Sine{440}}, 0.2)}, {moduleOf({Source::Square{31}})}});
  EXPECT_EQ(Generator::render(spec), Generator::render(spec));
}

TEST(SignalGeneratorRender, SwappingNoiseModulesBetweenChannelsChangesTheirNoise) {
  auto white = moduleOf({Source::Noise{NoiseColor::white}}, 0.1);
  const auto there = Generator::render(specOf({{white}, {noiseModule()}}));
  const auto back = Generator::render(specOf({{noiseModule()}, {white}}));
  EXPECT_NE(there[0], back[1]);
  EXPECT_NE(there[1], back[0]);
}

TEST(SignalGeneratorRender, SeedsFollowPositionsAndCountModulesThatRenderNothing) {
  const auto expected = [](std::uint64_t channel, std::uint64_t module) {
    const std::uint64_t channelSeed = (channel + 1) * 0x9E3779B97F4A7C15u;
    return Generator::renderModule(noiseModule(), rate, ((module + 1) * 0xD1B54A32D192ED03u) ^ channelSeed);
  };
  auto beyond = noiseModule(), empty = noiseModule(0);
  beyond.start = 99;
  auto spec = specOf({{noiseModule()}, {empty, beyond, noiseModule()}, {}});
  spec.duration = 0.1;
  const auto channels = Generator::render(spec);
  EXPECT_EQ(channels[0], expected(0, 0));
  EXPECT_EQ(channels[1], expected(1, 2));
  EXPECT_TRUE(isSilent(channels[2]));
  EXPECT_EQ(channels[2].size(), 4800u);
}

TEST(SignalGeneratorRender, WithoutFramesRateOrChannelsThereIsNothing) {
  EXPECT_TRUE(Generator::render(specOf({})).empty());
  EXPECT_TRUE(Generator::render(specOf({{}, {}})).empty());
  for (const double sampleRate : {0.0, -48000.0, nan}) {
    auto spec = specOf({{noiseModule()}});
    spec.sampleRate = sampleRate;
    EXPECT_TRUE(Generator::render(spec).empty()) << sampleRate;
  }
}

TEST(SignalGeneratorRender, AModuleAfterTheEndContributesNothingAndOneAcrossItIsCut) {
  const auto tone = moduleOf({Source::Sine{440}}, 0.1);
  auto spec = specOf({{startingAt(0.2, tone)}, {startingAt(0.15, tone)}, {startingAt(7, tone)}});
  spec.duration = 0.2;
  const auto channels = Generator::render(spec);
  ASSERT_EQ(channels[0].size(), 9600u);
  EXPECT_TRUE(isSilent(channels[0]));
  EXPECT_TRUE(isSilent(channels[2]));
  const auto whole = Generator::renderModule(tone, rate, 1);
  for (std::size_t i = 0; i < 9600; ++i) ASSERT_EQ(channels[1][i], i < 7200 ? 0 : whole[i - 7200]);
}

TEST(SignalGeneratorRender, NoiseAcrossTheEndKeepsTheLevelOfItsWholeLength) {
  auto spec = specOf({{noiseModule(1)}});
  spec.duration = 0.25;
  const auto whole = Generator::renderModule(noiseModule(1), rate, 0xD1B54A32D192ED03u ^ 0x9E3779B97F4A7C15u);
  EXPECT_TRUE(std::equal(whole.begin(), whole.begin() + 12000, Generator::render(spec)[0].begin()));
}

TEST(SignalGeneratorRender, OffsetsAreRoundedHalvesUpAndFaultyOnesAreZero) {
  const auto placeOf = [](double start) {
    auto spec = specOf({{startingAt(start, moduleOf({Source::Impulse{}}, 0.01))}});
    spec.sampleRate = 1000;
    spec.duration = 1;
    return spikesOf(Generator::render(spec)[0], 1);
  };
  EXPECT_EQ(placeOf(0.0125), Places{13});
  EXPECT_EQ(placeOf(0.01249), Places{12});
  for (const double start : {0.0, -1.0, nan, infinity, -infinity, 1e308 * 10})
    EXPECT_EQ(placeOf(start), Places{0});
  EXPECT_EQ(placeOf(1e300), Places{});
}

TEST(SignalGeneratorRender, OverlappingModulesAddUpUnderTheCeiling) {
  const auto tone = moduleOf({Source::Sine{1000}}, 0.1, 0);
  auto spec = specOf({{tone, tone}, {tone}});
  const auto loud = Generator::render(spec);
  EXPECT_FLOAT_EQ(peakOf(loud[0]), 2);
  spec.peakCeilingDB = -6.0f;
  const auto held = Generator::render(spec);
  EXPECT_NEAR(peakOf(held[0]), amplitudeOf(-6), 1e-7);
  EXPECT_NEAR(peakOf(held[1]), amplitudeOf(-6) / 2, 1e-7);
}

TEST(SignalGeneratorRender, AModuleIsSweptThenGatedThenFaded) {
  auto module = moduleOf({Source::Sawtooth{440}}, 0.5, -3);
  auto expected = Generator::renderModule(module, rate, 1);
  module.levelSweep = LevelSweep{-30, 0, LevelSweepShape::logarithmic};
  module.burst = BurstGate{0.06, 0.04, 4, 3};
  module.fadeInSeconds = 0.2;
  module.fadeOutSeconds = 0.4;
  Generator::applyLevelSweep(expected, *module.levelSweep);
  Generator::applyBurst(expected, *module.burst, rate);
  Generator::applyFades(expected, 0.2, 0.4, rate);
  EXPECT_EQ(Generator::renderModule(module, rate, 1), expected);
}

TEST(SignalGeneratorRender, EverySourceIsFiniteAtAnySampleRate) {
  for (const double sampleRate : {1e-305, 1e-160, 1e-5, 0.5, 1e6})
    for (const double frequency : {sampleRate * 0.499, sampleRate * 1e-3})
      for (const Source& source :
           {Source{Source::Sine{frequency}}, Source{Source::Square{frequency}},
            Source{Source::Sawtooth{frequency}}, Source{Source::Triangle{frequency}},
            Source{Source::Noise{NoiseColor::pink}}, Source{Source::Impulse{}},
            Source{Source::Sweep{frequency, sampleRate / 4, SweepShape::linear}},
            Source{Source::Sweep{frequency, sampleRate / 4, SweepShape::logarithmic}}}) {
        const auto x = Generator::renderModule(moduleOf(source, 100 / sampleRate), sampleRate, 1);
        ASSERT_EQ(x.size(), 100u);
        EXPECT_FALSE(isSilent(x));
        for (const float value : x) ASSERT_LE(std::fabs(value), 4) << sampleRate << " Hz";
      }
}

// Two frames there last longer than 64 bit can tell in seconds.
TEST(SignalGeneratorRender, ASweepIsFiniteAtTheLowestSampleRates) {
  for (const SweepShape shape : {SweepShape::linear, SweepShape::logarithmic}) {
    const auto x =
        Generator::renderModule(moduleOf({Source::Sweep{2.5e-309, 2.5e-309, shape}}, 1.7e308, 0), 1e-308, 1);
    ASSERT_EQ(x.size(), 2u);
    EXPECT_NEAR(x[1], 1, 1e-6);  // a quarter of the rate
    for (const float value :
         Generator::renderModule(moduleOf({Source::Sweep{1e-309, 4e-309, shape}}, 1.7e308, 0), 1e-308, 1))
      EXPECT_LE(std::fabs(value), 1);
  }
}

// 10^(dB / 20) has no place in 32 bit from +771 dB on, and neither has its product with a sweep's gain
// before.
TEST(SignalGeneratorRender, LevelsWithoutAPlaceIn32BitAreTheLargestFloat) {
  constexpr float largest = std::numeric_limits<float>::max();
  const std::optional<LevelSweep> sweeps[] = {std::nullopt, LevelSweep{-200, -200, LevelSweepShape::linear},
                                              LevelSweep{-60, 1000, LevelSweepShape::linear},
                                              LevelSweep{-60, 1000, LevelSweepShape::logarithmic},
                                              LevelSweep{1000, 1000, LevelSweepShape::logarithmic}};
  for (const Source& source :
       {Source{Source::Silence{}}, Source{Source::Sine{997}}, Source{Source::Square{40}},
        Source{Source::Sawtooth{9000}}, Source{Source::Noise{NoiseColor::pink}}, Source{Source::Impulse{}},
        Source{Source::Sweep{20, 200, SweepShape::linear}}})
    for (const float gainDB : {-6.0f, 600.0f, 768.0f, 800.0f, largest})
      for (const auto& sweep : sweeps) {
        auto module = moduleOf(source, 0.01, gainDB);
        module.levelSweep = sweep;
        module.fadeOutSeconds = 0.001;
        const auto spec = specOf({{module, module, startingAt(0.002, module)}});
        const auto channels = Generator::render(spec);
        for (const float value : channels[0]) ASSERT_LE(std::fabs(value), largest);
        if (gainDB == largest && std::holds_alternative<Source::Sine>(source.value) && !sweep) {
          EXPECT_GT(peakOf(Generator::renderModule(module, rate, 1)), 0.999 * double{largest});
        }
      }
  auto module = moduleOf({Source::Impulse{}}, 0.01, 0);
  module.levelSweep = LevelSweep{-60, 1000, LevelSweepShape::linear};
  EXPECT_NEAR(Generator::renderModule(module, rate, 1)[0], 0.001f, 1e-9f);  // the start is exact all the same
}

TEST(SignalGeneratorRender, ABurstSpacesImpulsesAndGatesNone) {
  auto module = moduleOf({Source::Impulse{}}, 1);
  module.burst = BurstGate{0.1, 0.1, 0, 40};  // as a gate its ramp would take the impulses away
  EXPECT_EQ(spikesOf(Generator::renderModule(module, rate, 1), 1), (Places{0, 9600, 19200, 28800, 38400}));
}

TEST(SignalGeneratorRender, EverySourceIsTheOperationOfItsName) {
  const auto module = [](Source source) {
    return Generator::renderModule(moduleOf(source, 0.1, -20), rate, 5);
  };
  const float gain = std::pow(10.0f, -1.0f);
  EXPECT_EQ(module({Source::Sine{440}}), Generator::sine(440, gain, 4800, rate));
  EXPECT_EQ(module({Source::Silence{}}), std::vector<float>(4800));
  for (const NoiseColor color : colors)
    EXPECT_EQ(module({Source::Noise{color}}), Generator::noise(color, gain, 4800, 5));
  const std::pair<Source, Waveform> shapes[] = {{{Source::Square{440}}, Waveform::square},
                                                {{Source::Sawtooth{440}}, Waveform::sawtooth},
                                                {{Source::Triangle{440}}, Waveform::triangle}};
  for (const auto& [source, waveform] : shapes) {
    auto expected = Generator::bandlimited(waveform, 440, 4800, rate);
    Generator::normalizePeak(expected, gain);
    EXPECT_EQ(module(source), expected);
  }
  EXPECT_TRUE(Generator::renderModule(moduleOf({Source::Sine{440}}, 0.4 / rate), rate, 5).empty());
  EXPECT_EQ(Generator::renderModule(moduleOf({Source::Sine{440}}, 0.5 / rate), rate, 5).size(), 1u);
}

}  // namespace
}  // namespace vellum
