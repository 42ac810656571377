// `vellum spectrogram`, end to end: the picture is decoded again.

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

#include "Support/AudioFiles.hpp"
#include "Support/CommandText.hpp"
#include "Support/Picture.hpp"
#include "Support/RunCommand.hpp"
#include "Support/Signals.hpp"
#include "Support/TemporaryFolder.hpp"
#include "Support/TextAssertions.hpp"

namespace vellum {
namespace {

using test::Arguments;
using test::Audio;
using test::CommandResult;
using test::contains;
using test::operator+;
using test::Picture;
using test::runVellum;
using test::TemporaryFolder;

// Where in a picture its spectrogram lies.
constexpr int left = 60, right = 84, top = 34, bottom = 46;

// The level that a colour stands for, from -100 to 0; 1 for what is no colour of the map.
double levelOf(const Colour& colour) {
  const auto& colours = levelColours();
  const auto found = std::find(colours.begin(), colours.end(), colour);
  return found == colours.end() ? 1 : -100 + 100 * static_cast<double>(found - colours.begin()) / 255;
}

struct Peak {
  double position;  // between bottom and top, 0 to 1
  double level;     // dB
};
Peak peakOfColumn(const Picture& picture, int x) {
  const int height = picture.height() - top - bottom;
  EXPECT_LT(x, picture.width() - left - right);
  double highest = -1000;
  std::vector<int> rows;
  for (int y = 0; y < height; ++y) {
    const double level = levelOf(picture.at(left + x, top + y));
    EXPECT_LE(level, 0) << x << ", " << y;
    if (level > highest) rows.clear(), highest = level;
    if (level == highest) rows.push_back(y);
  }
  return {1 - (static_cast<double>(rows.front() + rows.back()) / 2 + 0.5) / height, highest};
}

void draw(const Arguments& arguments) {
  const CommandResult result = runVellum(Arguments{"spectrogram"} + arguments);
  EXPECT_EQ(result.exitCode, 0) << result.err;
}

// A tone of 3 kHz at -20 dBFS in the second of three seconds.
Audio toneInTheMiddle() {
  Audio audio = test::sineAudio(1, 48000, 3, 3000, -20);
  std::fill(audio.channels[0].begin(), audio.channels[0].begin() + 48000, 0.0f);
  std::fill(audio.channels[0].begin() + 96000, audio.channels[0].end(), 0.0f);
  return audio;
}

TEST(SpectrogramCommand, ToneStandsAtItsTimeFrequencyAndLevel) {
  const TemporaryFolder folder;
  test::writeAudio(folder / "tone.wav", toneInTheMiddle(), 48000, test::floatWAV);
  for (const std::string scale : {"linear", "log"}) {
    draw({folder / "tone.wav", folder / (scale + ".png"), "--size", "744x480", "--scale", scale});
    const Picture picture(folder / (scale + ".png"));
    ASSERT_EQ(picture.width(), 744);
    ASSERT_EQ(picture.height(), 480);
    // 600 columns for 3 seconds, 400 rows for 24 kHz or for 20 Hz to 24 kHz.
    const double expected =
        scale == "linear" ? 3000.0 / 24000 : std::log(3000.0 / 20) / std::log(24000.0 / 20);
    for (const int x : {210, 300, 390}) {
      const Peak peak = peakOfColumn(picture, x);
      EXPECT_NEAR(peak.position, expected, 1.0 / 400) << scale;
      EXPECT_NEAR(peak.level, -20, 0.3) << scale;
    }
    for (const int x : {0, 100, 190, 410, 599})
      EXPECT_EQ(peakOfColumn(picture, x).level, -100) << scale << ' ' << x;
  }
}

TEST(SpectrogramCommand, SectionFillsThePicture) {
  const TemporaryFolder folder;
  test::writeAudio(folder / "tone.wav", toneInTheMiddle(), 48000, test::floatWAV);
  draw({folder / "tone.wav", folder / "a.png", "--from", "0.5", "--to", "1.5", "--size", "544x300"});
  const Picture picture(folder / "a.png");  // 400 columns: the tone begins at 200
  EXPECT_EQ(peakOfColumn(picture, 185).level, -100);
  EXPECT_NEAR(peakOfColumn(picture, 215).level, -20, 0.5);
  EXPECT_NEAR(peakOfColumn(picture, 399).level, -20, 0.5);
}

TEST(SpectrogramCommand, LevelsSpanTheColours) {
  const TemporaryFolder folder;
  test::writeAudio(folder / "tone.wav", test::sineAudio(1, 48000, 1, 3000, -40), 48000, test::floatWAV);
  draw({folder / "tone.wav", folder / "a.png", "--min-db", "-60", "--max-db", "-20"});
  // In the middle of the range, wherever that lies.
  EXPECT_NEAR(peakOfColumn(Picture(folder / "a.png"), 500).level, -50, 1);
  draw({folder / "tone.wav", folder / "b.png", "--min-db", "-100", "--max-db", "-50"});
  EXPECT_EQ(peakOfColumn(Picture(folder / "b.png"), 500).level, 0);
}

TEST(SpectrogramCommand, ChannelsAreChosen) {
  const TemporaryFolder folder;
  Audio audio = test::sineAudio(1, 48000, 1, 3000, -20);
  audio.channels.emplace_back(48000);
  test::writeAudio(folder / "two.wav", audio, 48000, test::floatWAV);
  const auto levelFor = [&](const Arguments& channels) {
    draw(Arguments{folder / "two.wav", folder / "a.png", "--force"} + channels);
    return peakOfColumn(Picture(folder / "a.png"), 500).level;
  };
  EXPECT_NEAR(levelFor({}), -23, 0.4);
  EXPECT_NEAR(levelFor({"--channels", "0"}), -20, 0.4);
  EXPECT_EQ(levelFor({"--channels", "1"}), -100);
  const CommandResult result =
      runVellum({"spectrogram", folder / "two.wav", folder / "b.png", "--channels", "2"});
  EXPECT_EQ(result.exitCode, 3);
  EXPECT_TRUE(contains(result.err, "there is no channel 2: it has 2, counted from 0"));
}

TEST(SpectrogramCommand, SilentTinyAndOddlyNamedFilesAreDrawn) {
  const TemporaryFolder folder;
  test::writeAudio(folder / "silent.wav", Audio(2, 48000), 48000, test::floatWAV);
  draw({folder / "silent.wav", folder / "a.png"});
  EXPECT_EQ(peakOfColumn(Picture(folder / "a.png"), 500).level, -100);
  test::writeAudio(folder / "one.wav", Audio(1, 1), 8000, test::floatWAV);
  draw({folder / "one.wav", folder / "b.png", "--size", "320x200"});
  EXPECT_EQ(Picture(folder / "b.png").width(), 320);
  const std::string odd = folder / "\xff<&\n.wav";
  test::writeAudio(odd, Audio(1, 8000), 8000, test::floatWAV);
  draw({odd, folder / "c.png"});
  EXPECT_EQ(Picture(folder / "c.png").width(), 1200);
}

TEST(SpectrogramCommand, TellsWhatItDrew) {
  const TemporaryFolder folder;
  test::writeAudio(folder / "tone.wav", toneInTheMiddle(), 48000, test::floatWAV);
  const CommandResult result =
      runVellum({"spectrogram", folder / "tone.wav", folder / "a.png", "--from", "1", "--fft-size", "512"});
  EXPECT_TRUE(contains(result.out, "Section                0:01.0 to 0:03.0\n")) << result.out;
  EXPECT_TRUE(contains(result.out, "Transform              512 samples, Hann window\n"));
  EXPECT_TRUE(contains(result.out, "Picture                1200 x 600 pixels, -100 to 0 dBFS\n"));
}

TEST(SpectrogramCommand, RefusesWrongArguments) {
  const TemporaryFolder folder;
  test::writeAudio(folder / "tone.wav", Audio(1, 4800), 48000, test::floatWAV);
  const std::vector<std::pair<Arguments, std::string>> cases = {
      {{"--size", "1200"}, "'1200' is not a size"},
      {{"--size", "1200x"}, "'1200x' is not a size"},
      {{"--size", "1e3x600"}, "'1e3x600' is not a size"},
      {{"--size", "-1200x600"}, "is not a size"},
      {{"--size", "319x200"}, "the least is 320x200"},
      {{"--size", "8193x200"}, "no side may be above 8192"},
      {{"--size", "8192x8192"}, "16777216 pixels are the most"},
      {{"--size", "99999999999999999999x600"}, "is not a size"},
      {{"--min-db", "-20", "--max-db", "-20"}, "at least 1 dB above"},
      {{"--min-db", "nan"}, "is not a number"},
      {{"--max-db", "101"}, "is not a number"},
      {{"--scale", "mel"}, "neither log nor linear"},
      {{"--fft-size", "1000"}, "not a power of two from 16 to 1048576"},
      {{"--fft-size", "8"}, "not a power of two"},
      {{"--fft-size", "2097152"}, "not a power of two"},
      {{"--fft-size", "1e300"}, "not a power of two"},
      {{"--fft-size", "-64"}, "not a power of two"},
      {{"--channels", "-1"}, "is not a whole number"},
      {{"--channels", "1,1"}, "channel 1 stands there twice"},
      {{"--from", "x"}, "is not a time"},
      {{"--from", "2", "--to", "2"}, "has to be later"},
  };
  for (const auto& [arguments, text] : cases) {
    const CommandResult result =
        runVellum(Arguments{"spectrogram", folder / "tone.wav", folder / "a.png"} + arguments);
    EXPECT_EQ(result.exitCode, 2) << arguments.back();
    EXPECT_TRUE(contains(result.err, text)) << result.err;
  }
  EXPECT_EQ(runVellum({"spectrogram", folder / "tone.wav"}).exitCode, 2);
  EXPECT_EQ(folder.names(), std::vector<std::string>{"tone.wav"});
}

// Before anything is read: not even the input has to be there.
TEST(SpectrogramCommand, RefusesNamesThatAreNotAPNG) {
  const TemporaryFolder folder;
  test::writeAudio(folder / "tone.wav", Audio(1, 4800), 48000, test::floatWAV);
  for (const std::string name : {"a.jpg", "a", "png", ".png", "a.png.svg", "a.pngx", "a.pn", "a.png/"}) {
    const std::string out = folder / name;
    for (const std::string input : {"tone.wav", "none.wav"}) {
      const CommandResult result = runVellum({"spectrogram", folder / input, out, "--force"});
      EXPECT_EQ(result.exitCode, 2) << name;
      EXPECT_TRUE(test::startsWith(
          result.err, "vellum: OUT: '" + out + "' does not end in .png, and the picture is a PNG\n"));
      EXPECT_EQ(result.out, "");
    }
  }
  EXPECT_EQ(runVellum({"spectrogram", folder / "tone.wav", ""}).exitCode, 2);
  EXPECT_EQ(folder.names(), std::vector<std::string>{"tone.wav"});
  for (const std::string name : {"a.PNG", "b.c.Png"}) {
    draw({folder / "tone.wav", folder / name});
    EXPECT_EQ(Picture(folder / name).width(), 1200);
  }
}

TEST(SpectrogramCommand, OutputAppearsWholeOrNotAtAll) {
  const TemporaryFolder folder;
  test::writeAudio(folder / "tone.wav", Audio(1, 4800), 48000, test::floatWAV);
  test::writeAudio(folder / "empty.wav", Audio(1, 0), 48000, test::floatWAV);
  CommandResult result = runVellum({"spectrogram", folder / "empty.wav", folder / "a.png"});
  EXPECT_EQ(result.exitCode, 3);
  EXPECT_TRUE(contains(result.err, "it holds no audio"));
  EXPECT_EQ(runVellum({"spectrogram", folder / "tone.wav", folder / "a.png", "--from", "5"}).exitCode, 3);
  EXPECT_EQ(folder.names(), (std::vector<std::string>{"empty.wav", "tone.wav"}));

  draw({folder / "tone.wav", folder / "a.png"});
  const std::string before = test::readBytes(folder / "a.png");
  result = runVellum({"spectrogram", folder / "tone.wav", folder / "a.png", "--size", "400x300"});
  EXPECT_EQ(result.exitCode, 3);
  EXPECT_TRUE(contains(result.err, "--force replaces it"));
  EXPECT_EQ(test::readBytes(folder / "a.png"), before);
  // Whatever it is called, an input is kept.
  std::filesystem::rename(folder / "tone.wav", folder / "tone.png");
  const std::string audio = test::readBytes(folder / "tone.png");
  EXPECT_EQ(runVellum({"spectrogram", folder / "tone.png", folder / "tone.png", "--force"}).exitCode, 3);
  EXPECT_EQ(test::readBytes(folder / "tone.png"), audio);
}

// 50 minutes against 5: only the picture counts.
TEST(SpectrogramCommand, MemoryDoesNotGrowWithTheAudio) {
  const TemporaryFolder folder;
  test::writeAudio(folder / "short.flac", Audio(1, 8000 * 300), 8000, test::flac);
  test::writeAudio(folder / "long.flac", Audio(1, 8000 * 3000), 8000, test::flac);
  const auto shortRun =
      test::runVellumWatchingMemory({"spectrogram", folder / "short.flac", folder / "short.png"});
  const auto longRun =
      test::runVellumWatchingMemory({"spectrogram", folder / "long.flac", folder / "long.png"});
  EXPECT_EQ(longRun.exitCode, 0);
  EXPECT_GT(shortRun.peakKilobytes, 1000);
  EXPECT_LT(longRun.peakKilobytes - shortRun.peakKilobytes, 1024);
}

}  // namespace
}  // namespace vellum
