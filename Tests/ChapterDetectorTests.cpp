#include "VellumCore/ChapterDetection.hpp"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <random>
#include <string>
#include <unordered_set>
#include <utility>
#include <vector>

#include "Support/AllocationCounter.hpp"
#include "Support/Signals.hpp"

namespace vellum {
namespace {

using namespace test;
using ChapterDetector::detectChapters;
using ChapterDetector::SilenceScanner;

using Times = std::vector<std::pair<double, double>>;

constexpr double rate = 1000;  // Hz: blocks of 100 frames with the default settings
constexpr double infinite = std::numeric_limits<double>::infinity();

const ChapterDetectionSettings defaults = ChapterDetectionSettings::defaultValue();

// Sound and silence by turns, in seconds; sound first.
std::vector<float> turns(const std::vector<double>& seconds, double sampleRate = rate) {
  std::vector<float> mono;
  for (std::size_t k = 0; k < seconds.size(); ++k)
    mono.insert(mono.end(), static_cast<std::size_t>(std::llround(seconds[k] * sampleRate)),
                k % 2 == 0 ? 0.1f : 0.0f);
  return mono;
}

Times timesOf(const std::vector<Chapter>& chapters) {
  Times times;
  for (const Chapter& chapter : chapters) times.emplace_back(chapter.startSec, chapter.endSec);
  return times;
}

Times detected(const std::vector<float>& mono, double sampleRate = rate,
               const ChapterDetectionSettings& settings = defaults) {
  return timesOf(detectChapters(mono, sampleRate, settings));
}

// --- Where chapters begin and end ------------------------------------------------------------------------

TEST(ChapterDetector, NoSignalOrNoRateHasNoChapters) {
  EXPECT_TRUE(detected({}).empty());
  for (const double sampleRate : {0.0, -48000.0, std::nan(""), -infinite})
    EXPECT_TRUE(detected(turns({5}), sampleRate).empty()) << sampleRate;
}

TEST(ChapterDetector, ASignalShorterThanABlockHasNoChapters) {
  auto settings = defaults;
  settings.blockDuration = 2;
  EXPECT_TRUE(detected(turns({1.999}), rate, settings).empty());
  EXPECT_EQ(detected(turns({2.0}), rate, settings), (Times{{0, 2}}));
}

TEST(ChapterDetector, WithoutALongSilenceThereIsOneChapter) {
  const auto chapters = detectChapters(turns({10, 1.9, 10, 1, 5.05}), rate, defaults);
  ASSERT_EQ(timesOf(chapters), (Times{{0, 27.95}}));
  EXPECT_EQ(chapters[0].index, 1);
  EXPECT_EQ(chapters[0].name, "Chapter 01");
}

TEST(ChapterDetector, APauseOfTheMinimumSplitsInItsMiddle) {
  EXPECT_EQ(detected(turns({10, 2.0, 10})), (Times{{0, 11.0}, {11.0, 22}}));
  EXPECT_EQ(detected(turns({10, 1.9, 10})), (Times{{0, 21.9}}));
}

// Only whole silent blocks count: 2 s of silence that start inside a block hold 19 of them.
TEST(ChapterDetector, APauseIsCountedInWholeSilentBlocks) {
  EXPECT_EQ(detected(turns({10.05, 2.0, 10})), (Times{{0, 22.05}}));
  EXPECT_EQ(detected(turns({10.05, 2.05, 10})),
            (Times{{0, 0.1 * 111}, {0.1 * 111, 22.1}}));  // blocks 101 to 120
  EXPECT_EQ(detected(turns({10.05, 2.15, 10})),
            (Times{{0, 0.1 * (101 + 21 * 0.5)}, {0.1 * (101 + 21 * 0.5), 22.2}}));
}

TEST(ChapterDetector, SilenceHasNoChapters) {
  EXPECT_TRUE(detected(turns({0, 60})).empty());
}

TEST(ChapterDetector, LeadingSilenceBelongsToTheFirstChapter) {
  EXPECT_EQ(detected(turns({0, 5, 20})), (Times{{0, 25}}));
}

TEST(ChapterDetector, TrailingSilenceBelongsToTheLastChapter) {
  EXPECT_EQ(detected(turns({20, 5})), (Times{{0, 25}}));
  EXPECT_EQ(detected(turns({0, 5, 20, 4, 20, 5})), (Times{{0, 27}, {27, 54}}));
}

TEST(ChapterDetector, ASoundTooShortForAChapterLeavesAGap) {
  EXPECT_EQ(detected(turns({10, 3, 0.9, 3, 10})), (Times{{0, 11.5}, {0.1 * (139 + 15), 26.9}}));
}

TEST(ChapterDetector, OneSecondOfSoundIsEnoughForAChapter) {
  EXPECT_EQ(detected(turns({10, 3, 1.0, 3, 10})), (Times{{0, 11.5}, {11.5, 15.5}, {15.5, 27}}));
}

TEST(ChapterDetector, FirstAndLastChaptersTakeInWhatWasDropped) {
  EXPECT_EQ(detected(turns({0.5, 3, 10, 3, 0.5})), (Times{{0, 17}}));
}

// The frames after the last whole block are not examined, but belong to the programme.
TEST(ChapterDetector, TheLastIncompleteBlockCountsForTheEndAlone) {
  EXPECT_EQ(detected(turns({5, 2.05})), (Times{{0, 7.05}}));
  EXPECT_EQ(detected(turns({0.95})), Times{});  // 9 blocks of sound
  EXPECT_EQ(detected(turns({1.05})), (Times{{0, 1.05}}));
}

// Blocks of 4 frames; 20 silent ones with a block of sound between each two, so a boundary every 0.8 ms.
TEST(ChapterDetector, BoundariesWithinAMillisecondMakeNoSegments) {
  auto settings = defaults;
  settings.blockDuration = 0.0004;
  settings.minSilenceDuration = 0;
  std::vector<double> seconds = {2};
  for (int k = 0; k < 20; ++k) seconds.insert(seconds.end(), {0.0004, 0.0004});
  seconds.back() = 2;
  EXPECT_EQ(detected(turns(seconds, 10'000), 10'000, settings),
            (Times{{0, 0.0004 * 5000.5}, {0.0004 * 5038.5, 4.0156}}));
}

// 0.14 s at 10 Hz rounds to blocks of one frame: nominal time runs ahead, and the last border with it.
TEST(ChapterDetector, BordersAreCountedInNominalBlocks) {
  auto settings = defaults;
  settings.blockDuration = 0.14;
  settings.minSilenceDuration = 2.8;
  EXPECT_EQ(detected(turns({3, 3, 6}, 10), 10, settings), (Times{{0, 0.14 * 45}, {0.14 * 45, 12}}));
  EXPECT_EQ(detected(turns({9, 3}, 10), 10, settings), (Times{{0, 0.14 * 105}}));  // beyond the end, 12
}

TEST(ChapterDetector, BlockLengthRoundsHalvesUpAndIsAtLeastOne) {
  auto settings = defaults;
  EXPECT_EQ(SilenceScanner(25, settings).blockFrames(), 3);  // 2.5
  EXPECT_EQ(SilenceScanner(24.9, settings).blockFrames(), 2);
  EXPECT_EQ(SilenceScanner(11025, settings).blockFrames(), 1103);
  EXPECT_EQ(SilenceScanner(44100, settings).blockFrames(), 4410);
  EXPECT_EQ(SilenceScanner(1, settings).blockFrames(), 1);
}

TEST(ChapterDetector, MinimumSilenceRoundsHalvesUpAndIsAtLeastOneBlock) {
  auto settings = defaults;
  settings.blockDuration = 0.5;
  settings.minSilenceDuration = 1.25;  // 2.5 blocks: 3
  EXPECT_EQ(detected(turns({5, 1.0, 5}), rate, settings).size(), 1u);
  EXPECT_EQ(detected(turns({5, 1.5, 5}), rate, settings).size(), 2u);
  settings.minSilenceDuration = 0;
  EXPECT_EQ(detected(turns({5, 0.5, 5}), rate, settings), (Times{{0, 5.25}, {5.25, 10.5}}));
  settings.minSilenceDuration = -7;
  EXPECT_EQ(detected(turns({5, 0.5, 5}), rate, settings), (Times{{0, 5.25}, {5.25, 10.5}}));
}

// --- What is silent --------------------------------------------------------------------------------------

bool isSilent(float sample, float thresholdDB) {
  auto settings = defaults;
  settings.silenceThresholdDB = thresholdDB;
  SilenceScanner scanner(640, settings);  // blocks of 64 frames: sums of equal squares are exact
  scanner.add(std::vector<float>(64, sample));
  EXPECT_EQ(scanner.silentBlocks().size(), 1u);
  return scanner.silentBlocks()[0];
}

TEST(ChapterDetector, ABlockAtTheThresholdIsNotSilent) {
  EXPECT_FALSE(isSilent(0.1f, -20));
  EXPECT_FALSE(isSilent(-0.1f, -20));
  EXPECT_TRUE(isSilent(std::nextafter(0.1f, 0.0f), -20));
}

TEST(ChapterDetector, TheDefaultThresholdIsThatRMS) {
  EXPECT_TRUE(isSilent(static_cast<float>(amplitudeOf(-55.001)), -55));
  EXPECT_FALSE(isSilent(static_cast<float>(amplitudeOf(-54.999)), -55));
}

// For the level conversions -200 dB is 0, below which nothing lies.
TEST(ChapterDetector, AThresholdBelowMinus200StillHoldsSomething) {
  EXPECT_TRUE(isSilent(0.0f, -250));
  EXPECT_TRUE(isSilent(1e-11f, -210));
  EXPECT_FALSE(isSilent(1e-10f, -210));
}

TEST(ChapterDetector, ABlockWithASampleThatIsNotFiniteIsNotSilent) {
  for (const float sample : {std::numeric_limits<float>::quiet_NaN(), std::numeric_limits<float>::infinity(),
                             -std::numeric_limits<float>::infinity()}) {
    SilenceScanner scanner(rate, defaults);
    std::vector<float> mono(300);
    mono[150] = sample;
    scanner.add(mono);
    EXPECT_EQ(scanner.silentBlocks(), (std::vector<bool>{true, false, true})) << sample;
  }
}

// --- The records -----------------------------------------------------------------------------------------

TEST(ChapterDetector, ChaptersAreNumberedNamedAndNotMeasured) {
  std::vector<double> seconds;
  for (int k = 0; k < 12; ++k) seconds.insert(seconds.end(), {3.0, 2.0});
  const auto chapters = detectChapters(turns(seconds), rate, defaults);
  ASSERT_EQ(chapters.size(), 12u);
  std::unordered_set<UUID> ids;
  for (std::size_t k = 0; k < chapters.size(); ++k) {
    Chapter cleared = chapters[k];
    cleared.clearMeasurements();
    EXPECT_EQ(cleared, chapters[k]);
    EXPECT_EQ(chapters[k].index, static_cast<std::int64_t>(k) + 1);
    EXPECT_EQ(chapters[k].name, ChapterDetector::defaultChapterName(chapters[k].index));
    ids.insert(chapters[k].id);
  }
  EXPECT_EQ(ids.size(), 12u);
  EXPECT_EQ(chapters[11].name, "Chapter 12");
}

TEST(ChapterDetector, EveryDetectionMakesNewIDs) {
  const auto mono = turns({5});
  EXPECT_NE(detectChapters(mono, rate, defaults)[0].id, detectChapters(mono, rate, defaults)[0].id);
}

TEST(ChapterDetector, DefaultNameHasTwoDigitsAtLeast) {
  EXPECT_EQ(ChapterDetector::defaultChapterName(1), "Chapter 01");
  EXPECT_EQ(ChapterDetector::defaultChapterName(9), "Chapter 09");
  EXPECT_EQ(ChapterDetector::defaultChapterName(10), "Chapter 10");
  EXPECT_EQ(ChapterDetector::defaultChapterName(12), "Chapter 12");
  EXPECT_EQ(ChapterDetector::defaultChapterName(123), "Chapter 123");
  EXPECT_EQ(ChapterDetector::defaultChapterName(0), "Chapter 00");
  EXPECT_EQ(ChapterDetector::defaultChapterName(-1), "Chapter -1");
}

TEST(ChapterDetector, DeviationThresholdAndMetricDoNotMatter) {
  auto settings = defaults;
  settings.deviationThresholdLU = std::numeric_limits<float>::quiet_NaN();
  settings.consistencyMetric = ChapterConsistencyMetric::integratedLUFS;
  const auto mono = turns({10, 3, 10});
  EXPECT_EQ(detected(mono, rate, settings), detected(mono));
}

// --- Any settings ----------------------------------------------------------------------------------------

TEST(ChapterDetector, BlocksOfNoLengthFindNothing) {
  for (const double blockDuration : {0.0, -0.1, std::nan(""), -infinite}) {
    auto settings = defaults;
    settings.blockDuration = blockDuration;
    EXPECT_TRUE(detected(turns({5, 3, 5}), rate, settings).empty()) << blockDuration;
  }
}

TEST(ChapterDetector, ASilenceThatCannotBeLongEnoughSeparatesNothing) {
  for (const double minSilence : {infinite, 1e308, std::nan("")}) {
    auto settings = defaults;
    settings.minSilenceDuration = minSilence;
    EXPECT_EQ(detected(turns({5, 3, 5}), rate, settings), (Times{{0, 13}})) << minSilence;
  }
}

TEST(ChapterDetector, NoSettingsStopTheProgram) {
  const double values[] = {0,    -1,    1e-320, 1e-300,   0.1,       1,           1e18,
                           1e19, 1e300, -1e300, infinite, -infinite, std::nan("")};
  const auto mono = turns({2, 1, 2}, 10);
  for (const double sampleRate : values)
    for (const double block : values)
      for (const double silence : values)
        for (const float threshold : {-55.0f, 1e30f, -1e30f, std::numeric_limits<float>::quiet_NaN()}) {
          const ChapterDetectionSettings settings{.silenceThresholdDB = threshold,
                                                  .minSilenceDuration = silence,
                                                  .deviationThresholdLU = 2,
                                                  .blockDuration = block,
                                                  .consistencyMetric = ChapterConsistencyMetric::rms};
          for (const auto& [start, end] : detected(mono, sampleRate, settings)) EXPECT_LE(start, end);
        }
}

// --- Against a plain search ------------------------------------------------------------------------------

// The same chapters by plain means: blocks as letters, pauses by text search, sound by asking every block.
Times plainChapters(const std::vector<float>& mono, double sampleRate, const ChapterDetectionSettings& s) {
  const auto B = static_cast<std::size_t>(std::max(1LL, std::llround(sampleRate * s.blockDuration)));
  const std::size_t K = mono.size() / B;
  std::string letters;
  for (std::size_t k = 0; k < K; ++k) {
    long double squares = 0;
    for (std::size_t i = k * B; i < (k + 1) * B; ++i) squares += static_cast<long double>(mono[i]) * mono[i];
    letters += 10 * std::log10(squares / B) < s.silenceThresholdDB ? '.' : '#';
  }
  const auto R =
      static_cast<std::size_t>(std::max(1LL, std::llround(s.minSilenceDuration / s.blockDuration)));
  const double D = static_cast<double>(mono.size()) / sampleRate;
  std::vector<double> edges = {0};
  for (std::size_t a = letters.find('.'); a != letters.npos;) {
    const std::size_t b = std::min(letters.find('#', a), K);
    if (b - a >= R)
      edges.push_back(s.blockDuration * (static_cast<double>(a) + static_cast<double>(b - a) * 0.5));
    a = letters.find('.', b);
  }
  edges.push_back(D);
  Times kept;
  for (std::size_t k = 1; k < edges.size(); ++k) {
    if (edges[k] - edges[k - 1] < 0.0011) continue;
    int sound = 0;
    for (std::size_t block = 0; block < K; ++block)
      sound += letters[block] == '#' &&
               static_cast<double>(block) >= std::floor(edges[k - 1] / s.blockDuration) &&
               static_cast<double>(block) < std::ceil(edges[k] / s.blockDuration);
    if (s.blockDuration * sound >= 1.0) kept.emplace_back(edges[k - 1], edges[k]);
  }
  if (kept.empty()) return kept;
  kept.front().first = 0;
  if (kept.back().second < D) kept.back().second = D;
  return kept;
}

// Sound and silence of random lengths, off the blocks' borders, with silence or sound at either end.
std::vector<float> randomProgramme(std::mt19937& rng, double sampleRate) {
  std::vector<double> seconds;
  if (rng() % 2) seconds.push_back(0);
  for (auto turn = 1 + rng() % 14; turn > 0; --turn)
    seconds.push_back(rng() % 3 ? uniform(rng, 0, 4) : uniform(rng, 0, 1.2));
  auto mono = turns(seconds, sampleRate);
  for (float& x : mono) x = static_cast<float>(x * uniform(rng, 0.8, 1) + uniform(rng, -1e-4, 1e-4));
  return mono;
}

struct Trial {
  double sampleRate;
  ChapterDetectionSettings settings;
};

Trial randomTrial(std::mt19937& rng) {
  constexpr double rates[] = {100, 441, 999.5, 800, 10}, blocks[] = {0.1, 0.05, 0.013, 0.25, 0.333, 0.14};
  constexpr double silences[] = {0, 0.2, 0.35, 1, 2};
  Trial trial{rates[rng() % 5], defaults};
  trial.settings.blockDuration = blocks[rng() % 6];
  trial.settings.minSilenceDuration = silences[rng() % 5];
  return trial;
}

TEST(ChapterDetector, FindsWhatAPlainSearchFinds) {
  std::mt19937 rng(11);
  std::size_t counts[4] = {}, gaps = 0;
  for (int number = 0; number < 2000; ++number) {
    const auto [sampleRate, settings] = randomTrial(rng);
    const auto mono = randomProgramme(rng, sampleRate);
    const Times expected = plainChapters(mono, sampleRate, settings);
    ASSERT_EQ(detected(mono, sampleRate, settings), expected)
        << "trial " << number << ", " << sampleRate << " Hz, blocks of " << settings.blockDuration;
    ++counts[std::min<std::size_t>(expected.size(), 3)];
    for (std::size_t k = 1; k < expected.size(); ++k) gaps += expected[k].first > expected[k - 1].second;
  }
  for (const std::size_t count : counts) EXPECT_GT(count, 100u);  // none, one, two, more: all were seen
  EXPECT_GT(gaps, 100u);
}

// --- Streaming -------------------------------------------------------------------------------------------

TEST(SilenceScanner, AnySplitReadsAsTheWhole) {
  std::mt19937 rng(12);
  for (int number = 0; number < 300; ++number) {
    const auto [sampleRate, settings] = randomTrial(rng);
    const auto mono = randomProgramme(rng, sampleRate);
    SilenceScanner whole(sampleRate, settings), parts(sampleRate, settings);
    whole.add(mono);
    std::span<const float> left = mono;
    for (const std::int64_t n : randomSplits(rng, static_cast<std::int64_t>(mono.size()))) {
      parts.add(left.first(static_cast<std::size_t>(n)));
      left = left.subspan(static_cast<std::size_t>(n));
    }
    ASSERT_EQ(parts.silentBlocks(), whole.silentBlocks()) << number;
    ASSERT_EQ(parts.frameCount(), static_cast<std::int64_t>(mono.size()));
    ASSERT_EQ(timesOf(parts.chapters()), timesOf(whole.chapters())) << number;
    ASSERT_EQ(timesOf(parts.chapters()), detected(mono, sampleRate, settings)) << number;
  }
}

TEST(SilenceScanner, ChaptersCanBeReadAtAnyTime) {
  SilenceScanner scanner(rate, defaults);
  EXPECT_TRUE(scanner.chapters().empty());
  scanner.add(turns({5, 3}));
  EXPECT_EQ(timesOf(scanner.chapters()), (Times{{0, 8}}));
  scanner.add(turns({5}));
  EXPECT_EQ(timesOf(scanner.chapters()), (Times{{0, 6.5}, {6.5, 13}}));
}

TEST(SilenceScanner, NothingIsAllocatedPerSample) {
  if (!AllocationCounter::isAvailable) GTEST_SKIP() << "a sanitizer owns the allocator";
  const std::vector<float> chunk(4096, 0.1f);
  SilenceScanner scanner(48000, defaults);
  const AllocationCounter counter;
  for (int k = 0; k < 10'000; ++k) scanner.add(chunk);  // 14 minutes, 8,533 blocks
  EXPECT_LE(counter.count(), 20);                       // the doublings of the flags' memory
  EXPECT_EQ(scanner.silentBlocks().size(), 8533u);
}

}  // namespace
}  // namespace vellum
