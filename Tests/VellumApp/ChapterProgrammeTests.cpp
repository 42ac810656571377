#include "VellumApp/ChapterProgramme.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <optional>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "Support/AudioFiles.hpp"
#include "Support/Audiobook.hpp"
#include "Support/Signals.hpp"
#include "Support/TemporaryFolder.hpp"
#include "VellumCore/ChapterDetection.hpp"

namespace vellum {
namespace {

using test::Audio;
using test::TemporaryFolder;

const auto goOn = [](const MeasureProgress&) { return true; };
const test::FileKind pcm16{"wav", SF_FORMAT_WAV | SF_FORMAT_PCM_16};

ScanSettings usual() {
  return {.detection = ChapterDetectionSettings::defaultValue(), .channelLabels = {}};
}

ChapterProgramme scanned(const std::filesystem::path& path, const ScanSettings& settings = usual()) {
  return scanProgramme(path, settings, goOn).value();
}

Chapter chapterAt(double startSec, double endSec) {
  return {.id = UUID::random(), .index = 1, .name = "x", .startSec = startSec, .endSec = endSec};
}

// --- Detection on speech ---------------------------------------------------------------------------------

void expectTheBooksBorders(const test::Audiobook& book, const TemporaryFolder& folder) {
  constexpr double block = 0.1;
  test::writeAudio(folder / "book.wav", book.audio, test::Audiobook::sampleRate, pcm16);
  const std::vector<Chapter> chapters = scanned(folder / "book.wav").detected;
  ASSERT_GE(book.chapterCount(), 8u);
  ASSERT_EQ(chapters.size(), book.chapterCount());
  EXPECT_EQ(chapters.front().startSec, 0);
  EXPECT_EQ(chapters.back().endSec,
            static_cast<double>(book.audio.frameCount()) / test::Audiobook::sampleRate);
  for (std::size_t k = 0; k < book.borderSec.size(); ++k) {
    EXPECT_NEAR(chapters[k].endSec, book.borderSec[k], block) << "chapter " << k + 1;
    EXPECT_EQ(chapters[k].endSec, chapters[k + 1].startSec);
  }
}

TEST(ChapterProgramme, AnHourOfSpeechIsDividedAtItsLongPausesAndNowhereElse) {
  const TemporaryFolder folder;
  expectTheBooksBorders(test::audiobook(3600, {0}), folder);
}

TEST(ChapterProgramme, RoomNoise50DBBelowTheSpeechChangesNoBorder) {
  const TemporaryFolder folder;
  test::Audiobook book = test::audiobook(3600, {0}, 2);
  std::vector<float>& samples = book.audio.channels.front();
  std::mt19937 rng(3);
  // Uniform noise of amplitude a has an RMS of a / sqrt(3).
  const double amplitude = test::amplitudeOf(test::rmsDB(samples) - 50) * std::sqrt(3.0);
  const std::vector<float> noise = test::noise(rng, book.audio.frameCount(), amplitude);
  for (std::size_t n = 0; n < samples.size(); ++n) samples[n] += noise[n];
  expectTheBooksBorders(book, folder);
}

// --- The mono mix ----------------------------------------------------------------------------------------

// 4 s of a tone, 3 s without, 4 s with; the levels in dB of each channel in the pause.
Audio pausing(const std::vector<double>& pauseDB) {
  Audio audio;
  for (const double dB : pauseDB) {
    std::vector<float> samples = test::sine(8000, 11 * 8000, 440, 0.2);
    const std::vector<float> quiet = test::sine(8000, 3 * 8000, 440, test::amplitudeOf(dB));
    std::copy(quiet.begin(), quiet.end(), samples.begin() + 4 * 8000);
    audio.channels.push_back(std::move(samples));
  }
  return audio;
}

std::size_t chaptersOf(const Audio& audio, const std::optional<std::vector<AudioChannelLabel>>& labels = {}) {
  const TemporaryFolder folder;
  test::writeAudio(folder / "x.wav", audio, 8000, test::floatWAV);
  ScanSettings settings = usual();
  settings.channelLabels = labels;
  return scanned(folder / "x.wav", settings).detected.size();
}

TEST(ChapterProgramme, SilenceIsJudgedOnTheMeanOfTheChannels) {
  // A sine of -50 dB peak is -53 dB RMS, above -55; the mean with a silent channel is 6 dB lower.
  EXPECT_EQ(chaptersOf(pausing({-50})), 1u);
  EXPECT_EQ(chaptersOf(pausing({-50, -200})), 2u);
  EXPECT_EQ(chaptersOf(pausing({-50, -50})), 1u);
}

TEST(ChapterProgramme, ChannelsWithoutWeightDoNotDisturbASilence) {
  constexpr AudioChannelLabel left = 1, right = 2, centre = 3, lfe = 4;
  EXPECT_EQ(chaptersOf(pausing({-200, -200, -200, -10}), {{left, right, centre, lfe}}), 2u);
  EXPECT_EQ(chaptersOf(pausing({-200, -10, -200, -200}), {{left, right, centre, lfe}}), 1u);
  // Film order, which is metered in another: the last channel is the one without weight.
  const std::vector<AudioChannelLabel> film = {left, centre, right, 5, 6, lfe};
  EXPECT_EQ(chaptersOf(pausing({-200, -200, -200, -200, -200, -10}), film), 2u);
  EXPECT_EQ(chaptersOf(pausing({-200, -200, -200, -10, -200, -200}), film), 1u);
  // And they do not thin the others out: the mean of three, not of four.
  const double justAbove = -55 + 3.01 + 20 * std::log10(3.0) + 0.3;
  EXPECT_EQ(chaptersOf(pausing({justAbove, -200, -200, -200}), {{left, right, centre, lfe}}), 1u);
  EXPECT_EQ(chaptersOf(pausing({justAbove - 0.6, -200, -200, -200}), {{left, right, centre, lfe}}), 2u);
}

// --- Measuring -------------------------------------------------------------------------------------------

// Any list of chapters measures as the library measures it in memory, to the bit.
TEST(ChapterProgramme, ChaptersInAnyOrderMeasureAsTheyDoInMemory) {
  const TemporaryFolder folder;
  constexpr double rate = 8000, seconds = 60;
  std::mt19937 rng(7);
  Audio audio = test::noiseAudio(rng, 2, static_cast<std::int64_t>(seconds * rate), 0.3);
  for (auto& channel : audio.channels)
    for (std::size_t n = 0; n < channel.size(); ++n)
      channel[n] *= 0.5f + 0.5f * std::sin(static_cast<float>(n) / 9000);
  test::writeAudio(folder / "x.wav", audio, static_cast<int>(rate), test::floatWAV);
  const ChapterProgramme programme = scanned(folder / "x.wav");
  for (int trial = 0; trial < 20; ++trial) {
    std::vector<Chapter> chapters;
    for (int k = 0; k < 8; ++k) {
      const double start = test::uniform(rng, 0, seconds + 2);
      chapters.push_back(chapterAt(start, start + test::uniform(rng, 0.00001, 30)));
    }
    chapters.push_back(chapterAt(0, seconds));
    chapters.push_back(chapterAt(seconds - 10, 1e9));
    const auto measured = measureChapters(folder / "x.wav", programme, chapters, goOn);
    ASSERT_TRUE(measured);
    EXPECT_EQ(measured->chapters,
              ChapterAnalyser::analyse(chapters, {.channels = audio.channels,
                                                  .sampleRate = rate,
                                                  .speechHistory = programme.speechHistory,
                                                  .channelWeights = programme.channelWeights}));
    for (std::size_t k = 0; k < chapters.size(); ++k) {
      const auto [start, end] = ChapterAnalyser::framesOf(chapters[k], rate, audio.frameCount());
      const auto whole = ChapterAnalyser::fullAnalysis({.channels = audio.channels,
                                                        .start = start,
                                                        .end = end,
                                                        .sampleRate = rate,
                                                        .speechHistory = {},
                                                        .channelWeights = {}});
      EXPECT_EQ(measured->truePeakDBTP[k], whole.truePeakDBTP) << "trial " << trial << ", chapter " << k;
    }
  }
}

TEST(ChapterProgramme, ChannelsAreMeteredInTheOrderOfTheProgramme) {
  const TemporaryFolder folder;
  // The file has film order L C R Ls Rs LFE; only the last channel sounds, and its weight is 0.
  Audio audio(6, 12 * 8000);
  audio.channels[5] = test::sine(8000, 12 * 8000, 440, 0.5);
  test::writeAudio(folder / "x.wav", audio, 8000, test::floatWAV);
  ScanSettings settings = usual();
  settings.channelLabels = std::vector<AudioChannelLabel>{1, 3, 2, 5, 6, 4};
  const ChapterProgramme programme = scanned(folder / "x.wav", settings);
  const std::vector<Chapter> whole = {chapterAt(0, 12)};
  const auto measured = measureChapters(folder / "x.wav", programme, whole, goOn);
  EXPECT_FALSE(measured->chapters[0].integratedLUFS);
  EXPECT_TRUE(measured->chapters[0].rmsDBFS);
}

TEST(ChapterProgramme, AFileThatChangedMeanwhileIsRefused) {
  const TemporaryFolder folder;
  test::writeAudio(folder / "x.wav", Audio(1, 8000), 8000, test::floatWAV);
  const ChapterProgramme programme = scanned(folder / "x.wav");
  test::writeAudio(folder / "x.wav", Audio(1, 7999), 8000, test::floatWAV);
  EXPECT_THROW(measureChapters(folder / "x.wav", programme, {}, goOn), FileError);
  test::writeAudio(folder / "x.wav", Audio(2, 8000), 8000, test::floatWAV);
  EXPECT_THROW(measureChapters(folder / "x.wav", programme, {}, goOn), FileError);
}

TEST(ChapterProgramme, InterruptionLeavesNoResult) {
  const TemporaryFolder folder;
  test::writeAudio(folder / "x.wav", Audio(1, 80'000), 8000, test::floatWAV);
  const auto stop = [](const MeasureProgress&) { return false; };
  EXPECT_FALSE(scanProgramme(folder / "x.wav", usual(), stop));
  EXPECT_FALSE(measureChapters(folder / "x.wav", scanned(folder / "x.wav"), {}, stop));
}

TEST(ChapterProgramme, AFileWithoutFramesHasNoChapters) {
  const TemporaryFolder folder;
  test::writeAudio(folder / "x.wav", Audio(1, 0), 8000, test::floatWAV);
  EXPECT_TRUE(scanned(folder / "x.wav").detected.empty());
}

// --- Reports ---------------------------------------------------------------------------------------------

TEST(ChapterProgramme, FingerprintIsOfTheFile) {
  const TemporaryFolder folder;
  test::writeAudio(folder / "talk.wav", Audio(2, 80'044), 8000, test::floatWAV);  // 10.0055 s
  EXPECT_EQ(fingerprintOf(scanned(folder / "talk.wav")),
            (ChapterFileFingerprint{
                .fileName = "talk.wav", .durationCS = 1001, .sampleRate = 8000, .channelCount = 2}));
}

TEST(ChapterProgramme, AFileNameThatIsNoUTF8ReadsBackAsItWasWritten) {
  const TemporaryFolder folder;
  test::writeAudio(folder / "a\xFF.wav", Audio(1, 8000), 8000, test::floatWAV);
  EXPECT_EQ(fingerprintOf(scanned(folder / "a\xFF.wav")).fileName, "a\xEF\xBF\xBD.wav");
}

TEST(ChapterProgramme, EachDifferenceBetweenFingerprintsIsNamed) {
  const ChapterFileFingerprint a{"a.wav", 6000, 48000, 2};
  EXPECT_TRUE(differencesFrom(a, a).empty());
  EXPECT_EQ(differencesFrom(a, {"b.wav", 6000, 48000, 2}),
            (std::vector<std::string>{"the name is b.wav, not a.wav"}));
  EXPECT_EQ(differencesFrom(a, {"a.wav", 6001, 44100, 1}),
            (std::vector<std::string>{"the duration is 60.01 s, not 60.00 s",
                                      "the sample rate is 44100 Hz, not 48000 Hz",
                                      "the number of channels is 1, not 2"}));
}

TEST(ChapterProgramme, EditedChaptersComeInTimeOrderWithOneIdEach) {
  Chapter late = chapterAt(20, 30), early = chapterAt(0, 10), copy = early;
  late.name = "late";
  early.name = "early";
  copy.name = "copy";
  copy.startSec = 5;
  const std::vector<Chapter> chapters = inTimeOrder({late, early, copy});
  EXPECT_EQ(chapters[0].name, "early");
  EXPECT_EQ(chapters[1].name, "copy");
  EXPECT_EQ(chapters[2].name, "late");
  EXPECT_EQ(chapters[0].id, early.id);
  EXPECT_EQ(chapters[2].id, late.id);
  EXPECT_NE(chapters[1].id, early.id);
  for (std::size_t k = 0; k < 3; ++k) EXPECT_EQ(chapters[k].index, static_cast<std::int64_t>(k) + 1);
}

}  // namespace
}  // namespace vellum
