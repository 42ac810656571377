#include "VellumApp/Delivery.hpp"

#include <gtest/gtest.h>
#include <signal.h>

#include <algorithm>
#include <cmath>
#include <filesystem>
#include <limits>
#include <optional>
#include <string>
#include <vector>

#include "Support/AudioFiles.hpp"
#include "Support/Signals.hpp"
#include "Support/TemporaryFolder.hpp"
#include "Support/TextAssertions.hpp"

namespace vellum {
namespace {

using test::contains;
using test::TemporaryFolder;
using Stage = DeliveryProgress::Stage;

bool goOn(const DeliveryProgress&) {
  return true;
}

void writeTone(const std::filesystem::path& path, double peakDBFS,
               const test::FileKind& kind = test::floatWAV) {
  test::writeAudio(path, test::sineAudio(2, 48000, 2, 997, peakDBFS), 48000, kind);
}

DeliverySettings settingsFor(const std::string& target, std::vector<DeliveryItem> items) {
  return {*LoudnessTargetCatalog::target(target),
          6,
          {.items = std::move(items),
           .format = {},
           .dither = Dither::tpdf,
           .replacesExisting = false,
           .isDryRun = false,
           .channelLabels = {}}};
}

LimitSettings limitFor(std::vector<DeliveryItem> items, double gainDB, bool isExact) {
  return {.gainDB = gainDB,
          .limiter = {.ceilingDBTP = -6},
          .isExact = isExact,
          .outputs = settingsFor("music.spotify", std::move(items)).outputs};
}

template <typename Work>
std::string errorOf(const Work& work) {
  try {
    work();
  } catch (const NamedFileError& error) {
    return error.what();
  }
  return "no error";
}

TEST(Delivery, ProgressGoesFromMeasuringThroughEveryRound) {
  const TemporaryFolder folder;
  writeTone(folder / "a.wav", -20);
  writeTone(folder / "b.wav", -20);
  std::vector<std::string> steps;
  const auto note = [&](const DeliveryProgress& progress) {
    const char* const names[] = {"measuring", "rendering", "verifying"};
    const std::string step = std::string(names[static_cast<int>(progress.stage)]) + " " +
                             std::to_string(progress.round) + " " + std::to_string(progress.item);
    if (steps.empty() || steps.back() != step) steps.push_back(step);
    EXPECT_EQ(progress.progress.totalSec, 2.0);
    EXPECT_LE(progress.progress.doneSec, 2.0);
    return true;
  };
  const auto delivery = deliver(settingsFor("music.spotify", {{folder / "a.wav", folder / "1.wav"},
                                                              {folder / "b.wav", folder / "2.wav"}}),
                                note);
  ASSERT_TRUE(delivery);
  EXPECT_FALSE(delivery->obstacle);
  EXPECT_EQ(steps, (std::vector<std::string>{"measuring 0 0", "measuring 0 1", "rendering 1 0",
                                             "verifying 1 0", "rendering 1 1", "verifying 1 1"}));
}

TEST(Delivery, AnInterruptionAtAnyStageLeavesNothing) {
  const TemporaryFolder folder;
  writeTone(folder / "in.wav", -20);
  for (const Stage stage : {Stage::measuring, Stage::rendering, Stage::verifying}) {
    const auto stop = [&](const DeliveryProgress& progress) { return progress.stage != stage; };
    EXPECT_FALSE(deliver(settingsFor("music.spotify", {{folder / "in.wav", folder / "out.wav"}}), stop));
    EXPECT_FALSE(limit(limitFor({{folder / "in.wav", folder / "out.wav"}}, 0, true), stop));
    EXPECT_EQ(folder.names(), (std::vector<std::string>{"in.wav"}));
  }
}

TEST(DeliveryDeathTest, AKilledProcessLeavesNothing) {
  const TemporaryFolder folder;
  writeTone(folder / "in.wav", -20);
  for (const Stage stage : {Stage::measuring, Stage::rendering, Stage::verifying}) {
    const auto die = [&](const DeliveryProgress& progress) {
      if (progress.stage == stage) ::raise(SIGKILL);
      return true;
    };
    EXPECT_EXIT(deliver(settingsFor("music.spotify", {{folder / "in.wav", folder / "out.wav"}}), die),
                testing::KilledBySignal(SIGKILL), "");
    EXPECT_EQ(folder.names(), (std::vector<std::string>{"in.wav"}));
  }
}

// Nothing of an album appears where one of its outputs cannot.
TEST(Delivery, ErrorsNameTheirFile) {
  const TemporaryFolder folder;
  writeTone(folder / "in.wav", -20);
  writeTone(folder / "other.wav", -20);
  writeTone(folder / "in.ogg", -20, test::vorbis);
  const auto error = [&](std::vector<DeliveryItem> items) {
    return errorOf([&] { deliver(settingsFor("music.spotify", std::move(items)), goOn); });
  };
  const std::string place = folder.path().string() + "/";
  EXPECT_EQ(error({{folder / "none.wav", folder / "out.wav"}}), place + "none.wav: there is no such file");
  EXPECT_EQ(error({{folder / "in.wav", folder / "other.wav"}}),
            place + "other.wav: there is such a file already");
  EXPECT_EQ(error({{folder / "in.wav", folder / "1.wav"}, {folder / "other.wav", folder / "./1.wav"}}),
            place + "./1.wav: it would be written twice");
  // The input of another item is no output either.
  EXPECT_EQ(error({{folder / "in.wav", folder / "1.wav"}, {folder / "other.wav", folder / "in.wav"}}),
            place + "in.wav: it is one of the files that are read");
  EXPECT_EQ(error({{folder / "in.wav", folder / "out.OGG"}}),
            place + "out.OGG: no such files are written, only WAV, RF64, AIFF, CAF and FLAC");
  EXPECT_TRUE(contains(error({{folder / "in.ogg", folder / "out.wav"}}), "in.ogg: it is lossy (Ogg Vorbis"));
  EXPECT_TRUE(contains(error({{folder / "in.wav", folder / "out.flac"}}),
                       "out.flac: FLAC has no floating-point samples"));
  EXPECT_EQ(folder.names(), (std::vector<std::string>{"in.ogg", "in.wav", "other.wav"}));
}

TEST(Delivery, AFileThatCameToThePlaceMeanwhileIsKept) {
  const TemporaryFolder folder;
  writeTone(folder / "in.wav", -20);
  const std::string message = errorOf([&] {
    deliver(settingsFor("music.spotify", {{folder / "in.wav", folder / "out.wav"}}),
            [&](const DeliveryProgress& progress) {
              if (progress.stage == Stage::verifying) test::writeBytes(folder / "out.wav", "precious");
              return true;
            });
  });
  EXPECT_TRUE(contains(message, "out.wav: there is such a file already"));
  EXPECT_EQ(test::readBytes(folder / "out.wav"), "precious");
  EXPECT_EQ(folder.names(), (std::vector<std::string>{"in.wav", "out.wav"}));
}

TEST(Delivery, AnInputThatChangesWhileItIsReadIsRefused) {
  const TemporaryFolder folder;
  writeTone(folder / "in.wav", -20);
  const std::string message = errorOf([&] {
    deliver(settingsFor("music.spotify", {{folder / "in.wav", folder / "out.wav"}}),
            [&](const DeliveryProgress& progress) {
              if (progress.stage == Stage::measuring && progress.progress.doneSec > 1.2)
                test::writeAudio(folder / "in.wav", test::sineAudio(2, 48000, 1, 997, -20), 48000,
                                 test::floatWAV);
              return true;
            });
  });
  EXPECT_TRUE(contains(message, "in.wav: it changed while it was read"));
  EXPECT_EQ(folder.names(), (std::vector<std::string>{"in.wav"}));
}

// 3e38 is near the end of 32-bit floats: 20 dB more are beyond it.
TEST(Delivery, AGainBeyondWhatFloatsHoldIsRefused) {
  const TemporaryFolder folder;
  test::Audio audio = test::sineAudio(2, 48000, 1, 997, -20);
  audio.channels[0][5] = 3e38f;
  test::writeAudio(folder / "in.wav", audio, 48000, test::floatWAV);
  EXPECT_TRUE(contains(errorOf([&] {
                         limit(limitFor({{folder / "in.wav", folder / "out.wav"}}, 20, false), goOn);
                       }),
                       "in.wav: with this gain, "));
  EXPECT_EQ(folder.names(), (std::vector<std::string>{"in.wav"}));
}

TEST(Delivery, AnExactLimitThatCannotBeHadWritesNothing) {
  const TemporaryFolder folder;
  // A click every 50 ms, each on its own: with a frame of look-ahead all of them leave before they are seen.
  test::Audio audio(1, 48000);
  for (std::size_t n = 2400; n < 48000; n += 2400) audio.channels[0][n] = 0.9f;
  test::writeAudio(folder / "in.wav", audio, 48000, test::floatWAV);
  LimitSettings settings = limitFor({{folder / "in.wav", folder / "out.wav"}}, 0, true);
  settings.limiter.lookaheadMs = 0;
  settings.limiter.releaseMs = 1;
  const auto delivery = limit(settings, goOn);
  ASSERT_TRUE(delivery);
  EXPECT_EQ(delivery->obstacle, "the true peak stays above the ceiling");
  EXPECT_EQ(delivery->rounds.size(), 8u);
  EXPECT_EQ(folder.names(), (std::vector<std::string>{"in.wav"}));

  settings.isExact = false;
  EXPECT_FALSE(limit(settings, goOn)->obstacle);
  EXPECT_EQ(folder.names(), (std::vector<std::string>{"in.wav", "out.wav"}));
}

TEST(Delivery, WhatTheInputWarnsOfIsNoted) {
  const TemporaryFolder folder;
  writeTone(folder / "whole.wav", -20);
  const std::string bytes = test::readBytes(folder / "whole.wav");
  test::writeBytes(folder / "in.wav", bytes.substr(0, bytes.size() / 2));
  const auto delivery =
      deliver(settingsFor("music.spotify", {{folder / "in.wav", folder / "out.wav"}}), goOn);
  ASSERT_TRUE(delivery);
  EXPECT_EQ(delivery->files.front().notes.size(), 1u);
}

}  // namespace
}  // namespace vellum
