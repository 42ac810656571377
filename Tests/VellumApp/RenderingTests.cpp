#include "VellumApp/Rendering.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <filesystem>
#include <limits>
#include <optional>
#include <random>
#include <string>
#include <vector>

#include "Support/AudioFiles.hpp"
#include "Support/Signals.hpp"
#include "Support/TemporaryFolder.hpp"
#include "VellumApp/PlanarBuffer.hpp"
#include "VellumCore/TruePeakLimiterDSP.hpp"

namespace vellum {
namespace {

using test::Audio;
using test::TemporaryFolder;

struct Rendered {
  Audio audio;
  RenderResult result;
};

std::optional<Rendered> renderAll(
    const std::filesystem::path& path, const RenderSettings& settings,
    const std::function<bool(std::int64_t)>& goOn = [](std::int64_t) { return true; }) {
  Audio audio;
  const auto result = render(
      path, settings,
      [&](std::span<const float* const> channelData, std::int64_t frameCount) {
        Audio chunk;
        for (const float* channel : channelData) chunk.channels.emplace_back(channel, channel + frameCount);
        audio.append(chunk);
      },
      goOn);
  if (!result) return {};
  return Rendered{audio, *result};
}

// The whole signal through gain and limiter in one block, with the latency's worth of silence behind it and
// the same number of frames taken off the start.
Audio plainlyRendered(const Audio& input, double sampleRate, double gainDB, const LimiterSettings& limiter) {
  const auto gain = static_cast<float>(test::amplitudeOf(gainDB));
  const auto latency =
      std::max<std::int64_t>(1, static_cast<std::int64_t>(sampleRate * limiter.lookaheadMs / 1000));
  Audio audio = input;
  for (auto& channel : audio.channels) {
    for (float& sample : channel) sample *= gain;
    channel.resize(channel.size() + static_cast<std::size_t>(latency));
  }
  TruePeakLimiterDSP dsp({.sampleRate = sampleRate,
                          .channelCount = static_cast<std::int64_t>(audio.channels.size()),
                          .ceilingDB = static_cast<float>(limiter.ceilingDBTP),
                          .lookaheadMs = static_cast<float>(limiter.lookaheadMs),
                          .releaseMs = static_cast<float>(limiter.releaseMs),
                          .maxFrameCount = audio.frameCount()});
  std::vector<float*> pointers;
  for (auto& channel : audio.channels) pointers.push_back(channel.data());
  dsp.process(pointers, audio.frameCount());
  return test::cut(audio, latency, audio.frameCount());
}

Audio noise(std::size_t channelCount, std::int64_t frameCount, double amplitude) {
  std::mt19937 rng(5);
  return test::noiseAudio(rng, channelCount, frameCount, amplitude);
}

TEST(Rendering, NoGainAndNoLimiterGiveTheInputToTheBit) {
  const TemporaryFolder folder;
  struct Case {
    test::FileKind kind;
    SampleCoding coding;
  };
  const Case cases[] = {{{"16.wav", SF_FORMAT_WAV | SF_FORMAT_PCM_16}, SampleCoding::pcm16},
                        {{"16.wav", SF_FORMAT_WAV | SF_FORMAT_PCM_16}, SampleCoding::pcm24},
                        {{"24.wav", SF_FORMAT_WAV | SF_FORMAT_PCM_24}, SampleCoding::pcm24},
                        {test::floatWAV, SampleCoding::float32}};
  for (const Case& one : cases) {
    test::writeAudio(folder / "in.wav", noise(2, 40'000, 0.9), 48000, one.kind);
    const auto rendered = renderAll(folder / "in.wav", {0, {}, one.coding, Dither::tpdf});
    ASSERT_TRUE(rendered);
    EXPECT_EQ(rendered->audio.channels, test::readAudio(folder / "in.wav").channels) << one.kind.extension;
    EXPECT_EQ(rendered->result.frameCount, 40'000);
    EXPECT_EQ(rendered->result.largestReductionDB, 0);
    EXPECT_EQ(rendered->result.clippedSamples, 0);
  }
}

// Lengths around the latency and around the chunks, latencies from a frame to more than a chunk.
TEST(Rendering, LimitedAudioIsAlignedWithTheInputAndAsLong) {
  const TemporaryFolder folder;
  const std::int64_t chunk = framesPerChunk(2);
  for (const double lookaheadMs : {0.0, 5.0, 1000.0})
    for (const std::int64_t frames :
         {std::int64_t{0}, std::int64_t{1}, std::int64_t{2}, std::int64_t{239}, std::int64_t{240},
          std::int64_t{241}, chunk - 1, chunk, chunk + 1, chunk + 239, 2 * chunk, 4 * chunk + 7}) {
      SCOPED_TRACE(testing::Message() << frames << " frames, look-ahead " << lookaheadMs << " ms");
      const Audio input = noise(2, frames, 0.9);
      test::writeAudio(folder / "in.wav", input, 48000, test::floatWAV);
      const LimiterSettings limiter{.ceilingDBTP = -3, .lookaheadMs = lookaheadMs, .releaseMs = 50};
      const auto rendered = renderAll(folder / "in.wav", {4, limiter, SampleCoding::float32, Dither::tpdf});
      ASSERT_TRUE(rendered);
      EXPECT_EQ(rendered->result.frameCount, frames);
      ASSERT_EQ(rendered->audio.frameCount(), frames);
      if (frames > 0) {
        EXPECT_EQ(rendered->audio.channels, plainlyRendered(input, 48000, 4, limiter).channels);
      }
      if (frames > 240) {
        EXPECT_GT(rendered->result.largestReductionDB, 3.0);
      }
    }
}

TEST(Rendering, TheLargestReductionIsWhatThePeakStandsAboveTheCeiling) {
  const TemporaryFolder folder;
  // 997 Hz: the sine's true peak is its amplitude.
  test::writeAudio(folder / "in.wav", test::sineAudio(1, 48000, 0.5, 997, -4), 48000, test::floatWAV);
  const auto rendered = renderAll(
      folder / "in.wav", {6, LimiterSettings{.ceilingDBTP = -1}, SampleCoding::float32, Dither::none});
  ASSERT_TRUE(rendered);
  EXPECT_NEAR(rendered->result.largestReductionDB, 3.0, 0.05);
}

TEST(Rendering, SamplesThatTheLimiterDidNotTouchKeepTheirIntegers) {
  const TemporaryFolder folder;
  constexpr std::int64_t quietFrames = 30'000, lookaheadFrames = 240;
  Audio input = noise(2, quietFrames, 0.25);
  input.append(noise(2, 10'000, 0.95));
  test::writeAudio(folder / "in.wav", input, 48000, {"wav", SF_FORMAT_WAV | SF_FORMAT_PCM_16});
  const auto rendered = renderAll(folder / "in.wav",
                                  {0, LimiterSettings{.ceilingDBTP = -4}, SampleCoding::pcm16, Dither::tpdf});
  ASSERT_TRUE(rendered);
  const Audio original = test::readAudio(folder / "in.wav");
  EXPECT_EQ(test::cut(rendered->audio, 0, quietFrames - lookaheadFrames).channels,
            test::cut(original, 0, quietFrames - lookaheadFrames).channels);
  EXPECT_NE(test::cut(rendered->audio, quietFrames, 40'000).channels,
            test::cut(original, quietFrames, 40'000).channels);
}

TEST(Rendering, AGainMultipliesEverySample) {
  const TemporaryFolder folder;
  const Audio input = noise(3, 20'000, 0.5);
  test::writeAudio(folder / "in.wav", input, 44100, test::floatWAV);
  const auto rendered = renderAll(folder / "in.wav", {-6, {}, SampleCoding::float32, Dither::tpdf});
  ASSERT_TRUE(rendered);
  const auto gain = static_cast<float>(test::amplitudeOf(-6));
  for (std::size_t c = 0; c < 3; ++c)
    for (std::size_t n = 0; n < 20'000; ++n)
      ASSERT_EQ(rendered->audio.channels[c][n], gain * input.channels[c][n]);
}

TEST(Rendering, CountsTheSamplesThatRoundingClips) {
  const TemporaryFolder folder;
  const Audio input = noise(1, 20'000, 0.5);
  test::writeAudio(folder / "in.wav", input, 48000, test::floatWAV);
  const auto rendered = renderAll(folder / "in.wav", {12, {}, SampleCoding::pcm16, Dither::none});
  ASSERT_TRUE(rendered);
  const auto gain = static_cast<float>(test::amplitudeOf(12));
  const auto clips = std::count_if(input.channels[0].begin(), input.channels[0].end(), [&](float x) {
    const double value = std::round(static_cast<double>(gain * x) * 32768);
    return value > 32767 || value < -32768;
  });
  EXPECT_GT(clips, 1000);
  EXPECT_EQ(rendered->result.clippedSamples, clips);
}

TEST(Rendering, TellsHowFarItIsAndStopsWhenAsked) {
  const TemporaryFolder folder;
  test::writeAudio(folder / "in.wav", noise(2, 100'000, 0.5), 48000, test::floatWAV);
  const RenderSettings settings{0, LimiterSettings{.ceilingDBTP = -1}, SampleCoding::float32, Dither::none};
  std::vector<std::int64_t> told;
  ASSERT_TRUE(renderAll(folder / "in.wav", settings, [&](std::int64_t frames) {
    told.push_back(frames);
    return true;
  }));
  EXPECT_EQ(told.front(), 0);
  EXPECT_TRUE(std::is_sorted(told.begin(), told.end()));
  EXPECT_GT(told.back(), 50'000);

  EXPECT_FALSE(renderAll(folder / "in.wav", settings, [](std::int64_t frames) { return frames < 30'000; }));
}

TEST(Rendering, AFileThatIsNotThereIsAnError) {
  EXPECT_THROW(renderAll("/nowhere/in.wav", {0, {}, SampleCoding::pcm16, Dither::none}), FileError);
}

}  // namespace
}  // namespace vellum
