#include "VellumApp/DeliverySearch.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <limits>
#include <optional>
#include <random>
#include <string>
#include <vector>

#include "Support/Signals.hpp"
#include "Support/TextAssertions.hpp"

namespace vellum {
namespace {

using DeliverySearch::Attempt;
using DeliverySearch::Outcome;
using DeliverySearch::Trial;
using test::startsWith;

constexpr float silent = -std::numeric_limits<float>::infinity();

// A programme as its figures, and what a rendering makes of them. A limiter takes what the gain lifts the
// true peak above its ceiling. Of each dB that it takes, the loudness loses a share, which grows; and the
// peak comes out over the ceiling by another share.
struct Programme {
  LoudnessMeasurement figures;
  double loss = 0, lossGrowth = 0, overshoot = 0;
  double peakNoiseDB = 0;  // what dither adds to the true peak

  Trial rendered(const Attempt& attempt) const {
    LoudnessMeasurement after = figures;
    double reduction = 0;
    double truePeak = after.truePeakDBTP + attempt.gainDB;
    if (attempt.limiterCeilingDBTP) {
      reduction = std::max(0.0, truePeak - *attempt.limiterCeilingDBTP);
      truePeak = std::min(truePeak, *attempt.limiterCeilingDBTP) + overshoot * reduction;
    }
    const auto gain =
        static_cast<float>(attempt.gainDB - loss * reduction - lossGrowth * reduction * reduction);
    after.integratedLUFS += gain;
    after.dialogGatedLUFS += gain;
    for (auto* level : {&after.noiseFloorDBRMS, &after.maxShortTermLUFS, &after.rmsDBFS})
      if (*level) **level += gain;
    after.truePeakDBTP = static_cast<float>(truePeak + peakNoiseDB);
    return {after, reduction};
  }
};

Outcome search(const LoudnessTarget& target, const Programme& programme, double maxReductionDB = 6) {
  const auto outcome =
      DeliverySearch::run({target, maxReductionDB}, programme.figures,
                          [&](const Attempt& attempt) { return std::optional(programme.rendered(attempt)); });
  EXPECT_TRUE(outcome);
  return outcome.value_or(Outcome{});
}

LoudnessTarget builtIn(const std::string& id) {
  return *LoudnessTargetCatalog::target(id);
}

LoudnessTarget custom(float reference, float tolerance, float ceiling,
                      std::vector<ExtraCriterion> extraCriteria = {}) {
  return {"custom.x",
          "X",
          LoudnessTargetMode::broadcast,
          LoudnessSource::integrated,
          {LoudnessTreatment::Compliance{reference, tolerance, ceiling}},
          std::move(extraCriteria)};
}

// --- When a target is met

TEST(DeliverySearch, ANormalisingTargetIsMetWithinATenthOfItsReference) {
  const LoudnessTarget target = builtIn("music.appleMusic");  // -16, turns down only
  const auto isMet = [&](float integrated, float truePeak) {
    return DeliverySearch::isMet(target, {integrated, silent, truePeak, {}, {}, {}});
  };
  EXPECT_TRUE(isMet(-16, -1));
  EXPECT_TRUE(isMet(-16.09f, -3));
  EXPECT_TRUE(isMet(-15.91f, -3));
  EXPECT_FALSE(isMet(-16.11f, -3));
  EXPECT_FALSE(isMet(-15.89f, -3));
  EXPECT_FALSE(isMet(-16, -0.99f));
  EXPECT_FALSE(isMet(silent, silent));
}

TEST(DeliverySearch, AComplianceTargetIsMetWhereItsVerdictIsCompliant) {
  const LoudnessTarget target = builtIn("broadcast.ebuR128S1");
  EXPECT_TRUE(DeliverySearch::isMet(target, {-23.1f, silent, -1, {}, -18.0f, {}}));
  EXPECT_FALSE(DeliverySearch::isMet(target, {-23.3f, silent, -1, {}, -18.0f, {}}));
  EXPECT_FALSE(DeliverySearch::isMet(target, {-23.1f, silent, -1, {}, -17.9f, {}}));
}

// --- Gain alone

TEST(DeliverySearch, AGainTakesTheJudgedFigureToTheReferenceInOneRound) {
  const Programme programme{{-20, -18, -12, -70.0f, -17.0f, -22.0f}};
  struct Case {
    std::string id;
    double gainDB;
  };
  for (const Case& one : {Case{"music.spotify", 6}, Case{"broadcast.ebuR128", -3}, Case{"podcast.apple", 2},
                          Case{"vod.netflix", -9}, Case{"podcast.acx", 1.5}}) {
    const Outcome outcome = search(builtIn(one.id), programme);
    EXPECT_FALSE(outcome.obstacle) << one.id;
    ASSERT_EQ(outcome.rounds.size(), 1u) << one.id;
    EXPECT_NEAR(outcome.rounds[0].attempt.gainDB, one.gainDB, 1e-5) << one.id;
    EXPECT_FALSE(outcome.rounds[0].attempt.limiterCeilingDBTP) << one.id;
  }
}

TEST(DeliverySearch, AProgrammeAtItsReferenceIsLeftAsItIs) {
  const Outcome outcome = search(builtIn("broadcast.ebuR128"), {{-23.04f, silent, -3, {}, {}, {}}});
  ASSERT_EQ(outcome.rounds.size(), 1u);
  EXPECT_EQ(outcome.rounds[0].attempt.gainDB, 0);
  EXPECT_FALSE(outcome.rounds[0].attempt.limiterCeilingDBTP);
}

// With a tolerance below what is left alone, a second round does it.
TEST(DeliverySearch, ASmallToleranceStillGetsItsGain) {
  const Outcome outcome = search(custom(-23, 0.01f, -1), {{-23.04f, silent, -3, {}, {}, {}}});
  EXPECT_FALSE(outcome.obstacle);
  ASSERT_EQ(outcome.rounds.size(), 2u);
  EXPECT_NEAR(outcome.rounds[1].attempt.gainDB, 0.04, 1e-5);
}

TEST(DeliverySearch, APeakExactlyAtTheCeilingNeedsNoLimiter) {
  const Outcome outcome = search(builtIn("music.spotify"), {{-20, silent, -7, {}, {}, {}}});
  ASSERT_EQ(outcome.rounds.size(), 1u);
  EXPECT_FALSE(outcome.rounds[0].attempt.limiterCeilingDBTP);
  EXPECT_EQ(outcome.rounds[0].trial.figures.truePeakDBTP, -1);
}

TEST(DeliverySearch, DitherThatLiftsThePeakOverTheCeilingBringsTheLimiter) {
  const Programme programme{.figures = {-20, silent, -7, {}, {}, {}}, .peakNoiseDB = 0.01};
  const Outcome outcome = search(builtIn("music.spotify"), programme);
  EXPECT_FALSE(outcome.obstacle);
  ASSERT_EQ(outcome.rounds.size(), 2u);
  EXPECT_TRUE(outcome.rounds[1].attempt.limiterCeilingDBTP);
}

// --- Limiting

// The model's best: at full drive the peak stands at the ceiling, and the figure this near to it.
double loudestWith(const Programme& programme, double ceiling, double reduction) {
  return ceiling + programme.figures.integratedLUFS - programme.figures.truePeakDBTP + reduction -
         programme.loss * reduction - programme.lossGrowth * reduction * reduction -
         programme.overshoot * reduction;
}

TEST(DeliverySearch, FindsGainAndCeilingTogetherWhateverTheLimiterEats) {
  constexpr double maxReductionDB = 12;
  int met = 0, refused = 0;
  for (unsigned seed = 0; seed < 2000; ++seed) {
    SCOPED_TRACE(testing::Message() << "seed " << seed);
    std::mt19937 rng(seed);
    const auto level = [&](double low, double high) {
      return static_cast<float>(test::uniform(rng, low, high));
    };
    // Even at 12 dB a dB of gain brings a quarter dB at least.
    const Programme programme{.figures = {level(-30, -8), silent, level(-12, 1), {}, {}, {}},
                              .loss = test::uniform(rng, 0, 0.3),
                              .lossGrowth = test::uniform(rng, 0, 0.014),
                              .overshoot = test::uniform(rng, 0, 0.1)};
    const LoudnessTarget target = custom(level(-20, -8), 0.1f, level(-3, 0));
    const auto& rule = std::get<LoudnessTreatment::Compliance>(target.treatment.value);
    const double spare = loudestWith(programme, rule.truePeakCeilingDBTP, maxReductionDB) -
                         (rule.referenceLUFS - rule.toleranceLU);
    if (std::abs(spare) < 0.1) continue;  // what is kept for rounding decides

    const Outcome outcome = search(target, programme, maxReductionDB);
    EXPECT_EQ(!outcome.obstacle, spare > 0) << outcome.obstacle.value_or("met");
    EXPECT_LE(outcome.rounds.size(), 5u);
    for (const auto& round : outcome.rounds) EXPECT_LE(round.trial.reductionDB, maxReductionDB);
    if (outcome.obstacle) {
      EXPECT_TRUE(startsWith(*outcome.obstacle, "the true peak is in the way: "));
      ++refused;
    } else {
      EXPECT_TRUE(DeliverySearch::isMet(target, outcome.rounds.back().trial.figures));
      ++met;
    }
  }
  EXPECT_GT(met, 500);
  EXPECT_GT(refused, 100);
}

// 13 dB up put the peak 7 dB over the ceiling: with 6 dB to take, not even a limiter without losses helps.
TEST(DeliverySearch, WhatNoLimiterCanHoldIsRefusedBeforeAnythingIsRendered) {
  int trials = 0;
  const auto outcome = DeliverySearch::run({builtIn("music.spotify"), 6}, {-27, silent, -7, {}, {}, {}},
                                           [&](const Attempt&) -> std::optional<Trial> {
                                             ++trials;
                                             return {};
                                           });
  ASSERT_TRUE(outcome);
  EXPECT_EQ(trials, 0);
  EXPECT_TRUE(outcome->rounds.empty());
  EXPECT_EQ(
      outcome->obstacle,
      "the true peak is in the way: holding it at -1 dBTP with no more than 6.0 dB of limiting leaves no "
      "gain that takes the loudness to -14 ±0.1 LUFS");
}

// A lossless limiter would just do; this one loses a tenth.
TEST(DeliverySearch, WhatTheLimiterEatsCanMakeATargetImpossible) {
  const Programme programme{.figures = {-26, silent, -7, {}, {}, {}}, .loss = 0.1};
  const Outcome outcome = search(builtIn("music.spotify"), programme, 6);
  ASSERT_TRUE(outcome.obstacle);
  EXPECT_TRUE(startsWith(*outcome.obstacle, "the true peak is in the way: "));
  EXPECT_GE(outcome.rounds.size(), 1u);
  for (const auto& round : outcome.rounds) EXPECT_LE(round.trial.reductionDB, 6.0);
}

// Inside the tolerance there is a gain that needs no more than the allowed 2 dB.
TEST(DeliverySearch, TheToleranceIsUsedWhereTheReferenceWouldTakeTooMuchLimiting) {
  const Outcome outcome = search(builtIn("vod.netflix"), {{-30, -30, -4, {}, {}, {}}}, 0);
  EXPECT_FALSE(outcome.obstacle) << *outcome.obstacle;  // -27 would need 1 dB, -28 none
  EXPECT_EQ(outcome.rounds.back().trial.reductionDB, 0);
  EXPECT_GT(outcome.rounds.back().trial.figures.dialogGatedLUFS, -28.1f);
}

// --- Extra criteria

// RMS -20.5 +- 2.5 with the noise floor at -60 or below: 1.5 dB would be wanted, and 1 is left.
TEST(DeliverySearch, ANoiseFloorPullsTheGainBelowTheReference) {
  const Programme programme{{-20, -18, -12, -61.0f, -17.0f, -22.0f}};
  const Outcome outcome = search(builtIn("podcast.acx"), programme);
  EXPECT_FALSE(outcome.obstacle);
  EXPECT_NEAR(outcome.rounds.back().attempt.gainDB, 1.0, 0.05);
  EXPECT_LE(*outcome.rounds.back().trial.figures.noiseFloorDBRMS, -60);
}

TEST(DeliverySearch, AMaximumShortTermPullsTheGainBelowTheReference) {
  const LoudnessTarget target = custom(-23, 2, -1, {{ExtraCriterion::MaxShortTerm{-18}}});
  const Outcome outcome = search(target, {{-23, silent, -12, {}, -16.8f, {}}});
  EXPECT_FALSE(outcome.obstacle);
  EXPECT_NEAR(outcome.rounds.back().attempt.gainDB, -1.2, 0.05);
  EXPECT_LE(*outcome.rounds.back().trial.figures.maxShortTermLUFS, -18);
}

// Both ends of the window are respected where only a hundredth of a dB lies between them.
TEST(DeliverySearch, ANarrowWindowIsHit) {
  const LoudnessTarget target = custom(-23, 0.5f, -1, {{ExtraCriterion::MaxShortTerm{-18}}});
  const Outcome outcome = search(target, {{-23, silent, -12, {}, -17.51f, {}}});
  EXPECT_FALSE(outcome.obstacle) << *outcome.obstacle;
  EXPECT_NEAR(outcome.rounds.back().attempt.gainDB, -0.495, 0.005);
}

TEST(DeliverySearch, ThePickiestCriterionDecides) {
  const LoudnessTarget target = custom(-23, 3, -1,
                                       {{ExtraCriterion::MaxShortTerm{-18}},
                                        {ExtraCriterion::NoiseFloor{-60}},
                                        {ExtraCriterion::MaxShortTerm{-17}}});
  const Outcome outcome = search(target, {{-23, silent, -12, -58.0f, -17.0f, {}}});
  EXPECT_FALSE(outcome.obstacle);
  EXPECT_NEAR(outcome.rounds.back().attempt.gainDB, -2.0, 0.05);
}

TEST(DeliverySearch, ACriterionAgainstTheToleranceIsNamedWithItsFigures) {
  EXPECT_EQ(
      search(builtIn("podcast.acx"), {{-20, -18, -12, -50.0f, -17.0f, -22.0f}}).obstacle,
      "the noise floor is in the way: taking it from -50.0 to its ceiling of -60 dB RMS takes the RMS to "
      "-32.0 dB RMS, outside of -20.5 ±2.5");
  EXPECT_EQ(search(builtIn("broadcast.ebuR128S1"), {{-23, silent, -12, {}, -16.0f, {}}}).obstacle,
            "the maximum short-term loudness is in the way: taking it from -16.0 to its ceiling of -18 LUFS "
            "takes the loudness to -25.0 LUFS, outside of -23 ±0.2");
}

TEST(DeliverySearch, AFigureThatWasNotMeasuredIsNoCriterion) {
  for (const std::optional<float> shortTerm :
       {std::optional<float>(), std::optional(std::numeric_limits<float>::infinity()),
        std::optional(std::numeric_limits<float>::quiet_NaN())}) {
    const Outcome outcome = search(builtIn("broadcast.ebuR128S1"), {{-20, silent, -12, {}, shortTerm, {}}});
    EXPECT_FALSE(outcome.obstacle);
    EXPECT_EQ(outcome.rounds.size(), 1u);
  }
}

// A normalising outlet ignores extra criteria in its verdict; a delivery keeps them.
TEST(DeliverySearch, ANormalisingTargetsCriteriaHoldToo) {
  LoudnessTarget target = builtIn("music.spotify");
  target.extraCriteria = {{ExtraCriterion::MaxShortTerm{-13.95f}}};
  const Programme programme{{-14, silent, -12, {}, -13.9f, {}}};
  EXPECT_FALSE(DeliverySearch::isMet(target, programme.figures));
  const Outcome outcome = search(target, programme);
  EXPECT_FALSE(outcome.obstacle);
  EXPECT_LE(*outcome.rounds.back().trial.figures.maxShortTermLUFS, -13.95f);
}

// --- What cannot be searched

TEST(DeliverySearch, WithoutSpeechADialogueTargetIsRefusedInTheSystemsWords) {
  const Outcome outcome = search(builtIn("vod.netflix"), {{-20, silent, -3, {}, {}, {}}});
  EXPECT_TRUE(outcome.rounds.empty());
  EXPECT_EQ(outcome.obstacle,
            "Dialog-gated targets need detected speech.\n"
            "This file has no detected speech, so the verdict is unavailable.");
}

TEST(DeliverySearch, SilenceHasNoReading) {
  EXPECT_EQ(search(builtIn("music.spotify"), {{silent, silent, silent, {}, {}, {}}}).obstacle,
            "Loudness reading not available yet.");
}

TEST(DeliverySearch, AFigureThatVanishesMeanwhileIsAnObstacle) {
  const auto outcome =
      DeliverySearch::run({builtIn("vod.netflix"), 6}, {-20, -20, -10, {}, {}, {}}, [](const Attempt&) {
        return std::optional(Trial{{-27, silent, -17, {}, {}, {}}, 0});
      });
  ASSERT_TRUE(outcome && outcome->obstacle);
  EXPECT_TRUE(startsWith(*outcome->obstacle, "Dialog-gated targets need detected speech."));
  EXPECT_EQ(outcome->rounds.size(), 1u);
}

TEST(DeliverySearch, GivesUpAfterEightRounds) {
  const auto outcome = DeliverySearch::run({builtIn("broadcast.ebuR128"), 6}, {-20, silent, -10, {}, {}, {}},
                                           [](const Attempt&) {
                                             return std::optional(Trial{{-25, silent, -10, {}, {}, {}}, 0});
                                           });
  ASSERT_TRUE(outcome);
  EXPECT_EQ(outcome->rounds.size(), 8u);
  EXPECT_EQ(outcome->obstacle,
            "not met within 8 rounds. Not compliant: Loudness -2.0 LU off target.\n"
            "Loudness -25.0 LUFS ✗ (target -23 ±0.5).\n"
            "True Peak -10.0 dBTP ✓ (ceiling -1 dBTP).");
}

TEST(DeliverySearch, AnInterruptionHasNoOutcome) {
  for (const int interruptedRound : {1, 2}) {
    int round = 0;
    const auto outcome = DeliverySearch::run(
        {builtIn("broadcast.ebuR128"), 6}, {-20, silent, -10, {}, {}, {}}, [&](const Attempt&) {
          return ++round == interruptedRound ? std::nullopt
                                             : std::optional(Trial{{-25, silent, -10, {}, {}, {}}, 0});
        });
    EXPECT_FALSE(outcome);
    EXPECT_EQ(round, interruptedRound);
  }
}

TEST(DeliverySearch, AnAbsurdGainIsRefused) {
  EXPECT_EQ(search(custom(500, 1, 600), {{-20, silent, -10, {}, {}, {}}}).obstacle,
            "it takes a gain of +520.0 dB, and at most 200 dB are possible");
  EXPECT_EQ(search(custom(-500, 1, 0), {{-20, silent, -10, {}, {}, {}}}).obstacle,
            "it takes a gain of -480.0 dB, and at most 200 dB are possible");
}

// The speech gate may jump by half an LU from one gain to the next.
TEST(DeliverySearch, AJumpingFigureIsStillMet) {
  const Programme programme{.figures = {-20, -20, -2, {}, {}, {}}, .loss = 0.2, .overshoot = 0.05};
  for (double jumpAtDB = 4; jumpAtDB < 5.5; jumpAtDB += 0.1) {
    const auto outcome =
        DeliverySearch::run({builtIn("podcast.apple"), 6}, programme.figures, [&](const Attempt& attempt) {
          Trial trial = programme.rendered(attempt);
          if (attempt.gainDB > jumpAtDB) trial.figures.dialogGatedLUFS += 0.5f;
          return std::optional(trial);
        });
    ASSERT_TRUE(outcome);
    // At the jump itself no gain comes near enough: the figure leaps over the reference.
    const bool leaps = jumpAtDB > 4.2 && jumpAtDB < 4.8;
    if (leaps) continue;
    EXPECT_FALSE(outcome->obstacle) << jumpAtDB << ": " << *outcome->obstacle;
  }
}

}  // namespace
}  // namespace vellum
