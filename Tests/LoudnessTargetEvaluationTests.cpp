#include "VellumCore/LoudnessTargetEvaluation.hpp"

#include <gtest/gtest.h>

#include <array>
#include <bit>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <functional>
#include <limits>
#include <optional>
#include <random>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "Support/CommaLocale.hpp"

namespace vellum {
namespace {

using LoudnessTargetEvaluator::evaluate;
using LoudnessTargetEvaluator::tooltipText;

constexpr float infinity = std::numeric_limits<float>::infinity();
constexpr float notANumber = std::numeric_limits<float>::quiet_NaN();

const LoudnessTarget& builtIn(std::string_view id) {
  return *LoudnessTargetCatalog::target(id);
}

// Figures that no built-in target finds fault with, apart from the loudness.
LoudnessMeasurement measured(float loudness, float truePeak) {
  return {.integratedLUFS = loudness,
          .dialogGatedLUFS = loudness,
          .truePeakDBTP = truePeak,
          .noiseFloorDBRMS = -70.0f,
          .maxShortTermLUFS = -20.0f,
          .rmsDBFS = loudness};
}

std::string tooltip(const LoudnessTarget& target, const LoudnessMeasurement& measurement) {
  return tooltipText(evaluate(target, measurement), measurement);
}

template <typename Case>
const Case& as(const LoudnessTargetEvaluation& evaluation) {
  return std::get<Case>(evaluation.verdict.value);
}

template <typename... Numbers>
std::string printed(const char* format, Numbers... numbers) {
  std::array<char, 512> text{};
  std::snprintf(text.data(), text.size(), format, numbers...);
  return text.data();
}

// ---- Programme RMS

float programRMS(const std::vector<float>& levels) {
  return LoudnessMeasurement::programRMSDBFS(levels);
}

TEST(ProgramRMS, IsTheMeanPowerOfTheChannelsThatAreNotSilent) {
  EXPECT_EQ(programRMS({-20, -20}), -20.0f);
  EXPECT_EQ(programRMS({-20, -infinity}), -20.0f);
  EXPECT_EQ(programRMS({}), -infinity);
  EXPECT_EQ(programRMS({-infinity, notANumber, infinity}), -infinity);
  EXPECT_EQ(programRMS({notANumber, -20, infinity, -20}), -20.0f);
  // (1 + 0.1) / 2 = 0.55: -2.596373 dB
  EXPECT_FLOAT_EQ(programRMS({0, -10}), -2.5963731f);
}

TEST(ProgramRMS, AddsIn64BitsInOrder) {
  std::mt19937 rng(31);
  for (int trial = 0; trial < 200; ++trial) {
    std::vector<float> levels(1 + rng() % 8);
    double sum = 0;
    for (float& level : levels) {
      level = static_cast<float>(rng()) / 4294967296.0f * -100.0f;
      sum += std::pow(10.0, static_cast<double>(level) / 10.0);
    }
    EXPECT_EQ(programRMS(levels),
              static_cast<float>(10.0 * std::log10(sum / static_cast<double>(levels.size()))));
  }
}

// ---- Verdicts

TEST(LoudnessTargetEvaluation, ANormalisingServiceTurnsALoudFileDown) {
  const auto measurement = measured(-9.5f, -0.5f);
  const auto evaluation = evaluate(builtIn("music.spotify"), measurement);
  EXPECT_EQ(evaluation.target, builtIn("music.spotify"));
  EXPECT_EQ(evaluation.actualLUFS, -9.5f);
  EXPECT_EQ(as<LoudnessVerdict::Penalty>(evaluation),
            (LoudnessVerdict::Penalty{-4.5f, true, -0.5f, -1, false}));
  EXPECT_EQ(tooltipText(evaluation, measurement),
            "Spotify will turn down this by 4.5 dB to hit the -14 LUFS reference.\n"
            "True Peak -0.5 dBTP exceeds the -1 dBTP ceiling.");
}

TEST(LoudnessTargetEvaluation, ASymmetricServiceTurnsAQuietFileUp) {
  const auto measurement = measured(-18.25f, -6);
  const auto evaluation = evaluate(builtIn("music.spotify"), measurement);
  EXPECT_EQ(as<LoudnessVerdict::Penalty>(evaluation), (LoudnessVerdict::Penalty{4.25f, true, -6, -1, true}));
  EXPECT_EQ(tooltipText(evaluation, measurement),
            "Spotify will turn up this by 4.2 dB to hit the -14 LUFS reference.\n"  // 4.25: to the even digit
            "True Peak -6.0 dBTP within the -1 dBTP ceiling.");
}

TEST(LoudnessTargetEvaluation, AServiceThatOnlyTurnsDownLeavesAQuietFileAlone) {
  const auto measurement = measured(-20, 0.5f);
  const auto evaluation = evaluate(builtIn("music.appleMusic"), measurement);
  EXPECT_EQ(as<LoudnessVerdict::Penalty>(evaluation), (LoudnessVerdict::Penalty{4, false, 0.5f, -1, false}));
  EXPECT_EQ(tooltipText(evaluation, measurement),
            "Apple Music does not boost quieter masters.\n"
            "File plays as recorded (-20.0 LUFS), 4.0 dB under the -16 LUFS reference.");
}

TEST(LoudnessTargetEvaluation, AServiceThatOnlyTurnsDownTurnsALoudFileDown) {
  EXPECT_EQ(tooltip(builtIn("music.appleMusic"), measured(-10, -2)),
            "Apple Music will turn down this by 6.0 dB to hit the -16 LUFS reference.\n"
            "True Peak -2.0 dBTP within the -1 dBTP ceiling.");
}

TEST(LoudnessTargetEvaluation, AGainOfExactlyZeroAppliesAndSaysUp) {
  for (const char* id : {"music.spotify", "music.youtube"}) {
    const auto measurement = measured(-14, -1);
    const auto evaluation = evaluate(builtIn(id), measurement);
    EXPECT_EQ(as<LoudnessVerdict::Penalty>(evaluation), (LoudnessVerdict::Penalty{0, true, -1, -1, true}));
    EXPECT_EQ(tooltipText(evaluation, measurement),
              builtIn(id).name +
                  " will turn up this by 0.0 dB to hit the -14 LUFS reference.\n"
                  "True Peak -1.0 dBTP within the -1 dBTP ceiling.");
  }
}

TEST(LoudnessTargetEvaluation, ADialogueGatedServiceSpeaksOfLKFS) {
  LoudnessMeasurement measurement = measured(-18, -3);
  measurement.integratedLUFS = -2;  // not what it judges
  EXPECT_EQ(tooltip(builtIn("podcast.spotify"), measurement),
            "Spotify (Podcast) will turn up this by 4.0 dB to hit the -14 LKFS reference.\n"
            "True Peak -3.0 dBTP within the -1 dBTP ceiling.");
  EXPECT_EQ(tooltip(builtIn("podcast.apple"), measurement),
            "Apple Podcasts does not boost quieter masters.\n"
            "File plays as recorded (-18.0 LKFS), 2.0 dB under the -16 LKFS reference.");
}

TEST(LoudnessTargetEvaluation, ANormalisingServiceMayJudgeRMS) {
  LoudnessTarget target = builtIn("music.spotify");
  target.source = LoudnessSource::rms;
  LoudnessMeasurement measurement = measured(-2, -3);
  measurement.rmsDBFS = -20.0f;
  EXPECT_EQ(evaluate(target, measurement).actualLUFS, -20.0f);
  EXPECT_EQ(tooltip(target, measurement),
            "Spotify will turn up this by 6.0 dB to hit the -14 dB RMS reference.\n"
            "True Peak -3.0 dBTP within the -1 dBTP ceiling.");
}

TEST(LoudnessTargetEvaluation, ANormalisingServiceNeverRefuses) {
  LoudnessTarget target = builtIn("music.spotify");
  target.extraCriteria = {{ExtraCriterion::NoiseFloor{-90}}, {ExtraCriterion::MaxShortTerm{-90}}};
  const auto measurement = measured(-1, 5);
  EXPECT_TRUE(std::holds_alternative<LoudnessVerdict::Penalty>(evaluate(target, measurement).verdict.value));
  EXPECT_EQ(tooltip(target, measurement),  // and says nothing of further criteria
            "Spotify will turn down this by 13.0 dB to hit the -14 LUFS reference.\n"
            "True Peak 5.0 dBTP exceeds the -1 dBTP ceiling.");
}

TEST(LoudnessTargetEvaluation, ATruePeakThatIsNotFiniteIsCleanAndNotMeasured) {
  for (const float truePeak : {infinity, -infinity, notANumber}) {
    const auto measurement = measured(-14, truePeak);
    EXPECT_TRUE(as<LoudnessVerdict::Penalty>(evaluate(builtIn("music.spotify"), measurement)).truePeakClean);
    EXPECT_EQ(tooltip(builtIn("music.spotify"), measurement),
              "Spotify will turn up this by 0.0 dB to hit the -14 LUFS reference.\nTrue Peak not measured.");
  }
}

TEST(LoudnessTargetEvaluation, AnOutletThatRefusesPassesItsOwnReference) {
  const auto measurement = measured(-23, -1);
  const auto evaluation = evaluate(builtIn("broadcast.ebuR128"), measurement);
  EXPECT_EQ(as<LoudnessVerdict::Compliant>(evaluation), (LoudnessVerdict::Compliant{-1, -1, true}));
  EXPECT_EQ(tooltipText(evaluation, measurement),
            "Compliant.\n"
            "Loudness -23.0 LUFS ✓ (target -23 ±0.5).\n"
            "True Peak -1.0 dBTP ✓ (ceiling -1 dBTP).");
}

TEST(LoudnessTargetEvaluation, TheEdgeOfTheTolerancePasses) {
  for (const float edge : {-23.5f, -22.5f}) {
    EXPECT_TRUE(std::holds_alternative<LoudnessVerdict::Compliant>(
        evaluate(builtIn("broadcast.ebuR128"), measured(edge, -2)).verdict.value));
    const float beyond = std::nextafter(edge, edge < -23 ? -100.0f : 0.0f);
    EXPECT_TRUE(std::holds_alternative<LoudnessVerdict::NotCompliant>(
        evaluate(builtIn("broadcast.ebuR128"), measured(beyond, -2)).verdict.value));
  }
}

TEST(LoudnessTargetEvaluation, BeyondTheToleranceTheLoudnessIsRefused) {
  const auto measurement = measured(-23.6f, -2);
  const auto evaluation = evaluate(builtIn("broadcast.ebuR128"), measurement);
  EXPECT_EQ(as<LoudnessVerdict::NotCompliant>(evaluation).reason,
            (NonComplianceReason{NonComplianceReason::Loudness{-23.6f, -23, 0.5f}}));
  EXPECT_EQ(tooltipText(evaluation, measurement),
            "Not compliant: Loudness -0.6 LU off target.\n"
            "Loudness -23.6 LUFS ✗ (target -23 ±0.5).\n"
            "True Peak -2.0 dBTP ✓ (ceiling -1 dBTP).");
}

TEST(LoudnessTargetEvaluation, ALoudFileIsOffTargetWithAPlus) {
  EXPECT_EQ(tooltip(builtIn("vod.netflix"), measured(-20, -3)),
            "Not compliant: Loudness +7.0 LU off target.\n"
            "Loudness -20.0 LKFS ✗ (target -27 ±2).\n"
            "True Peak -3.0 dBTP ✓ (ceiling -2 dBTP).");
}

// -23.2f lies 0.2000008 from -23, beyond 0.2f.
TEST(LoudnessTargetEvaluation, ToleranceIsJudgedIn32Bits) {
  const LoudnessTarget& target = builtIn("broadcast.ebuR128S1");
  const auto measurement = measured(-23.2f, -2);
  EXPECT_EQ(as<LoudnessVerdict::NotCompliant>(evaluate(target, measurement)).reason,
            (NonComplianceReason{NonComplianceReason::Loudness{-23.2f, -23, 0.2f}}));
  EXPECT_EQ(tooltip(target, measurement),
            "Not compliant: Loudness -0.2 LU off target.\n"
            "Loudness -23.2 LUFS ✗ (target -23 ±0.2).\n"
            "True Peak -2.0 dBTP ✓ (ceiling -1 dBTP).\n"
            "Max Short-term -20.0 LUFS ✓ (ceiling -18 LUFS).");

  // 0.3f lies 23.300000012 from -23, which is rounded to the tolerance itself.
  LoudnessTarget user = target;
  user.treatment = {LoudnessTreatment::Compliance{-23, 23.3f, -1}};
  EXPECT_TRUE(
      std::holds_alternative<LoudnessVerdict::Compliant>(evaluate(user, measured(0.3f, -2)).verdict.value));
  // 33554435 is no 32-bit number.
  user.treatment = {LoudnessTreatment::Compliance{1, 0, 0}};
  const std::string text = tooltip(user, measured(33554436, -2));
  EXPECT_EQ(text.substr(0, text.find('\n')), "Not compliant: Loudness +33554436.0 LU off target.");
}

TEST(LoudnessTargetEvaluation, ATruePeakAboveTheCeilingIsRefused) {
  const auto measurement = measured(-23, -0.25f);
  const auto evaluation = evaluate(builtIn("broadcast.ebuR128"), measurement);
  EXPECT_EQ(as<LoudnessVerdict::NotCompliant>(evaluation).reason,
            (NonComplianceReason{NonComplianceReason::TruePeak{-0.25f, -1}}));
  EXPECT_EQ(tooltipText(evaluation, measurement),
            "Not compliant: True Peak exceeds the ceiling by 0.8 dB.\n"  // 0.75: to the even digit
            "Loudness -23.0 LUFS ✓ (target -23 ±0.5).\n"
            "True Peak -0.2 dBTP ✗ (ceiling -1 dBTP).");
}

TEST(LoudnessTargetEvaluation, LoudnessIsRefusedBeforeTruePeakAndThatBeforeFurtherCriteria) {
  LoudnessMeasurement measurement = measured(-30, 0);
  measurement.noiseFloorDBRMS = -50.0f;
  EXPECT_EQ(tooltip(builtIn("podcast.acx"), measurement),
            "Not compliant: RMS -9.5 dB off target.\n"
            "RMS -30.0 dB RMS ✗ (target -20 ±2.5).\n"  // -20.5: to the even digit
            "True Peak 0.0 dBTP ✓ (ceiling -3 dBTP).\n"
            "Noise floor -50.0 dB RMS ✓ (ceiling -60 dB).");
  measurement.rmsDBFS = -20.5f;
  EXPECT_EQ(tooltip(builtIn("podcast.acx"), measurement),
            "Not compliant: True Peak exceeds the ceiling by 3.0 dB.\n"
            "RMS -20.5 dB RMS ✓ (target -20 ±2.5).\n"
            "True Peak 0.0 dBTP ✗ (ceiling -3 dBTP).\n"
            "Noise floor -50.0 dB RMS ✓ (ceiling -60 dB).");
}

TEST(LoudnessTargetEvaluation, AMissingTruePeakHasNoLineWhereAnOutletRefuses) {
  for (const float truePeak : {infinity, -infinity, notANumber}) {
    EXPECT_EQ(tooltip(builtIn("broadcast.ebuR128"), measured(-23, truePeak)),
              "Compliant.\nLoudness -23.0 LUFS ✓ (target -23 ±0.5).");
    EXPECT_EQ(tooltip(builtIn("broadcast.ebuR128"), measured(-26, truePeak)),
              "Not compliant: Loudness -3.0 LU off target.\nLoudness -26.0 LUFS ✗ (target -23 ±0.5).");
  }
}

TEST(LoudnessTargetEvaluation, ANoisyAudiobookIsRefused) {
  LoudnessMeasurement measurement = measured(-20, -4);
  measurement.noiseFloorDBRMS = -55.0f;
  const auto evaluation = evaluate(builtIn("podcast.acx"), measurement);
  EXPECT_EQ(as<LoudnessVerdict::NotCompliant>(evaluation).reason,
            (NonComplianceReason{ExtraCriterionFailure{ExtraCriterionFailure::NoiseFloor{-55, -60}}}));
  EXPECT_EQ(tooltipText(evaluation, measurement),
            "Not compliant: noise floor 5.0 dB above the ceiling.\n"
            "RMS -20.0 dB RMS ✓ (target -20 ±2.5).\n"
            "True Peak -4.0 dBTP ✓ (ceiling -3 dBTP).\n"
            "Noise floor -55.0 dB RMS ✗ (ceiling -60 dB).");
}

TEST(LoudnessTargetEvaluation, AQuietAudiobookPasses) {
  LoudnessMeasurement measurement = measured(-20, -4);
  measurement.noiseFloorDBRMS = -60.0f;  // at the ceiling
  EXPECT_EQ(tooltip(builtIn("podcast.acx"), measurement),
            "Compliant.\n"
            "RMS -20.0 dB RMS ✓ (target -20 ±2.5).\n"
            "True Peak -4.0 dBTP ✓ (ceiling -3 dBTP).\n"
            "Noise floor -60.0 dB RMS ✓ (ceiling -60 dB).");
}

TEST(LoudnessTargetEvaluation, ATooLoudMomentIsRefused) {
  LoudnessMeasurement measurement = measured(-23, -2);
  measurement.maxShortTermLUFS = -16.5f;
  const auto evaluation = evaluate(builtIn("broadcast.ebuR128S1"), measurement);
  EXPECT_EQ(as<LoudnessVerdict::NotCompliant>(evaluation).reason,
            (NonComplianceReason{ExtraCriterionFailure{ExtraCriterionFailure::MaxShortTerm{-16.5f, -18}}}));
  EXPECT_EQ(tooltipText(evaluation, measurement),
            "Not compliant: Max Short-term 1.5 LU above the ceiling.\n"
            "Loudness -23.0 LUFS ✓ (target -23 ±0.2).\n"
            "True Peak -2.0 dBTP ✓ (ceiling -1 dBTP).\n"
            "Max Short-term -16.5 LUFS ✗ (ceiling -18 LUFS).");
  measurement.maxShortTermLUFS = -18.0f;  // at the ceiling
  EXPECT_EQ(tooltip(builtIn("broadcast.ebuR128S1"), measurement),
            "Compliant.\n"
            "Loudness -23.0 LUFS ✓ (target -23 ±0.2).\n"
            "True Peak -2.0 dBTP ✓ (ceiling -1 dBTP).\n"
            "Max Short-term -18.0 LUFS ✓ (ceiling -18 LUFS).");
}

TEST(LoudnessTargetEvaluation, FurtherFiguresThatAreMissingPassAndSaySo) {
  for (const std::optional<float> missing :
       {std::optional<float>(), std::optional(notANumber), std::optional(-infinity)}) {
    LoudnessMeasurement measurement = measured(-23, -2);
    measurement.maxShortTermLUFS = missing;
    EXPECT_EQ(tooltip(builtIn("broadcast.ebuR128S1"), measurement),
              "Compliant.\n"
              "Loudness -23.0 LUFS ✓ (target -23 ±0.2).\n"
              "True Peak -2.0 dBTP ✓ (ceiling -1 dBTP).\n"
              "Max Short-term not measured.");
    measurement = measured(-20, -4);
    measurement.noiseFloorDBRMS = missing;
    EXPECT_EQ(tooltip(builtIn("podcast.acx"), measurement),
              "Compliant.\n"
              "RMS -20.0 dB RMS ✓ (target -20 ±2.5).\n"
              "True Peak -4.0 dBTP ✓ (ceiling -3 dBTP).\n"
              "Noise floor not measured.");
  }
}

// The two differ: only the short-term level is asked to be finite.
TEST(LoudnessTargetEvaluation, AnInfiniteNoiseFloorIsRefusedAndAnInfiniteShortTermLevelIsNot) {
  LoudnessMeasurement measurement = measured(-20, -4);
  measurement.noiseFloorDBRMS = infinity;
  const auto evaluation = evaluate(builtIn("podcast.acx"), measurement);
  EXPECT_EQ(as<LoudnessVerdict::NotCompliant>(evaluation).reason,
            (NonComplianceReason{ExtraCriterionFailure{ExtraCriterionFailure::NoiseFloor{infinity, -60}}}));
  EXPECT_EQ(tooltipText(evaluation, measurement),
            "Not compliant: noise floor inf dB above the ceiling.\n"
            "RMS -20.0 dB RMS ✓ (target -20 ±2.5).\n"
            "True Peak -4.0 dBTP ✓ (ceiling -3 dBTP).\n"
            "Noise floor not measured.");
  measurement = measured(-23, -2);
  measurement.maxShortTermLUFS = infinity;
  EXPECT_EQ(tooltip(builtIn("broadcast.ebuR128S1"), measurement),
            "Compliant.\n"
            "Loudness -23.0 LUFS ✓ (target -23 ±0.2).\n"
            "True Peak -2.0 dBTP ✓ (ceiling -1 dBTP).\n"
            "Max Short-term not measured.");
}

TEST(LoudnessTargetEvaluation, OfFurtherCriteriaTheFirstInTheListThatFailsIsTheReason) {
  LoudnessTarget target = builtIn("broadcast.ebuR128");
  LoudnessMeasurement measurement = measured(-23, -2);
  measurement.noiseFloorDBRMS = -50.0f;
  measurement.maxShortTermLUFS = -15.0f;
  target.extraCriteria = {{ExtraCriterion::NoiseFloor{-60}}, {ExtraCriterion::MaxShortTerm{-18}}};
  EXPECT_EQ(tooltip(target, measurement),
            "Not compliant: noise floor 10.0 dB above the ceiling.\n"
            "Loudness -23.0 LUFS ✓ (target -23 ±0.5).\n"
            "True Peak -2.0 dBTP ✓ (ceiling -1 dBTP).\n"
            "Noise floor -50.0 dB RMS ✗ (ceiling -60 dB).\n"
            "Max Short-term -15.0 LUFS ✓ (ceiling -18 LUFS).");
  std::swap(target.extraCriteria[0], target.extraCriteria[1]);
  EXPECT_EQ(tooltip(target, measurement),
            "Not compliant: Max Short-term 3.0 LU above the ceiling.\n"
            "Loudness -23.0 LUFS ✓ (target -23 ±0.5).\n"
            "True Peak -2.0 dBTP ✓ (ceiling -1 dBTP).\n"
            "Max Short-term -15.0 LUFS ✗ (ceiling -18 LUFS).\n"
            "Noise floor -50.0 dB RMS ✓ (ceiling -60 dB).");
}

TEST(LoudnessTargetEvaluation, EveryCriterionOfTheKindThatFailedIsMarked) {
  LoudnessTarget target = builtIn("broadcast.ebuR128");
  target.extraCriteria = {{ExtraCriterion::NoiseFloor{-40}},
                          {ExtraCriterion::MaxShortTerm{-18}},
                          {ExtraCriterion::NoiseFloor{-60}}};
  LoudnessMeasurement measurement = measured(-23, -2);
  measurement.noiseFloorDBRMS = -50.0f;  // the first of the two is met
  const auto evaluation = evaluate(target, measurement);
  EXPECT_EQ(as<LoudnessVerdict::NotCompliant>(evaluation).reason,
            (NonComplianceReason{ExtraCriterionFailure{ExtraCriterionFailure::NoiseFloor{-50, -60}}}));
  EXPECT_EQ(tooltipText(evaluation, measurement),
            "Not compliant: noise floor 10.0 dB above the ceiling.\n"
            "Loudness -23.0 LUFS ✓ (target -23 ±0.5).\n"
            "True Peak -2.0 dBTP ✓ (ceiling -1 dBTP).\n"
            "Noise floor -50.0 dB RMS ✗ (ceiling -40 dB).\n"
            "Max Short-term -20.0 LUFS ✓ (ceiling -18 LUFS).\n"
            "Noise floor -50.0 dB RMS ✗ (ceiling -60 dB).");
}

TEST(LoudnessTargetEvaluation, WithoutTheJudgedFigureThereIsNoVerdict) {
  const std::string speech =
      "Dialog-gated targets need detected speech.\n"
      "This file has no detected speech, so the verdict is unavailable.";
  const std::string reading = "Loudness reading not available yet.";
  for (const float figure : {-infinity, infinity, notANumber}) {
    const auto measurement = measured(figure, -2);
    for (const LoudnessTarget& target : LoudnessTargetCatalog::all()) {
      const auto evaluation = evaluate(target, measurement);
      EXPECT_EQ(evaluation.verdict, LoudnessVerdict{LoudnessVerdict::Unavailable{}}) << target.id;
      EXPECT_EQ(printed("%g", static_cast<double>(evaluation.actualLUFS)),
                printed("%g", static_cast<double>(figure)));
      EXPECT_EQ(tooltipText(evaluation, measurement),
                target.source == LoudnessSource::dialogGated ? speech : reading);
    }
  }
}

TEST(LoudnessTargetEvaluation, WithoutSpeechADialogueGatedTargetHasNoVerdict) {
  LoudnessMeasurement measurement = measured(-24, -3);
  measurement.dialogGatedLUFS = -infinity;
  EXPECT_EQ(tooltip(builtIn("broadcast.atscA85"), measurement),
            "Dialog-gated targets need detected speech.\n"
            "This file has no detected speech, so the verdict is unavailable.");
}

TEST(LoudnessTargetEvaluation, WithoutRMSAnAudiobookHasNoVerdict) {
  LoudnessMeasurement measurement = measured(-20, -4);
  measurement.rmsDBFS = std::nullopt;
  const auto evaluation = evaluate(builtIn("podcast.acx"), measurement);
  EXPECT_EQ(evaluation.verdict, LoudnessVerdict{LoudnessVerdict::Unavailable{}});
  EXPECT_EQ(evaluation.actualLUFS, -infinity);
  EXPECT_EQ(tooltipText(evaluation, measurement), "Loudness reading not available yet.");
}

// ---- Texts

TEST(LoudnessTargetEvaluation, NegativeZeroIsPrintedAsSuch) {
  LoudnessTarget target = builtIn("broadcast.ebuR128");
  target.treatment = {LoudnessTreatment::Compliance{-0.25f, 1, -0.25f}};
  EXPECT_EQ(tooltip(target, measured(-0.04f, -0.01f)),
            "Not compliant: True Peak exceeds the ceiling by 0.2 dB.\n"
            "Loudness -0.0 LUFS ✓ (target -0 ±1).\n"
            "True Peak -0.0 dBTP ✗ (ceiling -0 dBTP).");
  target.treatment = {LoudnessTreatment::Compliance{0, 0, 0}};
  EXPECT_EQ(tooltip(target, measured(-0.01f, -0.0f)),
            "Not compliant: Loudness -0.0 LU off target.\n"
            "Loudness -0.0 LUFS ✗ (target 0 ±0).\n"
            "True Peak -0.0 dBTP ✓ (ceiling 0 dBTP).");
}

TEST(LoudnessTargetEvaluation, AWholeToleranceHasNoDecimal) {
  const std::vector<std::pair<float, std::string>> tolerances = {
      {0, "0"},         {1, "1"},       {2, "2"},       {0.5f, "0.5"},  {0.2f, "0.2"}, {2.5f, "2.5"},
      {1.04f, "1.0"},   {0.25f, "0.2"}, {0.35f, "0.3"}, {1.96f, "2.0"}, {100, "100"},  {12345678, "12345678"},
      {infinity, "inf"}};
  for (const auto& [tolerance, text] : tolerances) {
    LoudnessTarget target = builtIn("broadcast.ebuR128");
    target.treatment = {LoudnessTreatment::Compliance{-23, tolerance, -1}};
    EXPECT_EQ(tooltip(target, measured(-23, -infinity)),
              "Compliant.\nLoudness -23.0 LUFS ✓ (target -23 ±" + text + ").");
  }
}

TEST(LoudnessTargetEvaluation, ANameIsTakenAsItIs) {
  LoudnessTarget target = builtIn("music.spotify");
  for (const std::string name : {"{} {0} %s %@ %.1f", "", "Café 🔉", "two\nlines", "bad \xFF"}) {
    target.name = name;
    EXPECT_EQ(tooltip(target, measured(-14, -2)),
              name +
                  " will turn up this by 0.0 dB to hit the -14 LUFS reference.\n"
                  "True Peak -2.0 dBTP within the -1 dBTP ceiling.");
  }
}

TEST(LoudnessTargetEvaluation, TheLocaleDoesNotMatter) {
  const auto everyText = [] {
    std::vector<std::string> texts;
    for (const LoudnessTarget& target : LoudnessTargetCatalog::all())
      for (const float truePeak : {-1234.5f, 1234.5f})
        for (const float level : {-1234.5f, 1234.5f, target.treatment.referenceLUFS()}) {
          LoudnessMeasurement measurement = measured(level, truePeak);
          texts.push_back(tooltip(target, measurement));
          measurement.noiseFloorDBRMS = measurement.maxShortTermLUFS = 1234.5f;
          texts.push_back(tooltip(target, measurement));
        }
    return texts;
  };
  const std::vector<std::string> texts = everyText();
  const test::CommaLocale locale;
  if (!locale.isSet()) GTEST_SKIP() << "no locale with a decimal comma";
  EXPECT_EQ(everyText(), texts);
  EXPECT_EQ(tooltip(builtIn("broadcast.ebuR128"), measured(-1234.5f, -0.5f)),
            "Not compliant: Loudness -1211.5 LU off target.\n"
            "Loudness -1234.5 LUFS ✗ (target -23 ±0.5).\n"
            "True Peak -0.5 dBTP ✓ (ceiling -1 dBTP).");
}

// ---- A plain twin of evaluation and texts, written with printf, on figures around every edge

// A plain record for whatever the verdict is; "not a number" compares as text.
std::string described(const LoudnessVerdict& verdict) {
  if (const auto* v = std::get_if<LoudnessVerdict::Penalty>(&verdict.value))
    return printed("penalty %a %d %a %a %d", v->gainDB, v->applies, v->truePeakDBTP, v->ceilingDBTP,
                   v->truePeakClean);
  if (const auto* v = std::get_if<LoudnessVerdict::Compliant>(&verdict.value))
    return printed("compliant %a %a %d", v->truePeakDBTP, v->ceilingDBTP, v->truePeakClean);
  if (const auto* v = std::get_if<LoudnessVerdict::NotCompliant>(&verdict.value)) {
    if (const auto* r = std::get_if<NonComplianceReason::Loudness>(&v->reason.value))
      return printed("loudness %a %a %a", r->actual, r->reference, r->tolerance);
    if (const auto* r = std::get_if<NonComplianceReason::TruePeak>(&v->reason.value))
      return printed("true peak %a %a", r->actual, r->ceiling);
    const auto& extra = std::get<NonComplianceReason::Extra>(v->reason.value).value;
    if (const auto* r = std::get_if<ExtraCriterionFailure::NoiseFloor>(&extra))
      return printed("noise floor %a %a", r->actual, r->ceiling);
    const auto& r = std::get<ExtraCriterionFailure::MaxShortTerm>(extra);
    return printed("short-term %a %a", r.actual, r.ceiling);
  }
  return "unavailable";
}

struct PlainResult {
  std::string verdict, tooltip;
};

PlainResult plainlyEvaluated(const LoudnessTarget& target, const LoudnessMeasurement& m) {
  float actual = m.integratedLUFS;
  std::string unitText = "LUFS", label = "Loudness", delta = "LU";
  if (target.source == LoudnessSource::dialogGated) {
    actual = m.dialogGatedLUFS;
    unitText = "LKFS";
  } else if (target.source == LoudnessSource::rms) {
    actual = m.rmsDBFS ? *m.rmsDBFS : -infinity;
    unitText = "dB RMS";
    label = "RMS";
    delta = "dB";
  }
  const char* const u = unitText.c_str();
  if (!std::isfinite(actual))
    return {"unavailable", target.source == LoudnessSource::dialogGated
                               ? "Dialog-gated targets need detected speech.\nThis file has no detected "
                                 "speech, so the verdict is unavailable."
                               : "Loudness reading not available yet."};
  const float tp = m.truePeakDBTP;
  if (target.treatment.value.index() == 0) {
    const auto rule = std::get<0>(target.treatment.value);
    const float gain = rule.referenceLUFS - actual;
    const bool quiet = gain > 0;
    const bool applies = !quiet || rule.boostBehaviour == BoostBehaviour::symmetric;
    const bool clean = !std::isfinite(tp) || !(tp > rule.truePeakCeilingDBTP);
    const std::string verdict =
        printed("penalty %a %d %a %a %d", gain, applies, tp, rule.truePeakCeilingDBTP, clean);
    if (!applies)
      return {verdict,
              printed("%s does not boost quieter masters.\nFile plays as recorded (%.1f %s), %.1f dB under "
                      "the %.0f %s reference.",
                      target.name.c_str(), actual, u, std::fabs(gain), rule.referenceLUFS, u)};
    std::string text =
        printed("%s will %s this by %.1f dB to hit the %.0f %s reference.\n", target.name.c_str(),
                gain < 0 ? "turn down" : "turn up", std::fabs(gain), rule.referenceLUFS, u);
    if (!std::isfinite(tp))
      text += "True Peak not measured.";
    else if (clean)
      text += printed("True Peak %.1f dBTP within the %.0f dBTP ceiling.", tp, rule.truePeakCeilingDBTP);
    else
      text += printed("True Peak %.1f dBTP exceeds the %.0f dBTP ceiling.", tp, rule.truePeakCeilingDBTP);
    return {verdict, text};
  }

  const auto rule = std::get<1>(target.treatment.value);
  const float off = actual - rule.referenceLUFS;
  enum { nothing, loudness, truePeak, noiseFloor, shortTerm } fault = nothing;
  std::string verdict = printed("compliant %a %a 1", tp, rule.truePeakCeilingDBTP), headline = "Compliant.";
  if (off > rule.toleranceLU || -off > rule.toleranceLU) {
    fault = loudness;
    verdict = printed("loudness %a %a %a", actual, rule.referenceLUFS, rule.toleranceLU);
    headline = printed("Not compliant: %s %+.1f %s off target.", label.c_str(), off, delta.c_str());
  } else if (std::isfinite(tp) && tp > rule.truePeakCeilingDBTP) {
    fault = truePeak;
    verdict = printed("true peak %a %a", tp, rule.truePeakCeilingDBTP);
    headline =
        printed("Not compliant: True Peak exceeds the ceiling by %.1f dB.", tp - rule.truePeakCeilingDBTP);
  } else {
    for (const auto& criterion : target.extraCriteria) {
      if (criterion.value.index() == 0) {
        const float most = std::get<0>(criterion.value).maxDBRMS;
        if (m.noiseFloorDBRMS && *m.noiseFloorDBRMS > most) {
          fault = noiseFloor;
          verdict = printed("noise floor %a %a", *m.noiseFloorDBRMS, most);
          headline =
              printed("Not compliant: noise floor %.1f dB above the ceiling.", *m.noiseFloorDBRMS - most);
          break;
        }
      } else {
        const float most = std::get<1>(criterion.value).maxLUFS;
        if (m.maxShortTermLUFS && std::isfinite(*m.maxShortTermLUFS) && *m.maxShortTermLUFS > most) {
          fault = shortTerm;
          verdict = printed("short-term %a %a", *m.maxShortTermLUFS, most);
          headline =
              printed("Not compliant: Max Short-term %.1f LU above the ceiling.", *m.maxShortTermLUFS - most);
          break;
        }
      }
    }
  }
  const char *const tick = "✓", *const cross = "✗";
  const float t = rule.toleranceLU;
  const std::string tolerance = std::trunc(t) == t ? printed("%.0f", t) : printed("%.1f", t);
  std::string text =
      headline + printed("\n%s %.1f %s %s (target %.0f ±%s).", label.c_str(), actual, u,
                         fault == loudness ? cross : tick, rule.referenceLUFS, tolerance.c_str());
  if (std::isfinite(tp))
    text += printed("\nTrue Peak %.1f dBTP %s (ceiling %.0f dBTP).", tp, fault == truePeak ? cross : tick,
                    rule.truePeakCeilingDBTP);
  for (const auto& criterion : target.extraCriteria) {
    if (criterion.value.index() == 0) {
      text += m.noiseFloorDBRMS && std::isfinite(*m.noiseFloorDBRMS)
                  ? printed("\nNoise floor %.1f dB RMS %s (ceiling %.0f dB).", *m.noiseFloorDBRMS,
                            fault == noiseFloor ? cross : tick, std::get<0>(criterion.value).maxDBRMS)
                  : "\nNoise floor not measured.";
    } else {
      text += m.maxShortTermLUFS && std::isfinite(*m.maxShortTermLUFS)
                  ? printed("\nMax Short-term %.1f LUFS %s (ceiling %.0f LUFS).", *m.maxShortTermLUFS,
                            fault == shortTerm ? cross : tick, std::get<1>(criterion.value).maxLUFS)
                  : "\nMax Short-term not measured.";
    }
  }
  return {verdict, text};
}

// Levels close to `centre` and on halves of a tenth, where printf's rounding and the rules' edges lie; now
// and then one that is far away or not finite.
class Levels {
 public:
  explicit Levels(std::uint32_t seed) : rng_(seed) {}

  std::uint32_t below(std::uint32_t n) { return static_cast<std::uint32_t>(rng_() % n); }
  float near(float centre) {
    const float step = std::array{0.05f, 0.1f, 0.25f, 0.5f, 1.0f}[below(5)];
    const float level = centre + step * static_cast<float>(static_cast<int>(below(13)) - 6);
    return below(4) == 0 ? std::nextafter(level, below(2) ? 100.0f : -100.0f) : level;
  }
  float measured(float centre) {
    switch (below(16)) {
      case 0:
        return infinity;
      case 1:
        return -infinity;
      case 2:
        return notANumber;
      case 3:
        return static_cast<float>(rng_()) / 4294967296.0f * 200.0f - 150.0f;
      case 4:
        return near(0);
      default:
        return near(centre);
    }
  }
  std::optional<float> perhapsMeasured(float centre) {
    return below(8) ? std::optional(measured(centre)) : std::nullopt;
  }

 private:
  std::mt19937 rng_;
};

TEST(LoudnessTargetEvaluation, IsWhatAPlainTwinSaysOfAnyFiguresAndTargets) {
  std::array<int, 4> seen{};
  Levels levels(32);
  for (int trial = 0; trial < 60'000; ++trial) {
    const auto& catalog = LoudnessTargetCatalog::all();
    LoudnessTarget target = catalog[levels.below(static_cast<std::uint32_t>(catalog.size()))];
    if (levels.below(2)) {  // one of the user's
      target.source = allCases<LoudnessSource>()[levels.below(3)];
      const float reference = levels.near(-20), ceiling = levels.near(-1);
      if (levels.below(3) == 0)
        target.treatment = {
            LoudnessTreatment::Penalty{reference, ceiling, allCases<BoostBehaviour>()[levels.below(2)]}};
      else
        target.treatment = {LoudnessTreatment::Compliance{reference, std::fabs(levels.near(1)), ceiling}};
      target.extraCriteria.clear();
      for (std::uint32_t k = levels.below(4); k > 0; --k) {
        if (levels.below(2))
          target.extraCriteria.push_back({ExtraCriterion::NoiseFloor{levels.near(-60)}});
        else
          target.extraCriteria.push_back({ExtraCriterion::MaxShortTerm{levels.near(-18)}});
      }
    }
    const float reference = target.treatment.referenceLUFS();
    const LoudnessMeasurement measurement{
        .integratedLUFS = levels.measured(reference),
        .dialogGatedLUFS = levels.measured(reference),
        .truePeakDBTP = levels.measured(target.treatment.truePeakCeilingDBTP() - 1),
        .noiseFloorDBRMS = levels.perhapsMeasured(-60),
        .maxShortTermLUFS = levels.perhapsMeasured(-18),
        .rmsDBFS = levels.perhapsMeasured(reference)};
    const auto evaluation = evaluate(target, measurement);
    const PlainResult expected = plainlyEvaluated(target, measurement);
    ++seen[evaluation.verdict.value.index()];
    ASSERT_EQ(evaluation.target, target);
    ASSERT_EQ(described(evaluation.verdict), expected.verdict) << "trial " << trial;
    ASSERT_EQ(tooltipText(evaluation, measurement), expected.tooltip) << "trial " << trial;
  }
  for (const int count : seen) EXPECT_GT(count, 1000);  // every verdict had its turn
}

// Each of the three formats, over levels with any bits and over all halves of a tenth.
TEST(LoudnessTargetEvaluation, NumbersArePrintedAsPrintfDoes) {
  LoudnessTarget target = builtIn("broadcast.ebuR128");
  const auto expectAsPrinted = [&](float level) {
    target.treatment = {LoudnessTreatment::Compliance{level, 0.5f, level}};
    const float other = level + 1.05f;  // may be the same, then nothing is wrong with it
    const auto measurement = measured(other, -infinity);
    if (!std::isfinite(other)) return;
    const PlainResult expected = plainlyEvaluated(target, measurement);
    ASSERT_EQ(tooltip(target, measurement), expected.tooltip);
  };
  for (int k = -40'000; k <= 40'000; ++k) expectAsPrinted(static_cast<float>(k) * 0.0625f);
  std::mt19937 rng(33);
  for (int trial = 0; trial < 100'000; ++trial)
    expectAsPrinted(std::bit_cast<float>(static_cast<std::uint32_t>(rng())));
}

TEST(LoudnessTargetEvaluation, RecordsAreEqualByEveryField) {
  const LoudnessMeasurement measurement = measured(-23, -2);
  const std::vector<std::function<void(LoudnessMeasurement&)>> changes = {
      [](auto& m) { m.integratedLUFS = 1; },   [](auto& m) { m.dialogGatedLUFS = 1; },
      [](auto& m) { m.truePeakDBTP = 1; },     [](auto& m) { m.noiseFloorDBRMS.reset(); },
      [](auto& m) { m.maxShortTermLUFS = 1; }, [](auto& m) { m.rmsDBFS.reset(); }};
  EXPECT_EQ(measurement, LoudnessMeasurement(measurement));
  for (std::size_t k = 0; k < changes.size(); ++k) {
    LoudnessMeasurement other = measurement;
    changes[k](other);
    EXPECT_NE(measurement, other) << "change " << k;
  }

  const LoudnessTargetEvaluation evaluation = evaluate(builtIn("broadcast.ebuR128"), measurement);
  LoudnessTargetEvaluation other = evaluation;
  EXPECT_EQ(evaluation, other);
  other.target.name += "x";
  EXPECT_NE(evaluation, other);
  other = evaluation;
  other.actualLUFS = 1;
  EXPECT_NE(evaluation, other);
  other = evaluation;
  other.verdict = {LoudnessVerdict::Unavailable{}};
  EXPECT_NE(evaluation, other);
  EXPECT_NE((LoudnessVerdict::Penalty{1, true, 2, 3, true}),
            (LoudnessVerdict::Penalty{1, false, 2, 3, true}));
  EXPECT_NE((ExtraCriterionFailure{ExtraCriterionFailure::NoiseFloor{1, 2}}),
            (ExtraCriterionFailure{ExtraCriterionFailure::MaxShortTerm{1, 2}}));
}

}  // namespace
}  // namespace vellum
