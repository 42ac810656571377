#include "VellumCore/SpeechVAD.hpp"

#include <algorithm>
#include <cmath>
#include <complex>
#include <cstdint>
#include <limits>
#include <numbers>
#include <optional>
#include <random>
#include <set>
#include <span>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "Support/AllocationCounter.hpp"
#include "Support/Signals.hpp"

namespace vellum {
namespace {

using namespace test;

using Block = std::vector<float>;

constexpr double infinity = std::numeric_limits<double>::infinity();
constexpr float nan = std::numeric_limits<float>::quiet_NaN();

// --- The whole decision once more, plainly and in 64 bit ---------------------------------------------------

// X[k] = sum x[n] e^(-2 pi i k n / N) for every k, from the transforms of the even and of the odd samples.
std::vector<std::complex<double>> transformed(const std::vector<double>& x) {
  const std::size_t N = x.size();
  if (N == 1) return {x[0]};
  std::vector<double> even, odd;
  for (std::size_t n = 0; n < N; n += 2) even.push_back(x[n]), odd.push_back(x[n + 1]);
  const auto E = transformed(even), O = transformed(odd);
  std::vector<std::complex<double>> X(N);
  for (std::size_t k = 0; k < N / 2; ++k) {
    const auto turn =
        std::polar(1.0, -2 * std::numbers::pi * static_cast<double>(k) / static_cast<double>(N));
    X[k] = E[k] + turn * O[k];
    X[k + N / 2] = E[k] - turn * O[k];
  }
  return X;
}

class PlainSpeechVAD {
 public:
  explicit PlainSpeechVAD(double sampleRate) : sampleRate_(sampleRate) {}

  // What the tests look at.
  struct Figures {
    double rms, highShare, speechShare, flatnessDB, harmonicShare;
    double flux;  // against the previous block; above any threshold when there is none
    std::vector<double> speechBand;
  };

  enum class Outcome { tooQuiet, hissing, outOfBand, flat, harmonic, moving, still };

  Figures figuresOf(std::span<const float> block) const {
    block = block.first(std::min<std::size_t>(block.size(), 4096));
    Figures f{};
    for (float x : block) f.rms += static_cast<double>(x) * static_cast<double>(x);
    f.rms = std::sqrt(f.rms / static_cast<double>(block.size()));

    std::vector<double> windowed(4096);
    for (std::size_t i = 0; i < block.size(); ++i)
      windowed[i] = static_cast<double>(block[i]) *
                    (1 - std::cos(2 * std::numbers::pi * static_cast<double>(i) / 4096)) / 2;
    const auto X = transformed(windowed);
    std::vector<double> power(2048);
    for (std::size_t k = 0; k < 2048; ++k) power[k] = std::norm(X[k]);

    const auto sum = [&](std::int64_t first, std::int64_t end) {
      double total = 0;
      for (std::int64_t k = first; k < end; ++k) total += power[static_cast<std::size_t>(k)];
      return total;
    };
    f.highShare = sum(bin(4000), 2048) / sum(1, 2048);
    const double low = sum(1, bin(300)), speech = sum(bin(300), bin(3400)), high = sum(bin(3400), 2048);
    f.speechShare = speech / (low + speech + high);

    const auto count = static_cast<double>(bin(3400) - bin(300));
    double logarithms = 0;
    for (std::int64_t k = bin(300); k < bin(3400); ++k) {
      const double p = power[static_cast<std::size_t>(k)];
      logarithms += std::log10(std::max(p, 1e-20));
      f.speechBand.push_back(p / speech);
    }
    f.flatnessDB = count < 4 ? 0 : 10 * (logarithms / count - std::log10(std::max(speech / count, 1e-20)));

    const auto near = [&](std::int64_t b) {
      double greatest = 0;
      if (b >= 1 && b <= 2047)
        for (std::int64_t k = std::max<std::int64_t>(b - 1, 1); k <= std::min<std::int64_t>(b + 1, 2047); ++k)
          greatest = std::max(greatest, power[static_cast<std::size_t>(k)]);
      return greatest;
    };
    const std::int64_t f0Start = std::max<std::int64_t>(bin(80), 1), f0End = bin(400);
    std::int64_t k0 = f0Start;
    double peak = 0;
    for (std::int64_t k = f0Start; k <= f0End; ++k)
      if (power[static_cast<std::size_t>(k)] > peak) peak = power[static_cast<std::size_t>(k)], k0 = k;
    f.harmonicShare = f0Start >= f0End || peak <= 1e-20 ? 0 : (near(2 * k0) + near(3 * k0)) / (2 * peak);

    f.flux = 0;
    if (memory_)
      for (std::size_t k = 0; k < f.speechBand.size(); ++k)
        f.flux += std::pow(f.speechBand[k] - (*memory_)[k], 2);
    else
      f.flux = infinity;
    return f;
  }

  Outcome decide(std::span<const float> block) {
    const Figures f = figuresOf(block);
    if (!above(f.rms, 0.000316)) {
      memory_.reset();
      return Outcome::tooQuiet;
    }
    if (above(f.highShare, 0.35)) {
      memory_.reset();
      return Outcome::hissing;
    }
    const Outcome outcome = !above(f.speechShare, 0.45)   ? Outcome::outOfBand
                            : above(f.flatnessDB, -8.0)   ? Outcome::flat
                            : above(f.harmonicShare, 0.2) ? Outcome::harmonic
                            : above(f.flux, 0.02)         ? Outcome::moving
                                                          : Outcome::still;
    memory_ = f.speechBand;
    return outcome;
  }

  static bool isSpeech(Outcome outcome) { return outcome == Outcome::harmonic || outcome == Outcome::moving; }
  bool hasMemory() const { return memory_.has_value(); }
  // How near, relative to itself, a threshold has been to its figure: below 1e-4 the two might part by
  // rounding.
  double nearest() const { return nearest_; }

 private:
  std::int64_t bin(double hz) const {
    return std::min<std::int64_t>(static_cast<std::int64_t>(std::floor(hz * 4096 / sampleRate_ + 0.5)), 2047);
  }
  bool above(double figure, double threshold) {
    nearest_ = std::min(nearest_, std::abs(figure / threshold - 1));
    return figure > threshold;
  }

  double sampleRate_, nearest_ = 1;
  std::optional<std::vector<double>> memory_;
};

// --- Blocks ------------------------------------------------------------------------------------------------

// A tone with a whole number of periods in 4096 samples: under the window it stands in its bin and, at a
// quarter of the power, in the two beside it; nowhere else.
struct Tone {
  int bin;
  double amplitude;
};

Block tones(const std::vector<Tone>& list) {
  std::vector<double> sum(4096);
  for (const Tone& tone : list)
    for (std::size_t n = 0; n < sum.size(); ++n)
      sum[n] += tone.amplitude * std::sin(2 * std::numbers::pi * static_cast<double>(n) * tone.bin / 4096 +
                                          0.7 * tone.bin * tone.bin);
  return Block(sum.begin(), sum.end());
}

Block scaled(Block block, double factor) {
  for (float& sample : block) sample = static_cast<float>(static_cast<double>(sample) * factor);
  return block;
}

double rmsOf(const Block& block) {
  double sum = 0;
  for (float sample : block) sum += static_cast<double>(sample) * static_cast<double>(sample);
  return std::sqrt(sum / static_cast<double>(block.size()));
}

const Block silence(4800);

// At 48 kHz, where a bin is 11.72 Hz wide: the speech band is bins 26 ... 289, the fundamentals 7 ... 34.

// A vowel: a fundamental of 117 Hz and its harmonics up to 2.3 kHz. Harmonicity decides for it, every time.
Block vowel() {
  std::vector<Tone> list;
  for (int bin = 10; bin <= 200; bin += 10) list.push_back({bin, 0.02});
  return tones(list);
}

// A fundamental in the speech band without harmonics: band and flatness pass, harmonicity does not, and the
// flux decides.
Block hum(int bin = 30) {
  return tones({{bin, 0.1}});
}

bool firstDecision(const Block& block, double sampleRate = 48000) {
  return SpeechVAD(sampleRate).isSpeech(block);
}

// The decision when the block before was the same, so that the flux is 0: only harmonicity makes it speech.
bool isHarmonic(const Block& block, double sampleRate = 48000) {
  SpeechVAD detector(sampleRate);
  detector.isSpeech(block);
  return detector.isSpeech(block);
}

// The parameter at which a figure that rises with it reaches its target.
template <typename Figure>
double parameterFor(double target, double low, double high, const Figure& figure) {
  EXPECT_LT(figure(low), target);
  EXPECT_GT(figure(high), target);
  for (int step = 0; step < 40; ++step) {
    const double middle = (low + high) / 2;
    (figure(middle) < target ? low : high) = middle;
  }
  return (low + high) / 2;
}

const PlainSpeechVAD plain(48000);
constexpr double justBelow = 0.9995, justAbove = 1.0005;

// --- Against the plain decision ----------------------------------------------------------------------------

// Some moment of a programme: a voice, a hum, bass, noise, a whistle over a voice, or next to nothing.
Block randomBlock(std::mt19937& rng, double sampleRate) {
  const auto frames =
      static_cast<std::int64_t>(rng() % 4 == 0 ? 1 + rng() % 9000 : std::llround(sampleRate / 10));
  Block block = noise(rng, frames, 0.002);
  struct Partial {
    double hz, amplitude;
  };
  const auto add = [&](const Partial& partial) {
    const Block tone = sine(sampleRate, frames, partial.hz, partial.amplitude, uniform(rng, 0, 6));
    for (std::size_t n = 0; n < block.size(); ++n) block[n] += tone[n];
  };
  const auto voice = [&] {
    const double f0 = uniform(rng, 90, 390), tilt = uniform(rng, 0, 2.5);
    for (int h = 1; h * f0 < 3300; ++h) add({h * f0, std::pow(h, -tilt)});
  };
  switch (rng() % 7) {
    case 0:
      return scaled(block, uniform(rng, 0, 0.2));
    case 1:
      return noise(rng, frames, uniform(rng, 0.01, 1));
    case 2:
      voice();
      break;
    case 3:
      add({uniform(rng, 310, 390), 1});
      break;
    case 4:
      add({uniform(rng, 40, 280), 1});
      add({uniform(rng, 400, 3000), uniform(rng, 0, 2)});
      break;
    case 5:
      voice();
      add({uniform(rng, 0.85, 0.98) * sampleRate / 2, uniform(rng, 0, 3)});
      break;
    case 6:
      add({uniform(rng, 310, 390), 1});
      add({uniform(rng, 1300, 3000), uniform(rng, 0, 1)});
      break;
  }
  return scaled(block, amplitudeOf(uniform(rng, -50, 0)));
}

TEST(SpeechVAD, EqualsThePlainDecisionOnRandomProgrammes) {
  std::set<PlainSpeechVAD::Outcome> seen;
  for (double sampleRate : {8000.0, 11025.0, 16000.0, 22050.0, 44100.0, 48000.0, 96000.0, 192000.0}) {
    std::mt19937 rng(static_cast<unsigned>(sampleRate));
    SpeechVAD detector(sampleRate);
    PlainSpeechVAD twin(sampleRate);
    Block block;
    for (int k = 0; k < 60; ++k) {
      if (k == 0 || rng() % 4 != 0) block = randomBlock(rng, sampleRate);  // now and then the same once more
      const PlainSpeechVAD::Outcome outcome = twin.decide(block);
      seen.insert(outcome);
      ASSERT_EQ(detector.isSpeech(block), PlainSpeechVAD::isSpeech(outcome))
          << sampleRate << " Hz, block " << k << ", outcome " << static_cast<int>(outcome);
      ASSERT_EQ(detector.hasSpectralHistory(), twin.hasMemory()) << sampleRate << " Hz, block " << k;
    }
    ASSERT_GT(twin.nearest(), 1e-4) << "a block of this seed stands too near a threshold to tell";
  }
  EXPECT_EQ(seen.size(), 7u) << "not every way out of the decision was taken";
}

// --- Bins --------------------------------------------------------------------------------------------------

TEST(SpeechVAD, BinsAt48kHz) {
  const SpeechVAD detector(48000);
  EXPECT_EQ(SpeechVAD::fftN, 4096);
  EXPECT_EQ(SpeechVAD::halfN, 2048);
  EXPECT_EQ(detector.sampleRate(), 48000);
  EXPECT_EQ(detector.bins().binDCEnd, 1);
  EXPECT_EQ(detector.bins().binSubBassEnd, 26);
  EXPECT_EQ(detector.bins().binSpeechStart, 26);
  EXPECT_EQ(detector.bins().binSpeechEnd, 290);
  EXPECT_EQ(detector.bins().binHiFreqStart, 341);
  EXPECT_EQ(detector.bins().binF0Start, 7);
  EXPECT_EQ(detector.bins().binF0End, 34);
  EXPECT_EQ(detector.bins().speechBinCount(), 264);
}

// 4 kHz is half the rate here and would be bin 2048; 3.4 kHz still has a bin of its own.
TEST(SpeechVAD, BinsAt8kHzEndAtTheLastOne) {
  const SpeechVAD::Bins bins = SpeechVAD(8000).bins();
  EXPECT_EQ(bins.binHiFreqStart, 2047);
  EXPECT_EQ(bins.binSpeechEnd, 1741);
  EXPECT_EQ(bins.binSpeechStart, 154);
}

TEST(SpeechVAD, BinsRoundHalvesUp) {
  EXPECT_EQ(SpeechVAD(98304).bins().binSpeechStart, 13);  // 300 x 4096 / 98304 = 12.5
  EXPECT_EQ(SpeechVAD(65536).bins().binSpeechStart, 19);  // 18.75
  EXPECT_EQ(SpeechVAD(131072).bins().binSpeechStart, 9);  // 9.375
}

TEST(SpeechVAD, BinsStayInTheSpectrumAtEveryRate) {
  std::mt19937 rng(1);
  std::vector<double> rates = {1e-3, 5, 599, 600, 601, 6800, 8000, 192000, 1e6, 1e7, 1e12};
  for (int k = 0; k < 200; ++k) rates.push_back(std::pow(10.0, uniform(rng, 0, 7)));
  for (double rate : rates) {
    const SpeechVAD::Bins bins = SpeechVAD(rate).bins();
    const auto binOf = [&](double hz) {
      return static_cast<std::int64_t>(std::min(std::floor(hz * 4096 / rate + 0.5), 2047.0));
    };
    EXPECT_EQ(bins.binSubBassEnd, binOf(300)) << rate;
    EXPECT_EQ(bins.binSpeechStart, binOf(300)) << rate;
    EXPECT_EQ(bins.binSpeechEnd, binOf(3400)) << rate;
    EXPECT_EQ(bins.binHiFreqStart, binOf(4000)) << rate;
    EXPECT_EQ(bins.binF0Start, std::max<std::int64_t>(binOf(80), 1)) << rate;
    EXPECT_EQ(bins.binF0End, binOf(400)) << rate;
    EXPECT_EQ(bins.speechBinCount(), binOf(3400) - binOf(300)) << rate;
  }
}

// Where the speech band has no bin, nothing is speech; and nothing is read outside the spectrum.
TEST(SpeechVAD, RatesWithoutASpeechBandHearNoSpeech) {
  std::mt19937 rng(2);
  for (double rate : {5.0, 100.0, 599.0, 600.0, 1e7, 1e9}) {
    SpeechVAD detector(rate);
    for (int k = 0; k < 5; ++k) EXPECT_FALSE(detector.isSpeech(noise(rng, 4096, 0.5))) << rate;
    for (int bin : {1, 2, 30, 1000, 2045, 2047})
      EXPECT_FALSE(detector.isSpeech(tones({{bin, 0.5}}))) << rate << " Hz, bin " << bin;
    EXPECT_FALSE(detector.hasSpectralHistory()) << rate;  // of what?
  }
}

TEST(SpeechVAD, FlatnessNeedsFourBins) {
  ASSERT_EQ(SpeechVAD(601.3).bins().speechBinCount(), 3);
  ASSERT_EQ(SpeechVAD(601.6).bins().speechBinCount(), 4);
  EXPECT_FALSE(firstDecision(tones({{2044, 0.5}}), 601.3));
  EXPECT_TRUE(firstDecision(tones({{2043, 0.5}}), 601.6));
}

// At 2 MHz the fundamentals would be bin 1 alone: there is no range to look through.
TEST(SpeechVAD, HarmonicityNeedsARangeOfFundamentals) {
  ASSERT_EQ(SpeechVAD(2e6).bins().binF0Start, 1);
  ASSERT_EQ(SpeechVAD(2e6).bins().binF0End, 1);
  const Block block = tones({{3, 0.5}});
  EXPECT_TRUE(firstDecision(block, 2e6));
  EXPECT_FALSE(isHarmonic(block, 2e6));
}

TEST(SpeechVAD, RateWithoutFiniteBinsStopsTheProgram) {
  EXPECT_DEATH(SpeechVAD{0}, "SpeechVAD: sampleRate");
  EXPECT_DEATH(SpeechVAD{nan}, "SpeechVAD: sampleRate");
  EXPECT_DEATH(SpeechVAD{1e-306}, "SpeechVAD: sampleRate");
}

TEST(SpeechVAD, RateBelowZeroOrInfiniteStopsTheProgram) {
  EXPECT_DEATH(SpeechVAD{-48000}, "SpeechVAD: sampleRate");
  EXPECT_DEATH(SpeechVAD{infinity}, "SpeechVAD: sampleRate");
}

// --- Too quiet ---------------------------------------------------------------------------------------------

TEST(SpeechVAD, SilentBlockIsNotSpeechAndClearsTheMemory) {
  SpeechVAD detector(48000);
  EXPECT_TRUE(detector.isSpeech(hum()));
  EXPECT_TRUE(detector.hasSpectralHistory());
  EXPECT_FALSE(detector.isSpeech(silence));
  EXPECT_FALSE(detector.hasSpectralHistory());
  EXPECT_TRUE(detector.isSpeech(hum()));  // the first one again
}

TEST(SpeechVAD, QuietBlocksAreNotSpeech) {
  const Block block = scaled(vowel(), 1 / rmsOf(vowel()));
  EXPECT_FALSE(firstDecision(scaled(block, 0.000316 * justBelow)));
  EXPECT_TRUE(firstDecision(scaled(block, 0.000316 * justAbove)));
}

// A tenth of a block at -65 dBFS is loud enough; spread over 4096 samples it would be -81 dBFS.
TEST(SpeechVAD, RMSIsTakenOverTheGivenSamplesOnly) {
  SpeechVAD detector(48000);
  detector.isSpeech(hum());
  detector.isSpeech(sine(48000, 100, 1000, amplitudeOf(-62)));
  EXPECT_TRUE(detector.hasSpectralHistory());
  Block padded = sine(48000, 100, 1000, amplitudeOf(-62));
  padded.resize(4096);
  detector.isSpeech(padded);
  EXPECT_FALSE(detector.hasSpectralHistory());
}

TEST(SpeechVAD, EmptyBlockIsNotSpeechAndLeavesTheMemory) {
  SpeechVAD detector(48000);
  EXPECT_FALSE(detector.isSpeech({}));
  EXPECT_FALSE(detector.hasSpectralHistory());
  detector.isSpeech(hum());
  EXPECT_FALSE(detector.isSpeech({}));
  EXPECT_TRUE(detector.hasSpectralHistory());
  EXPECT_FALSE(detector.isSpeech(hum()));  // still the same as before
}

// --- The spectral tests, each at its threshold -------------------------------------------------------------

TEST(SpeechVAD, WhiteNoiseIsNotSpeech) {
  std::mt19937 rng(3);
  SpeechVAD wide(48000);
  for (int k = 0; k < 10; ++k) {
    EXPECT_FALSE(wide.isSpeech(noise(rng, 4800, 0.5)));
    EXPECT_FALSE(wide.hasSpectralHistory());  // it hisses
  }
  // At 8 kHz most of it lies in the speech band, and only its flatness gives it away.
  SpeechVAD narrow(8000);
  const PlainSpeechVAD narrowTwin(8000);
  for (int k = 0; k < 10; ++k) {
    const Block block = noise(rng, 800, 0.5);
    EXPECT_GT(narrowTwin.figuresOf(block).speechShare, 0.6);
    EXPECT_GT(narrowTwin.figuresOf(block).flatnessDB, -4.0);
    EXPECT_FALSE(narrow.isSpeech(block));
    EXPECT_TRUE(narrow.hasSpectralHistory());
  }
}

TEST(SpeechVAD, MoreThan35PercentAbove4kHzIsNotSpeechAndClearsTheMemory) {
  const auto withHiss = [](double amplitude) {
    Block block = vowel();
    const Block hiss = tones({{1000, amplitude}});
    for (std::size_t n = 0; n < block.size(); ++n) block[n] += hiss[n];
    return block;
  };
  const double limit =
      parameterFor(0.35, 0, 1, [&](double a) { return plain.figuresOf(withHiss(a)).highShare; });
  SpeechVAD detector(48000);
  EXPECT_TRUE(detector.isSpeech(withHiss(limit * justBelow)));
  EXPECT_TRUE(detector.hasSpectralHistory());
  EXPECT_FALSE(detector.isSpeech(withHiss(limit * justAbove)));
  EXPECT_FALSE(detector.hasSpectralHistory());
}

// Bin 340 is below 4 kHz and bin 342 above: their skirts meet in bin 341, where the range begins.
TEST(SpeechVAD, HighFrequenciesBeginAt4kHzAndEndAtTheLastBin) {
  SpeechVAD detector(48000);
  for (int bin : {341, 342, 1000, 2046, 2047}) {
    detector.isSpeech(hum());
    detector.isSpeech(tones({{bin, 0.1}}));
    EXPECT_FALSE(detector.hasSpectralHistory()) << "bin " << bin;
  }
  for (int bin : {340, 339, 300}) {
    detector.isSpeech(tones({{bin, 0.1}}));
    detector.isSpeech(hum());
    EXPECT_TRUE(detector.hasSpectralHistory()) << "bin " << bin;
  }
}

TEST(SpeechVAD, SpeechBandMustHoldMoreThan45Percent) {
  const auto mix = [](int outside, double amplitude) {
    return tones({{outside, 0.1}, {60, amplitude}, {90, amplitude}});
  };
  for (int outside : {9, 20, 300, 335}) {  // below 300 Hz, and between 3.4 and 4 kHz
    const double limit =
        parameterFor(0.45, 0, 1, [&](double a) { return plain.figuresOf(mix(outside, a)).speechShare; });
    EXPECT_FALSE(firstDecision(mix(outside, limit * justBelow))) << "bin " << outside;
    EXPECT_TRUE(firstDecision(mix(outside, limit * justAbove))) << "bin " << outside;
  }
}

// An offset fills bin 0, which no test looks at, and a quarter of that in bin 1, which is bass.
TEST(SpeechVAD, ConstantOffsetCountsAsLittleBass) {
  const auto withOffset = [](Block block) {
    for (float& sample : block) sample += 0.1f;
    return block;
  };
  // With bin 0, the speech band would hold 23 % instead of 60 %.
  EXPECT_TRUE(firstDecision(withOffset(tones({{30, 0.0577}, {60, 0.0577}, {90, 0.0577}}))));
  // And here the high frequencies would hold 23 % instead of 60 %.
  SpeechVAD detector(48000);
  detector.isSpeech(hum());
  EXPECT_FALSE(detector.isSpeech(withOffset(tones({{1000, 0.1}}))));
  EXPECT_FALSE(detector.hasSpectralHistory());
}

TEST(SpeechVAD, SpeechBandMustNotBeFlat) {
  // Every bin of the band at one level, and one tone that stands out of it.
  const auto carpet = [](double amplitude) {
    std::vector<Tone> list;
    for (int bin = 27; bin < 289; ++bin) list.push_back({bin, 0.001});
    list.push_back({150, amplitude});
    return tones(list);
  };
  const double limit =
      parameterFor(8.0, 0, 0.1, [&](double a) { return -plain.figuresOf(carpet(a)).flatnessDB; });
  EXPECT_FALSE(firstDecision(carpet(limit * justBelow)));
  EXPECT_TRUE(firstDecision(carpet(limit * justAbove)));
}

TEST(SpeechVAD, SecondAndThirdHarmonicMustReachAFifth) {
  // By power: the mean of the two against the fundamental.
  const auto voiced = [](double second, double third) {
    return tones({{30, 0.1}, {60, 0.1 * std::sqrt(second)}, {90, 0.1 * std::sqrt(third)}});
  };
  for (const auto& [second, third] : {std::pair{0.2, 0.2}, {0.4, 0.0}, {0.0, 0.4}, {0.3, 0.1}}) {
    EXPECT_FALSE(isHarmonic(voiced(second * justBelow, third * justBelow))) << second << " " << third;
    EXPECT_TRUE(isHarmonic(voiced(second * justAbove, third * justAbove))) << second << " " << third;
  }
}

TEST(SpeechVAD, HarmonicsMayStandOneBinAside) {
  for (int aside : {-1, 0, 1}) {
    EXPECT_TRUE(isHarmonic(tones({{30, 0.1}, {60 + aside, 0.05}, {90 + aside, 0.05}}))) << aside;
    EXPECT_TRUE(isHarmonic(tones({{30, 0.1}, {60 + aside, 0.05}, {90 - aside, 0.05}}))) << aside;
  }
  EXPECT_FALSE(isHarmonic(tones({{30, 0.1}, {63, 0.05}, {93, 0.05}})));
  EXPECT_FALSE(isHarmonic(tones({{30, 0.1}, {57, 0.05}, {87, 0.05}})));
}

// The tone beside the range reaches into it with a quarter of its power, and its harmonics miss double that
// bin.
TEST(SpeechVAD, FundamentalsLieBetween80And400HzInclusive) {
  const auto voiced = [](int f0) { return tones({{f0, 0.1}, {2 * f0, 0.047}, {3 * f0, 0.047}, {150, 0.2}}); };
  EXPECT_TRUE(isHarmonic(voiced(7)));
  EXPECT_TRUE(isHarmonic(voiced(20)));
  EXPECT_TRUE(isHarmonic(voiced(34)));
  EXPECT_FALSE(isHarmonic(voiced(35)));
}

TEST(SpeechVAD, HarmonicityDecidesWhateverTheFlux) {
  SpeechVAD detector(48000);
  for (int k = 0; k < 3; ++k) EXPECT_TRUE(detector.isSpeech(vowel()));  // no flux after the first
}

// --- Flux --------------------------------------------------------------------------------------------------

TEST(SpeechVAD, FirstBlockWithoutHarmonicsIsSpeechAndTheSameOnceMoreIsNot) {
  SpeechVAD detector(48000);
  EXPECT_TRUE(detector.isSpeech(hum()));
  EXPECT_FALSE(detector.isSpeech(hum()));
  EXPECT_FALSE(detector.isSpeech(scaled(hum(), 4.0)));  // the spectrum is normalised: louder is no change
}

TEST(SpeechVAD, FluxMustExceedItsThreshold) {
  const auto twoTones = [](double amplitude) { return tones({{30, 0.1}, {200, amplitude}}); };
  PlainSpeechVAD twin(48000);
  twin.decide(twoTones(0.01));
  const double limit =
      parameterFor(0.02, 0.01, 0.1, [&](double a) { return twin.figuresOf(twoTones(a)).flux; });
  for (const auto& [amplitude, expected] : {std::pair{limit * justBelow, false}, {limit * justAbove, true}}) {
    SpeechVAD detector(48000);
    detector.isSpeech(twoTones(0.01));
    EXPECT_EQ(detector.isSpeech(twoTones(amplitude)), expected);
  }
}

TEST(SpeechVAD, FluxComparesWithThePreviousBlockOnly) {
  SpeechVAD detector(48000);
  EXPECT_TRUE(detector.isSpeech(hum(30)));
  EXPECT_TRUE(detector.isSpeech(hum(33)));
  EXPECT_TRUE(detector.isSpeech(hum(30)));
  EXPECT_FALSE(detector.isSpeech(hum(30)));
}

// --- What refreshes the memory -----------------------------------------------------------------------------

TEST(SpeechVAD, BlockOutOfTheSpeechBandIsRemembered) {
  SpeechVAD detector(48000);
  EXPECT_FALSE(detector.isSpeech(tones({{30, 0.1}, {5, 0.5}})));  // too much bass; in the band, a hum
  EXPECT_TRUE(detector.hasSpectralHistory());
  EXPECT_FALSE(detector.isSpeech(hum(30)));
}

TEST(SpeechVAD, FlatBlockIsRemembered) {
  std::vector<Tone> carpet;
  for (int bin = 27; bin < 289; ++bin) carpet.push_back({bin, 0.001});
  SpeechVAD detector(48000);
  EXPECT_TRUE(detector.isSpeech(hum()));
  EXPECT_FALSE(detector.isSpeech(tones(carpet)));
  EXPECT_TRUE(detector.isSpeech(hum()));  // a change from the carpet, though not from the hum before
}

TEST(SpeechVAD, HarmonicBlockIsRemembered) {
  const auto voiced = [](double share) {
    return tones({{30, 0.1}, {60, 0.1 * std::sqrt(share)}, {90, 0.1 * std::sqrt(share)}});
  };
  SpeechVAD detector(48000);
  EXPECT_TRUE(detector.isSpeech(voiced(0.21)));
  EXPECT_FALSE(detector.isSpeech(voiced(0.19)));  // just not harmonic, and next to no change
}

// --- Blocks of any length and level ------------------------------------------------------------------------

TEST(SpeechVAD, OnlyTheFirst4096SamplesCount) {
  std::mt19937 rng(4);
  const Block hiss = noise(rng, 20000, 1.0);
  Block block = vowel();
  block.insert(block.end(), hiss.begin(), hiss.end());
  EXPECT_TRUE(firstDecision(block));

  Block late(4096);
  const Block speech = vowel();
  late.insert(late.end(), speech.begin(), speech.end());
  SpeechVAD detector(48000);
  detector.isSpeech(hum());
  EXPECT_FALSE(detector.isSpeech(late));
  EXPECT_FALSE(detector.hasSpectralHistory());
}

TEST(SpeechVAD, LongBlockBeforeAShortOneLeavesNothingBehind) {
  SpeechVAD used(48000), fresh(48000);
  used.isSpeech(scaled(vowel(), 10.0));
  used.isSpeech(silence);
  for (std::size_t n : {1u, 2u, 100u, 500u, 1000u, 2205u, 4095u}) {
    Block block = vowel();
    block.resize(n);
    EXPECT_EQ(used.isSpeech(block), fresh.isSpeech(block)) << n << " samples";
    EXPECT_EQ(used.hasSpectralHistory(), fresh.hasSpectralHistory()) << n << " samples";
  }
}

// A power of two scales every step without rounding, so that not even a close decision may turn.
TEST(SpeechVAD, LevelDoesNotMatterAboveTheQuietest) {
  for (double gain : {0.0625, 8.0, 1024.0}) {
    std::mt19937 rng(5);
    SpeechVAD detector(48000), other(48000);
    for (int k = 0; k < 40; ++k) {
      const Block block = randomBlock(rng, 48000);
      if (std::min(1.0, gain) * rmsOf(block) < 0.001) continue;
      EXPECT_EQ(other.isSpeech(scaled(block, gain)), detector.isSpeech(block)) << "block " << k;
    }
  }
}

TEST(SpeechVAD, MovedDetectorKeepsItsMemory) {
  SpeechVAD first(48000);
  first.isSpeech(hum());
  SpeechVAD second = std::move(first);
  EXPECT_FALSE(second.isSpeech(hum()));
  SpeechVAD third(8000);
  third = std::move(second);
  EXPECT_EQ(third.sampleRate(), 48000);
  EXPECT_FALSE(third.isSpeech(hum()));
}

// --- Samples that are not finite ---------------------------------------------------------------------------

TEST(SpeechVAD, BlockWithANaNIsNotSpeechAndClearsTheMemory) {
  SpeechVAD detector(48000);
  detector.isSpeech(hum());
  Block block = vowel();
  block[2000] = nan;
  EXPECT_FALSE(detector.isSpeech(block));
  EXPECT_FALSE(detector.hasSpectralHistory());
  EXPECT_TRUE(detector.isSpeech(vowel()));
  EXPECT_TRUE(detector.isSpeech(vowel()));
}

TEST(SpeechVAD, InfiniteBlockIsNotSpeechAndLeavesTheMemory) {
  for (double value : {infinity, -infinity}) {
    Block block = vowel();
    block[2000] = static_cast<float>(value);
    SpeechVAD detector(48000);
    EXPECT_FALSE(detector.isSpeech(block));
    EXPECT_FALSE(detector.hasSpectralHistory());
    detector.isSpeech(hum());
    EXPECT_FALSE(detector.isSpeech(block));
    EXPECT_FALSE(detector.isSpeech(hum()));  // no change from the hum before
    EXPECT_TRUE(detector.isSpeech(vowel()));
  }
}

TEST(SpeechVAD, DecidingAllocatesNothing) {
  if (!AllocationCounter::isAvailable) GTEST_SKIP() << "a sanitizer owns the allocator";
  SpeechVAD detector(48000);
  const Block speech = vowel(), steady = hum(), quiet(4800);
  const AllocationCounter allocations;
  for (const Block* block : {&speech, &steady, &steady, &quiet, &speech}) detector.isSpeech(*block);
  EXPECT_EQ(allocations.count(), 0);
}

}  // namespace
}  // namespace vellum
