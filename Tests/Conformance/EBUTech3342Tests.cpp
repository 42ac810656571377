#include <gtest/gtest.h>

#include <string>

#include "Support/ConformanceSignals.hpp"
#include "VellumCore/LoudnessProcessor.hpp"

// The minimum requirement signals of EBU Tech 3342: stereo, a 1 kHz sine in phase, parts of 20 s, levels in
// peak dBFS per channel. Numbers 5 and 6 are recordings and cannot be made here.

namespace vellum::test {
namespace {

class EBUTech3342 : public testing::TestWithParam<int> {
 protected:
  // The range of a tone in parts of 20 s, once and with the whole of it repeated.
  void expectRange(const std::vector<double>& levels, double range) const {
    std::vector<TonePart> parts;
    for (const double level : levels) parts.push_back({20, level});
    for (const int times : {1, 2}) {
      SCOPED_TRACE(times);
      LoudnessProcessor meter({.sampleRate = static_cast<double>(GetParam()),
                               .channelCount = 2,
                               .precomputedSpeechHistory = std::nullopt,
                               .channelWeights = std::nullopt});
      playTone({.sampleRate = static_cast<double>(GetParam()), .parts = repeated(parts, times)},
               [&](auto channels, std::int64_t n) { meter.process(channels, n); });
      EXPECT_NEAR(meter.loudnessRange(), range, 1.0);    // the document's tolerance
      EXPECT_NEAR(meter.loudnessRange(), range, 0.001);  // ours: exact to three decimals, at any rate
    }
  }
};

INSTANTIATE_TEST_SUITE_P(Rates, EBUTech3342, testing::Values(44100, 48000, 96000),
                         [](const auto& rate) { return std::to_string(rate.param); });

TEST_P(EBUTech3342, Signal1TwoLevels10Apart) {
  expectRange({-20, -30}, 10);
}

TEST_P(EBUTech3342, Signal2TwoLevels5Apart) {
  expectRange({-20, -15}, 5);
}

TEST_P(EBUTech3342, Signal3TwoLevels20ApartBothAboveTheGate) {
  expectRange({-40, -20}, 20);
}

TEST_P(EBUTech3342, Signal4LevelsBelowTheRelativeGateStayOut) {
  expectRange({-50, -35, -20, -35, -50}, 15);
}

}  // namespace
}  // namespace vellum::test
