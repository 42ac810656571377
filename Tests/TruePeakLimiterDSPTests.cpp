#include "VellumCore/TruePeakLimiterDSP.hpp"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstring>
#include <limits>
#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "Support/AllocationCounter.hpp"
#include "Support/Signals.hpp"
#include "VellumCore/PolyphaseUpsampler4x.hpp"

namespace vellum {
namespace {

using namespace test;
using Settings = TruePeakLimiterDSP::Settings;
using PolyphaseUpsampler4x::flatCoeffs;

constexpr float infinity = std::numeric_limits<float>::infinity();
constexpr float nan = std::numeric_limits<float>::quiet_NaN();

// --- The plain twin: one sample at a time ----------------------------------------------------------------

class PlainLimiter {
 public:
  explicit PlainLimiter(const Settings& s)
      : lookahead_(std::max<std::int64_t>(
            1, static_cast<std::int64_t>(s.sampleRate * static_cast<double>(s.lookaheadMs) * 0.001))),
        releaseCoeff_(std::exp(-1.0f / (s.releaseMs * 0.001f * static_cast<float>(s.sampleRate)))),
        channels_(static_cast<std::size_t>(s.channelCount)) {
    setCeilingDB(s.ceilingDB);
    for (Channel& channel : channels_) channel.delay.resize(static_cast<std::size_t>(lookahead_));
  }

  void setCeilingDB(float dB) { ceiling_ = std::pow(10.0f, dB / 20.0f); }

  void process(const std::vector<float*>& pointers, std::int64_t n) {
    for (std::int64_t i = 0; i < n; ++i) processFrame(pointers, i);
  }

  float gain = 1, smallestGain = 1;

 private:
  struct Channel {
    std::array<float, 13> newest{};  // the samples before this one
    std::vector<float> delay;
  };

  void processFrame(const std::vector<float*>& pointers, std::int64_t i) {
    float peak = 0;
    for (std::size_t c = 0; c < channels_.size(); ++c) {
      if (!pointers[c]) continue;
      std::array<float, 13>& newest = channels_[c].newest;
      for (const auto& phase : flatCoeffs()) {
        float sum = 0;
        for (std::size_t k = 0; k < 13; ++k) sum += newest[k] * phase[k];
        peak = std::max(peak, std::fabs(sum));
      }
      std::copy(newest.begin() + 1, newest.end(), newest.begin());
      newest[12] = pointers[c][i];
    }

    const float target = ceiling_ < peak ? ceiling_ / peak : 1.0f;
    if (target < gain)
      gain = target;
    else
      gain = releaseCoeff_ * gain + (1 - releaseCoeff_) * target;
    smallestGain = std::min(smallestGain, gain);

    for (std::size_t c = 0; c < channels_.size(); ++c) {
      if (!pointers[c]) continue;
      float& delayed = channels_[c].delay[static_cast<std::size_t>(writePos_)];
      const float x = pointers[c][i];
      pointers[c][i] = filled_ >= lookahead_ ? gain * delayed : 0;
      delayed = x;
    }
    writePos_ = (writePos_ + 1) % lookahead_;
    if (filled_ < lookahead_) ++filled_;
  }

  std::int64_t lookahead_, writePos_ = 0, filled_ = 0;
  float releaseCoeff_, ceiling_ = 0;
  std::vector<Channel> channels_;
};

// --- Around it -------------------------------------------------------------------------------------------

// Equal to the bit; one NaN is like another.
bool same(float a, float b) {
  return std::memcmp(&a, &b, sizeof a) == 0 || (std::isnan(a) && std::isnan(b));
}

void expectSame(const Audio& actual, const Audio& expected, const std::string& where) {
  for (std::size_t c = 0; c < expected.channels.size(); ++c)
    for (std::size_t i = 0; i < expected.channels[c].size(); ++i)
      ASSERT_TRUE(same(actual.channels[c][i], expected.channels[c][i]))
          << where << ": channel " << c << ", frame " << i << ": " << actual.channels[c][i] << ", not "
          << expected.channels[c][i];
}

std::vector<float*> writable(Audio& audio, std::int64_t offset = 0) {
  std::vector<float*> list;
  for (auto& channel : audio.channels) list.push_back(channel.data() + offset);
  return list;
}

// -1 dBTP, 5 ms (240 frames), 100 ms, at 48 kHz.
Settings usual(std::int64_t channelCount = 1) {
  return {.sampleRate = 48000,
          .channelCount = channelCount,
          .ceilingDB = -1,
          .lookaheadMs = 5,
          .releaseMs = 100,
          .maxFrameCount = 4800};
}

// A look-ahead of `frames` at 1000 Hz, where a frame is a millisecond.
Settings withLookahead(std::int64_t frames, float ceilingDB, std::int64_t channelCount = 1) {
  return {.sampleRate = 1000,
          .channelCount = channelCount,
          .ceilingDB = ceilingDB,
          .lookaheadMs = static_cast<float>(frames),
          .releaseMs = 50,
          .maxFrameCount = 4800};
}

// The audio as it leaves, in blocks of at most 4800 frames.
Audio limited(TruePeakLimiterDSP& limiter, Audio audio, const std::vector<std::int64_t>& splits) {
  std::int64_t offset = 0;
  for (const std::int64_t n : splits) {
    limiter.process(writable(audio, offset), n);
    offset += n;
  }
  return audio;
}
Audio limited(TruePeakLimiterDSP& limiter, Audio audio) {
  const auto splits = equalSplits(audio.frameCount(), 4800);
  return limited(limiter, std::move(audio), splits);
}

// One frame of one channel: what leaves.
float next(TruePeakLimiterDSP& limiter, float x) {
  float* const pointer = &x;
  limiter.process(std::span(&pointer, 1), 1);
  return x;
}

// Noise whose level jumps between silence, soft and far over full scale, with single peaks.
Audio jumpyProgramme(std::mt19937& rng, std::size_t channelCount, std::int64_t frameCount) {
  Audio audio = noiseAudio(rng, channelCount, frameCount, 1.0);
  for (auto& channel : audio.channels) {
    const float levels[] = {0, 0.1f, 0.1f, 0.5f, 1, 8};
    float level = 0;
    for (float& x : channel) {
      if (rng() % 400 == 0) level = levels[rng() % std::size(levels)];
      x *= level;
      if (rng() % 1000 == 0) x = 1.5f;
    }
  }
  return audio;
}

// --- What it is made of ----------------------------------------------------------------------------------

TEST(TruePeakLimiterDSP, StartsWithTheGivenSettings) {
  const TruePeakLimiterDSP limiter(usual(2));
  EXPECT_EQ(limiter.sampleRate(), 48000);
  EXPECT_EQ(limiter.channelCount(), 2);
  EXPECT_EQ(limiter.lookaheadFrames(), 240);
  EXPECT_FLOAT_EQ(limiter.releaseCoeff(), static_cast<float>(std::exp(-1.0 / 4800)));
  EXPECT_FLOAT_EQ(limiter.ceilingLinear(), static_cast<float>(amplitudeOf(-1)));
  EXPECT_EQ(limiter.currentGain(), 1.0f);
  EXPECT_EQ(limiter.smallestGain(), 1.0f);
  EXPECT_EQ(limiter.preparedFrameCount(), 4800);
}

TEST(TruePeakLimiterDSP, LookaheadIsWholeFramesTruncatedAndAtLeastOne) {
  const auto framesAt = [](double rate, float ms) {
    Settings settings = usual();
    settings.sampleRate = rate;
    settings.lookaheadMs = ms;
    return TruePeakLimiterDSP(settings).lookaheadFrames();
  };
  EXPECT_EQ(framesAt(48000, 5), 240);
  EXPECT_EQ(framesAt(44100, 5), 220);    // 220.5
  EXPECT_EQ(framesAt(44100, 1.5f), 66);  // 66.15
  EXPECT_EQ(framesAt(48000, 0.02f), 1);  // 0.96
  EXPECT_EQ(framesAt(48000, 0), 1);
  EXPECT_EQ(framesAt(48000, -5), 1);
  EXPECT_EQ(framesAt(48000, -1e30f), 1);
}

TEST(TruePeakLimiterDSP, ReleaseCoeffIsTheTimeConstantOfAOnePoleRelease) {
  const auto coeffOf = [](float ms) {
    Settings settings = usual();
    settings.releaseMs = ms;
    return TruePeakLimiterDSP(settings).releaseCoeff();
  };
  for (const float ms : {0.1f, 1.0f, 10.0f, 50.0f, 1000.0f})
    EXPECT_FLOAT_EQ(coeffOf(ms), static_cast<float>(std::exp(-1 / (ms * 48.0)))) << ms;
  EXPECT_EQ(coeffOf(0), 0.0f);
  EXPECT_EQ(coeffOf(infinity), 1.0f);
  EXPECT_GT(coeffOf(-10), 1.0f);
}

TEST(TruePeakLimiterDSP, CeilingHasNoCutOffAtMinus200) {
  TruePeakLimiterDSP limiter(usual());
  limiter.setCeilingDB(0);
  EXPECT_EQ(limiter.ceilingLinear(), 1.0f);
  limiter.setCeilingDB(-6);
  EXPECT_FLOAT_EQ(limiter.ceilingLinear(), static_cast<float>(amplitudeOf(-6)));
  limiter.setCeilingDB(-220);
  EXPECT_FLOAT_EQ(limiter.ceilingLinear(), 1e-11f);
  limiter.setCeilingDB(-infinity);
  EXPECT_EQ(limiter.ceilingLinear(), 0.0f);
  Settings settings = usual();
  settings.ceilingDB = -240;
  EXPECT_FLOAT_EQ(TruePeakLimiterDSP(settings).ceilingLinear(), 1e-12f);
}

TEST(TruePeakLimiterDSP, PreparingGrowsAndNeverShrinks) {
  TruePeakLimiterDSP limiter(usual());
  limiter.prepareForFrameCount(100);
  EXPECT_EQ(limiter.preparedFrameCount(), 4800);
  limiter.prepareForFrameCount(-1);
  EXPECT_EQ(limiter.preparedFrameCount(), 4800);
  limiter.prepareForFrameCount(5000);
  EXPECT_EQ(limiter.preparedFrameCount(), 5000);
}

// --- What comes out --------------------------------------------------------------------------------------

TEST(TruePeakLimiterDSP, ConstantUnderTheCeilingIsOnlyDelayed) {
  TruePeakLimiterDSP limiter(usual());
  Audio constant(1, 2000);
  std::fill(constant.channels[0].begin(), constant.channels[0].end(), 0.5f);
  const Audio out = limited(limiter, constant);
  for (std::size_t i = 0; i < 2000; ++i) ASSERT_EQ(out.channels[0][i], i < 240 ? 0.0f : 0.5f) << i;
  EXPECT_EQ(limiter.currentGain(), 1.0f);
  EXPECT_EQ(limiter.smallestGain(), 1.0f);
}

TEST(TruePeakLimiterDSP, ProgrammeUnderTheCeilingLeavesToTheBitLookaheadFramesLater) {
  std::mt19937 rng(1);
  for (const std::int64_t lookahead : {1, 2, 13, 240, 4799, 4800, 4801, 9000}) {
    const Audio audio = noiseAudio(rng, 3, 20000, 0.3);
    TruePeakLimiterDSP limiter(withLookahead(lookahead, 0, 3));
    ASSERT_EQ(limiter.lookaheadFrames(), lookahead);
    Audio delayed(3, 20000);
    for (std::size_t c = 0; c < 3; ++c)
      std::copy_n(audio.channels[c].begin(), 20000 - lookahead, delayed.channels[c].begin() + lookahead);
    expectSame(limited(limiter, audio), delayed, "look-ahead " + std::to_string(lookahead));
  }
}

TEST(TruePeakLimiterDSP, NoLookaheadStillDelaysByOneFrame) {
  TruePeakLimiterDSP limiter(withLookahead(0, 0));
  EXPECT_EQ(limiter.lookaheadFrames(), 1);
  EXPECT_EQ(next(limiter, 0.25f), 0.0f);
  EXPECT_EQ(next(limiter, 0.5f), 0.25f);
  EXPECT_EQ(next(limiter, 0.0f), 0.5f);
}

// 7 frames are what it takes until the filter's middle stands on a sample.
TEST(TruePeakLimiterDSP, PeakIsCaughtWithSevenFramesOfLookaheadAndMissedWithSix) {
  for (const std::int64_t lookahead : {6, 7}) {
    TruePeakLimiterDSP limiter(withLookahead(lookahead, -6));
    Audio impulse(1, 50);
    impulse.channels[0][20] = 1;
    const Audio out = limited(limiter, impulse);
    EXPECT_EQ(out.channels[0][static_cast<std::size_t>(20 + lookahead)],
              lookahead == 7 ? limiter.ceilingLinear() : 1.0f);
  }
}

// The gain is that of the newest peak, and it recovers while the peak is still on its way.
TEST(TruePeakLimiterDSP, BurstTakesTheGainDownAtOnceAndItRecoversByReleaseCoeffPerFrame) {
  TruePeakLimiterDSP limiter(withLookahead(100, 0));
  for (int i = 0; i < 20; ++i) next(limiter, 0);
  next(limiter, 4.0f);
  for (int i = 0; i < 6; ++i) {
    EXPECT_GT(limiter.currentGain(), 0.25f) << i;
    next(limiter, 0);
  }
  next(limiter, 0);
  EXPECT_EQ(limiter.currentGain(), 0.25f);
  EXPECT_EQ(limiter.smallestGain(), 0.25f);
  for (int i = 0; i < 7; ++i) next(limiter, 0);  // the filter's second half, where other peaks stand
  double distance = 1 - static_cast<double>(limiter.currentGain());
  for (int i = 0; i < 86; ++i) {
    const float out = next(limiter, 0);
    distance *= std::exp(-1.0 / 50);
    ASSERT_NEAR(1 - limiter.currentGain(), distance, 1e-5) << i;
    if (i == 85) {
      EXPECT_FLOAT_EQ(out, 4 * limiter.currentGain());  // the peak itself, well over the ceiling
    }
  }
  for (int i = 0; i < 2000; ++i) next(limiter, 0);
  EXPECT_NEAR(limiter.currentGain(), 1, 1e-5);
  EXPECT_EQ(limiter.smallestGain(), 0.25f);
}

TEST(TruePeakLimiterDSP, WithoutReleaseTheGainIsEachFramesOwn) {
  Settings settings = withLookahead(10, 0);
  settings.releaseMs = 0;
  TruePeakLimiterDSP limiter(settings);
  next(limiter, 2.0f);
  for (int i = 0; i < 7; ++i) next(limiter, 0);
  EXPECT_EQ(limiter.currentGain(), 0.5f);
  for (int i = 0; i < 7; ++i) next(limiter, 0);
  EXPECT_EQ(limiter.currentGain(), 1.0f);
}

TEST(TruePeakLimiterDSP, LoudChannelTakesAllChannelsDownByOneGain) {
  std::mt19937 rng(2);
  Audio audio = noiseAudio(rng, 3, 3000, 0.01);
  for (std::size_t i = 1000; i < 1500; ++i) audio.channels[1][i] *= 500;
  TruePeakLimiterDSP limiter(withLookahead(20, -3, 3));
  const Audio out = limited(limiter, audio);
  EXPECT_LT(limiter.smallestGain(), 0.2f);
  for (std::size_t i = 20; i < 3000; ++i) {
    const float loud = audio.channels[1][i - 20];
    if (std::fabs(loud) < 0.001f) continue;
    const double gain = static_cast<double>(out.channels[1][i]) / static_cast<double>(loud);
    for (const std::size_t c : {0u, 2u})
      ASSERT_NEAR(out.channels[c][i], gain * audio.channels[c][i - 20], 1e-8) << i;
  }
}

TEST(TruePeakLimiterDSP, SmallestGainIsTheSmallestOfAllFramesUntilReset) {
  std::mt19937 rng(3);
  const Audio audio = jumpyProgramme(rng, 1, 5000);
  TruePeakLimiterDSP limiter(withLookahead(20, -3)), wholeBlocks(withLookahead(20, -3));
  float smallest = 1;
  for (const float x : audio.channels[0]) {
    next(limiter, x);
    smallest = std::min(smallest, limiter.currentGain());
    ASSERT_EQ(limiter.smallestGain(), smallest);
  }
  EXPECT_LT(smallest, 0.5f);
  limited(wholeBlocks, audio);
  EXPECT_EQ(wholeBlocks.smallestGain(), smallest);
  limiter.reset();
  EXPECT_EQ(limiter.smallestGain(), 1.0f);
}

// --- Against the plain twin ------------------------------------------------------------------------------

// Every settings, block sizes around the look-ahead, channels that come and go, ceilings that move.
TEST(TruePeakLimiterDSP, EqualsThePlainTwinToTheBit) {
  for (unsigned seed = 0; seed < 150; ++seed) {
    std::mt19937 rng(seed);
    const float lookaheads[] = {0, 2, 7, 13, 31, 100, 700},
                releases[] = {0, static_cast<float>(uniform(rng, 0.2, 3)), 5, 50, 400, infinity};
    Settings settings = {.sampleRate = 1000.0 * static_cast<int>(1 + rng() % 3),
                         .channelCount = 1 + static_cast<std::int64_t>(rng() % 6),
                         .ceilingDB = static_cast<float>(uniform(rng, -30, 3)),
                         .lookaheadMs = lookaheads[rng() % std::size(lookaheads)],
                         .releaseMs = releases[rng() % std::size(releases)],
                         .maxFrameCount = 1500};
    TruePeakLimiterDSP limiter(settings);
    PlainLimiter plain(settings);
    const auto channelCount = static_cast<std::size_t>(settings.channelCount);
    for (int block = 0; block < 25; ++block) {
      const std::int64_t limits[] = {1, 3, 20, limiter.lookaheadFrames() + 2, 1500};
      const std::int64_t n = std::min<std::int64_t>(
          1500, 1 + static_cast<std::int64_t>(rng()) % limits[rng() % std::size(limits)]);
      if (rng() % 6 == 0) {
        const auto dB = static_cast<float>(uniform(rng, -30, 3));
        limiter.setCeilingDB(dB);
        plain.setCeilingDB(dB);
      }
      Audio audio = jumpyProgramme(rng, channelCount, n), expected = audio;
      std::vector<float*> pointers = writable(audio), plainPointers = writable(expected);
      for (std::size_t c = 0; c < channelCount; ++c)
        if (rng() % 5 == 0) pointers[c] = plainPointers[c] = nullptr;
      limiter.process(pointers, n);
      plain.process(plainPointers, n);
      const std::string where = "seed " + std::to_string(seed) + ", block " + std::to_string(block);
      expectSame(audio, expected, where);
      ASSERT_TRUE(same(limiter.currentGain(), plain.gain)) << where;
      ASSERT_TRUE(same(limiter.smallestGain(), plain.smallestGain)) << where;
      if (HasFatalFailure()) return;
    }
  }
}

// After long silence the gain rests where 32-bit steps no longer move it.
TEST(TruePeakLimiterDSP, GainComesToRestWhereThePlainTwinsDoes) {
  Settings settings = usual();
  settings.ceilingDB = -20;
  TruePeakLimiterDSP limiter(settings);
  PlainLimiter plain(settings);
  Audio audio(1, 4800), expected(1, 4800);
  for (int block = 0; block < 40; ++block) {
    std::fill(audio.channels[0].begin(), audio.channels[0].end(), block == 0 ? 1.0f : 0.01f);
    expected = audio;
    limiter.process(writable(audio), 4800);
    plain.process(writable(expected), 4800);
    expectSame(audio, expected, "block " + std::to_string(block));
    ASSERT_TRUE(same(limiter.currentGain(), plain.gain)) << block;
  }
  const float rest = limiter.currentGain();
  const float step = limiter.releaseCoeff() * rest + (1 - limiter.releaseCoeff());
  EXPECT_EQ(step, rest);
  EXPECT_LT(rest, 1.0f);
}

// Under a constant peak the gain stands at its target, and 32-bit release steps may lead just above it.
TEST(TruePeakLimiterDSP, GainUnderAConstantPeakIsThePlainTwins) {
  std::mt19937 rng(10);
  for (int trial = 0; trial < 100; ++trial) {
    Settings settings = withLookahead(20, -6);
    settings.releaseMs = static_cast<float>(uniform(rng, 0.5, 20));
    TruePeakLimiterDSP limiter(settings);
    PlainLimiter plain(settings);
    Audio audio(1, 500);
    std::fill(audio.channels[0].begin(), audio.channels[0].end(), static_cast<float>(uniform(rng, 0.6, 4)));
    Audio expected = audio;
    plain.process(writable(expected), 500);
    expectSame(limited(limiter, audio), expected, "trial " + std::to_string(trial));
    ASSERT_TRUE(same(limiter.currentGain(), plain.gain)) << trial;
  }
}

// Releases without meaning follow the arithmetic, and the audio starts with silence all the same.
TEST(TruePeakLimiterDSP, ReleasesWithoutMeaningFollowThePlainTwinToo) {
  for (const float release : {-1.0f, -0.0f, nan}) {
    std::mt19937 rng(4);
    Settings settings = withLookahead(50, -6);
    settings.releaseMs = release;
    TruePeakLimiterDSP limiter(settings);
    PlainLimiter plain(settings);
    const Audio audio = jumpyProgramme(rng, 1, 3000);
    Audio expected = audio;
    plain.process(writable(expected), 3000);
    expectSame(limited(limiter, audio, equalSplits(3000, 20)), expected,
               "release " + std::to_string(release));
    EXPECT_TRUE(same(limiter.currentGain(), plain.gain)) << release;
  }
}

TEST(TruePeakLimiterDSP, AnySplitGivesTheWhole) {
  std::mt19937 rng(5);
  const Audio audio = jumpyProgramme(rng, 2, 60000);
  Settings settings = usual(2);
  settings.maxFrameCount = 60000;
  TruePeakLimiterDSP wholeLimiter(settings);
  const Audio whole = limited(wholeLimiter, audio, {60000});
  ASSERT_LT(wholeLimiter.smallestGain(), 0.5f);
  std::vector<std::vector<std::int64_t>> splittings = {equalSplits(60000, 1), equalSplits(60000, 239),
                                                       equalSplits(60000, 240), equalSplits(60000, 241)};
  for (int trial = 0; trial < 20; ++trial) splittings.push_back(randomSplits(rng, 60000));
  for (std::size_t s = 0; s < splittings.size(); ++s) {
    TruePeakLimiterDSP limiter(settings);
    expectSame(limited(limiter, audio, splittings[s]), whole, "splitting " + std::to_string(s));
    EXPECT_EQ(limiter.currentGain(), wholeLimiter.currentGain());
    EXPECT_EQ(limiter.smallestGain(), wholeLimiter.smallestGain());
  }
}

// --- Absent channels -------------------------------------------------------------------------------------

TEST(TruePeakLimiterDSP, AbsentChannelPlaysWhatItsLineHeldWhenItComesBack) {
  TruePeakLimiterDSP limiter(withLookahead(4, 0, 2));
  Audio audio(2, 3);
  audio.channels = {{0.1f, 0.1f, 0.1f}, {0.01f, 0.02f, 0.03f}};
  limiter.process(writable(audio), 3);  // places 0 to 2

  audio.channels[0] = {0.2f, 0.2f, 0.2f};
  std::vector<float*> pointers = writable(audio);
  pointers[1] = nullptr;
  limiter.process(pointers, 3);  // places 3, 0, 1
  EXPECT_EQ(audio.channels[0], (std::vector<float>{0, 0.1f, 0.1f}));

  audio.channels[1] = {0.04f, 0.05f, 0.06f};
  limiter.process(writable(audio), 3);  // places 2, 3, 0
  EXPECT_EQ(audio.channels[1], (std::vector<float>{0.03f, 0, 0.01f}));
  audio.channels[1] = {0, 0, 0};
  limiter.process(writable(audio), 3);  // places 1, 2, 3
  EXPECT_EQ(audio.channels[1], (std::vector<float>{0.02f, 0.04f, 0.05f}));
}

TEST(TruePeakLimiterDSP, FilterMemoryOfAnAbsentChannelStandsStill) {
  TruePeakLimiterDSP limiter(withLookahead(4, 0, 2));
  Audio audio(2, 7);
  audio.channels[1][6] = 2.0f;  // seen with the 7th frame after it
  limiter.process(writable(audio), 7);
  EXPECT_EQ(limiter.currentGain(), 1.0f);
  std::vector<float> silence(100);
  const std::vector<float*> onlyFirst = {silence.data(), nullptr};
  limiter.process(onlyFirst, 100);
  EXPECT_EQ(limiter.currentGain(), 1.0f);
  audio = Audio(2, 7);
  limiter.process(writable(audio), 7);
  EXPECT_EQ(limiter.currentGain(), 0.5f);
}

TEST(TruePeakLimiterDSP, BlockWithoutAnyChannelMovesOnlyTheStream) {
  TruePeakLimiterDSP limiter(withLookahead(4, -6));
  next(limiter, 4.0f);
  for (int i = 0; i < 7; ++i) next(limiter, 0);
  const float before = limiter.currentGain();
  float* const absent = nullptr;
  limiter.process(std::span(&absent, 1), 100);
  EXPECT_GT(limiter.currentGain(), before);  // recovers as in silence
  limiter.reset();
  limiter.process(std::span(&absent, 1), 4);  // fills the line, so to speak
  EXPECT_EQ(next(limiter, 0.25f), 0.0f);
  for (int i = 0; i < 3; ++i) next(limiter, 0);
  EXPECT_EQ(next(limiter, 0), 0.25f);
}

// --- Life ------------------------------------------------------------------------------------------------

TEST(TruePeakLimiterDSP, ResetStartsTheStreamAnewWithTheSameCeiling) {
  std::mt19937 rng(6);
  Audio audio = jumpyProgramme(rng, 2, 20000);
  for (auto& channel : audio.channels) {
    std::fill_n(channel.begin(), 1000, 0.1f);  // asks for nothing by itself
    channel.back() = 8;                        // still in the filter and the lines at the end
  }
  TruePeakLimiterDSP limiter(usual(2));
  limiter.setCeilingDB(-12);
  const Audio first = limited(limiter, audio);
  ASSERT_LT(limiter.currentGain(), 1.0f);
  limiter.reset();
  EXPECT_EQ(limiter.currentGain(), 1.0f);
  EXPECT_EQ(limiter.smallestGain(), 1.0f);
  EXPECT_EQ(limiter.preparedFrameCount(), 4800);
  EXPECT_FLOAT_EQ(limiter.ceilingLinear(), static_cast<float>(amplitudeOf(-12)));
  const Audio second = limited(limiter, audio);
  expectSame(second, first, "second run");
  for (const auto& channel : second.channels)
    for (std::size_t i = 0; i < 240; ++i) ASSERT_EQ(channel[i], 0.0f) << i;
}

TEST(TruePeakLimiterDSP, ResetEmptiesTheLinesOfChannelsThatComeLateToo) {
  TruePeakLimiterDSP limiter(withLookahead(4, 0));
  for (int i = 0; i < 4; ++i) next(limiter, 0.5f);
  limiter.reset();
  float* const absent = nullptr;
  limiter.process(std::span(&absent, 1), 4);
  for (int i = 0; i < 4; ++i) EXPECT_EQ(next(limiter, 0.25f), 0.0f) << i;
  EXPECT_EQ(next(limiter, 0), 0.25f);
}

TEST(TruePeakLimiterDSP, CeilingCountsFromTheNextFrame) {
  TruePeakLimiterDSP limiter(withLookahead(4, 0));
  Audio constant(1, 200);
  std::fill(constant.channels[0].begin(), constant.channels[0].end(), 0.5f);
  limited(limiter, constant);
  ASSERT_EQ(limiter.currentGain(), 1.0f);
  limiter.setCeilingDB(-20);
  const float out = next(limiter, 0.5f);
  EXPECT_EQ(out, 0.5f * limiter.currentGain());
  EXPECT_NEAR(limiter.currentGain(), 0.2, 0.001);  // the filter's gain for a constant is 1.0009
}

TEST(TruePeakLimiterDSP, BlockThatIsTooLongIsLeftAsItIsAndTheStreamToo) {
  std::mt19937 rng(7);
  const Audio audio = jumpyProgramme(rng, 2, 9600);
  TruePeakLimiterDSP limiter(usual(2)), undisturbed(usual(2));
  for (const std::int64_t n : {std::int64_t{4801}, std::int64_t{9600}, std::int64_t{0}, std::int64_t{-1},
                               std::numeric_limits<std::int64_t>::min()}) {
    Audio refused = audio;
    limiter.process(writable(refused), n);
    expectSame(refused, audio, "refused block of " + std::to_string(n));
    const Audio expected = limited(undisturbed, audio);
    expectSame(limited(limiter, audio), expected, "after a refused block of " + std::to_string(n));
  }
  limiter.prepareForFrameCount(9600);  // in the middle of the stream
  Audio accepted = audio;
  limiter.process(writable(accepted), 9600);
  expectSame(accepted, limited(undisturbed, audio), "after preparing");
}

TEST(TruePeakLimiterDSP, NothingPreparedRefusesEveryBlock) {
  for (const std::int64_t maxFrameCount : {0, -1, -4800}) {
    Settings settings = usual();
    settings.maxFrameCount = maxFrameCount;
    TruePeakLimiterDSP limiter(settings);
    EXPECT_EQ(limiter.preparedFrameCount(), 0);
    EXPECT_EQ(next(limiter, 0.5f), 0.5f);
    limiter.prepareForFrameCount(1);
    EXPECT_EQ(next(limiter, 0.5f), 0.0f);
  }
}

TEST(TruePeakLimiterDSP, WrongConstructionStopsTheProgram) {
  const auto stopped = [](auto change) {
    Settings settings = usual(2);
    change(settings);
    TruePeakLimiterDSP limiter(settings);
  };
  for (const double rate : {0.0, -48000.0, std::numeric_limits<double>::quiet_NaN()})
    EXPECT_DEATH(stopped([&](Settings& s) { s.sampleRate = rate; }), "sampleRate must be above 0") << rate;
  for (const std::int64_t count : {0, -1})
    EXPECT_DEATH(stopped([&](Settings& s) { s.channelCount = count; }), "channelCount must be") << count;
  for (const float ms : {infinity, -infinity, nan})
    EXPECT_DEATH(stopped([&](Settings& s) { s.lookaheadMs = ms; }), "must be finite") << ms;
  EXPECT_DEATH(stopped([](Settings& s) { s.sampleRate = std::numeric_limits<double>::infinity(); }),
               "must be finite");
  EXPECT_DEATH(stopped([](Settings& s) { s.lookaheadMs = 1e30f; }), "too long to be held");
  EXPECT_DEATH(stopped([](Settings& s) { s.channelCount = TruePeakLimiterDSP::largestBufferFrames + 1; }),
               "too long to be held");
  EXPECT_DEATH(stopped([](Settings& s) { s.maxFrameCount = TruePeakLimiterDSP::largestBufferFrames + 1; }),
               "block is too long to be held");
  EXPECT_DEATH(stopped([](Settings& s) { s.maxFrameCount = std::numeric_limits<std::int64_t>::max(); }),
               "block is too long to be held");
}

TEST(TruePeakLimiterDSP, PointerListOfAnotherLengthStopsTheProgram) {
  TruePeakLimiterDSP limiter(usual(2));
  Audio mono(1, 10), three(3, 10);
  EXPECT_DEATH(limiter.process(writable(mono), 10), "one pointer per channel");
  EXPECT_DEATH(limiter.process(writable(three), 10), "one pointer per channel");
  limiter.process({}, 0);  // a refused block is not looked at
  limiter.process({}, 4801);
}

TEST(TruePeakLimiterDSP, ProcessAllocatesNothing) {
  if (!AllocationCounter::isAvailable) GTEST_SKIP() << "a sanitizer owns the allocator";
  std::mt19937 rng(8);
  Audio audio = jumpyProgramme(rng, 6, 4800);
  TruePeakLimiterDSP limiter(usual(6));
  const std::vector<float*> pointers = writable(audio);
  const AllocationCounter allocations;
  for (const std::int64_t n : {1, 64, 239, 240, 241, 4800}) limiter.process(pointers, n);
  limiter.setCeilingDB(-3);
  limiter.prepareForFrameCount(4800);
  limiter.reset();
  limiter.process(pointers, 4800);
  EXPECT_EQ(allocations.count(), 0);
  EXPECT_LT(limiter.smallestGain(), 1.0f);
}

// --- How well the ceiling holds --------------------------------------------------------------------------

// Every `window` frames of a tone hold a peak of at least `lowest`, so the gain is never more than what is
// left after recovering from ceiling / lowest for that long, and never less than ceiling / highest. A value
// between the samples weighs them with gains from that range: off their middle by at most half its width
// times the filter's magnitudes.
TEST(TruePeakLimiterDSP, SteadyTonesMeetTheCeilingButForTheRecoveryOfHalfAPeriod) {
  constexpr std::size_t frames = 48000, settled = 24000;
  const auto peaksOf = [](const std::vector<float>& x) {
    const std::size_t n = x.size() - PolyphaseUpsampler4x::delayFrames;
    std::vector<float> scratch(n), peaks(n);
    PolyphaseUpsampler4x::detectPerSamplePeaks(x, static_cast<std::int64_t>(n), scratch, peaks);
    return peaks;
  };
  double magnitudes = 0;  // of the phase that has the largest ones
  for (const auto& phase : flatCoeffs()) {
    double sum = 0;
    for (const float tap : phase) sum += std::fabs(tap);
    magnitudes = std::max(magnitudes, sum);
  }
  for (const double frequency : {100.0, 440.0, 997.0, 3000.0, 12000.0, 17000.0})
    for (const double amplitude : {1.0, 2.0, 8.0}) {
      const auto window = static_cast<std::ptrdiff_t>(std::ceil(48000 / (2 * frequency))) + 1;
      const std::vector<float> tone = sine(48000, frames, frequency, amplitude, 0.4);
      const std::vector<float> peaks = peaksOf(tone);
      const double highest = *std::max_element(peaks.begin(), peaks.end());
      double lowest = highest;
      for (auto at = peaks.begin(); at + window <= peaks.end(); ++at)
        lowest = std::min<double>(lowest, *std::max_element(at, at + window));

      TruePeakLimiterDSP limiter(usual());
      Audio audio;
      audio.channels = {tone};
      const std::vector<float> out = limited(limiter, audio).channels[0];
      const std::vector<float> outPeaks = peaksOf({out.begin() + settled, out.end()});
      const double reached = *std::max_element(outPeaks.begin(), outPeaks.end());

      const double ceiling = amplitudeOf(-1);
      const double least = ceiling / highest;
      const double most = 1 - (1 - ceiling / lowest) * std::exp(-static_cast<double>(window) / 4800);
      const double middle = (most + least) / 2, halfWidth = (most - least) / 2;
      EXPECT_NEAR(reached, middle * highest, halfWidth * magnitudes * amplitude + 1e-5)
          << frequency << " Hz, amplitude " << amplitude;
      EXPECT_GE(limiter.currentGain(), least * (1 - 1e-6)) << frequency << " Hz, amplitude " << amplitude;
      EXPECT_LE(limiter.currentGain(), most * (1 + 1e-6)) << frequency << " Hz, amplitude " << amplitude;
    }
}

// --- Samples that are not finite -------------------------------------------------------------------------

TEST(TruePeakLimiterDSP, NaNSpoilsItsOwnPlaceAndAsksForNothing) {
  std::mt19937 rng(9);
  Audio audio = jumpyProgramme(rng, 2, 5000);
  for (const std::size_t i : {500u, 501u, 2000u, 4000u}) audio.channels[0][i] = nan;
  TruePeakLimiterDSP limiter(withLookahead(30, -3, 2));
  const Audio out = limited(limiter, audio);
  for (std::size_t i = 30; i < 5000; ++i) {
    ASSERT_EQ(std::isnan(out.channels[0][i]), std::isnan(audio.channels[0][i - 30])) << i;
    ASSERT_TRUE(std::isfinite(out.channels[1][i])) << i;
  }
  EXPECT_LT(limiter.smallestGain(), 1.0f);
  EXPECT_GT(limiter.smallestGain(), 0.0f);

  TruePeakLimiterDSP fed(withLookahead(30, -3));
  for (int i = 0; i < 100; ++i) next(fed, nan);
  EXPECT_EQ(fed.currentGain(), 1.0f);
}

TEST(TruePeakLimiterDSP, InfiniteSampleSilencesWhileItIsSeenAndTheGainRecovers) {
  for (const float bad : {infinity, -infinity}) {
    TruePeakLimiterDSP limiter(withLookahead(30, -3));
    for (int i = 0; i < 50; ++i) next(limiter, 0.1f);
    next(limiter, bad);
    ASSERT_EQ(limiter.currentGain(), 1.0f);
    next(limiter, 0.1f);  // the filter's newest place, which no tap reads
    ASSERT_EQ(limiter.currentGain(), 1.0f);
    for (int i = 0; i < 12; ++i) {
      EXPECT_EQ(next(limiter, 0.1f), 0.0f) << i;
      EXPECT_EQ(limiter.currentGain(), 0.0f) << i;
    }
    for (int i = 0; i < 16; ++i) EXPECT_GT(next(limiter, 0.1f), 0.0f) << i;
    EXPECT_EQ(next(limiter, 0.1f), bad);
    for (int i = 0; i < 2000; ++i) ASSERT_TRUE(std::isfinite(next(limiter, 0.1f))) << i;
    EXPECT_NEAR(limiter.currentGain(), 1, 1e-5);
    EXPECT_EQ(limiter.smallestGain(), 0.0f);
  }
}

TEST(TruePeakLimiterDSP, GainNeverBecomesNaN) {
  for (unsigned seed = 0; seed < 30; ++seed) {
    std::mt19937 rng(seed);
    const float bad[] = {nan, infinity, -infinity, std::numeric_limits<float>::max(), 1e38f, 1e-45f};
    const float ceilings[] = {-infinity, -1000, -1, 0, 800, infinity, nan};
    TruePeakLimiterDSP limiter(withLookahead(5, ceilings[rng() % std::size(ceilings)]));
    for (int i = 0; i < 3000; ++i) {
      next(limiter, rng() % 3 == 0 ? bad[rng() % std::size(bad)] : 0.5f);
      ASSERT_GE(limiter.currentGain(), 0.0f) << "seed " << seed << ", frame " << i;
      ASSERT_LE(limiter.currentGain(), 1.0f) << "seed " << seed << ", frame " << i;
    }
  }
}

TEST(TruePeakLimiterDSP, CeilingsWithoutEndLetNothingOrEverythingPass) {
  TruePeakLimiterDSP closed(withLookahead(10, -infinity));
  for (int i = 0; i < 100; ++i) ASSERT_EQ(next(closed, 0.5f), 0.0f) << i;
  EXPECT_EQ(closed.smallestGain(), 0.0f);
  for (const float dB : {infinity, nan}) {
    TruePeakLimiterDSP open(withLookahead(10, dB));
    for (int i = 0; i < 100; ++i) ASSERT_EQ(next(open, 1e30f), i < 10 ? 0.0f : 1e30f) << i;
    EXPECT_EQ(open.smallestGain(), 1.0f);
  }
}

}  // namespace
}  // namespace vellum
