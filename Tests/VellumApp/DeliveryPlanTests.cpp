#include "VellumApp/DeliveryPlan.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <bit>
#include <cmath>
#include <cstdint>
#include <limits>
#include <random>
#include <string>
#include <vector>

#include "Support/Signals.hpp"
#include "Support/TextAssertions.hpp"

namespace vellum {
namespace {

using DeliveryPlan::Master;
using DeliveryPlan::Plan;
using test::contains;

constexpr float silent = -std::numeric_limits<float>::infinity();

LoudnessTarget penalty(std::string id, float reference, float ceiling, BoostBehaviour boost) {
  return {id,
          id,
          LoudnessTargetMode::music,
          LoudnessSource::integrated,
          {LoudnessTreatment::Penalty{reference, ceiling, boost}},
          {}};
}

LoudnessTarget compliance(std::string id, float reference, float tolerance, float ceiling,
                          std::vector<ExtraCriterion> extraCriteria = {},
                          LoudnessSource source = LoudnessSource::integrated) {
  return {id,
          id,
          LoudnessTargetMode::broadcast,
          source,
          {LoudnessTreatment::Compliance{reference, tolerance, ceiling}},
          std::move(extraCriteria)};
}

LoudnessMeasurement figures(float integrated, float truePeak) {
  return {integrated, silent, truePeak, {}, {}, {}};
}

LoudnessMeasurement movedBy(LoudnessMeasurement figures, double gainDB) {
  const auto gain = static_cast<float>(gainDB);
  figures.integratedLUFS += gain;
  figures.dialogGatedLUFS += gain;
  figures.truePeakDBTP += gain;
  for (auto* level : {&figures.noiseFloorDBRMS, &figures.maxShortTermLUFS, &figures.rmsDBFS})
    if (*level) **level += gain;
  return figures;
}

// Whether a rendering with this gain, limited to the target's ceiling, serves the target: by the verdict.
bool isServed(const LoudnessTarget& target, const LoudnessMeasurement& before, double gainDB) {
  LoudnessMeasurement after = movedBy(before, gainDB);
  after.truePeakDBTP = std::min(after.truePeakDBTP, target.treatment.truePeakCeilingDBTP());
  const LoudnessTargetEvaluation evaluation = LoudnessTargetEvaluator::evaluate(target, after);
  if (const auto* verdict = std::get_if<LoudnessVerdict::Penalty>(&evaluation.verdict.value))
    return verdict->truePeakClean && (verdict->applies || verdict->gainDB == 0);
  return std::holds_alternative<LoudnessVerdict::Compliant>(evaluation.verdict.value);
}

std::vector<std::string> idsOf(const std::vector<LoudnessTarget>& targets) {
  std::vector<std::string> ids;
  for (const LoudnessTarget& target : targets) ids.push_back(target.id);
  return ids;
}

// Levels stand on halves, tolerances an eighth and criteria a sixteenth beside them: no two gains at which
// something begins or ends are nearer to each other than a sixteenth.
struct RandomTask {
  std::vector<LoudnessTarget> targets;
  LoudnessMeasurement before;
};

float onHalves(std::mt19937& rng, double low, double high) {
  return static_cast<float>(std::round(test::uniform(rng, low, high) * 2) / 2);
}

RandomTask randomTask(std::mt19937& rng) {
  RandomTask task;
  task.before = {onHalves(rng, -30, -8), rng() % 4 == 0 ? silent : onHalves(rng, -30, -8),
                 onHalves(rng, -12, 2),  onHalves(rng, -80, -40),
                 onHalves(rng, -25, -6), onHalves(rng, -30, -8)};
  const std::size_t count = 1 + rng() % 6;
  for (std::size_t k = 0; k < count; ++k) {
    const std::string id = std::to_string(k);
    const float reference = onHalves(rng, -28, -10), ceiling = onHalves(rng, -4, 0);
    if (rng() % 3 == 0) {
      task.targets.push_back(penalty(id, reference, ceiling,
                                     rng() % 2 ? BoostBehaviour::symmetric : BoostBehaviour::turnsDownOnly));
      continue;
    }
    std::vector<ExtraCriterion> criteria;
    if (rng() % 4 == 0) criteria.push_back({ExtraCriterion::NoiseFloor{onHalves(rng, -70, -50) + 0.0625f}});
    if (rng() % 4 == 0) criteria.push_back({ExtraCriterion::MaxShortTerm{onHalves(rng, -24, -10) + 0.0625f}});
    const LoudnessSource sources[] = {LoudnessSource::integrated, LoudnessSource::dialogGated,
                                      LoudnessSource::rms};
    task.targets.push_back(compliance(id, reference, onHalves(rng, 0, 2) + 0.125f, ceiling,
                                      std::move(criteria), sources[rng() % 3]));
  }
  return task;
}

// The targets that each of many gains serves, as bits.
std::vector<std::uint32_t> servedByGain(const RandomTask& task) {
  std::vector<std::uint32_t> sets;
  for (int step = -60 * 32; step <= 60 * 32; ++step) {
    std::uint32_t set = 0;
    for (std::size_t k = 0; k < task.targets.size(); ++k)
      if (isServed(task.targets[k], task.before, step / 32.0)) set |= 1u << k;
    if (std::find(sets.begin(), sets.end(), set) == sets.end()) sets.push_back(set);
  }
  return sets;
}

// How few of the sets cover what all of them do.
int fewest(const std::vector<std::uint32_t>& sets) {
  std::uint32_t all = 0;
  for (const std::uint32_t set : sets) all |= set;
  std::vector<std::uint32_t> reached = {0};
  for (int count = 0;; ++count) {
    std::vector<std::uint32_t> next;
    for (const std::uint32_t cover : reached) {
      if (cover == all) return count;
      for (const std::uint32_t set : sets)
        if (std::find(next.begin(), next.end(), cover | set) == next.end()) next.push_back(cover | set);
    }
    reached = next;
  }
}

TEST(DeliveryPlan, NoSetOfGainsServesTheSameTargetsWithFewerMasters) {
  for (unsigned seed = 0; seed < 150; ++seed) {
    SCOPED_TRACE(testing::Message() << "seed " << seed);
    std::mt19937 rng(seed);
    const RandomTask task = randomTask(rng);
    const std::vector<std::uint32_t> sets = servedByGain(task);
    std::uint32_t servable = 0;
    for (const std::uint32_t set : sets) servable |= set;

    const Plan plan = DeliveryPlan::make(task.targets, task.before);
    EXPECT_EQ(static_cast<int>(plan.masters.size()), fewest(sets));
    EXPECT_EQ(static_cast<int>(task.targets.size()) - std::popcount(servable),
              static_cast<int>(plan.unserved.size()));
    for (const DeliveryPlan::Unserved& unserved : plan.unserved) {
      EXPECT_EQ(servable >> std::stoi(unserved.target.id) & 1, 0u);
      EXPECT_FALSE(unserved.reason.empty());
    }
    std::uint32_t served = 0;
    for (const Master& master : plan.masters)
      for (const LoudnessTarget& target : master.targets) {
        const std::uint32_t bit = 1u << std::stoi(target.id);
        EXPECT_EQ(served & bit, 0u) << "twice: " << target.id;
        served |= bit;
        for (const double gain : {master.gainDB, master.leastGainDB, master.mostGainDB})
          if (std::isfinite(gain)) {
            EXPECT_TRUE(isServed(target, task.before, gain)) << target.id << " " << gain;
          }
        EXPECT_LE(master.ceilingDBTP, target.treatment.truePeakCeilingDBTP());
      }
    EXPECT_EQ(served, servable);
  }
}

// One more condition on the same random tasks: what is said about limiting is so.
TEST(DeliveryPlan, LimitsOnlyWhereNoGainDoesWithout) {
  for (unsigned seed = 0; seed < 300; ++seed) {
    SCOPED_TRACE(testing::Message() << "seed " << seed);
    std::mt19937 rng(seed);
    const RandomTask task = randomTask(rng);
    for (const Master& master : DeliveryPlan::make(task.targets, task.before).masters) {
      EXPECT_NEAR(master.limitingBeginsAtDB + task.before.truePeakDBTP, master.ceilingDBTP, 1e-4);
      EXPECT_GE(master.gainDB, master.leastGainDB);
      EXPECT_LE(master.gainDB, master.mostGainDB);
      const double needed = std::max(0.0, master.leastGainDB - master.limitingBeginsAtDB);
      EXPECT_NEAR(master.reductionDB(), needed, 1e-9);
      EXPECT_LE(master.after.truePeakDBTP, static_cast<float>(master.ceilingDBTP));
      EXPECT_NEAR(master.after.integratedLUFS, task.before.integratedLUFS + master.gainDB, 1e-4);
    }
  }
}

TEST(DeliveryPlan, OneMasterServesAllMusicServicesOfALoudSong) {
  const Plan plan = DeliveryPlan::make(LoudnessTargetCatalog::music(), figures(-9.5f, -0.5f));
  ASSERT_EQ(plan.masters.size(), 1u);
  EXPECT_TRUE(plan.unserved.empty());
  const Master& master = plan.masters.front();
  EXPECT_EQ(idsOf(master.targets), idsOf(LoudnessTargetCatalog::music()));
  EXPECT_EQ(master.ceilingDBTP, -2);            // Amazon Music's
  EXPECT_NEAR(master.gainDB, -1.5, 1e-6);       // no more than the peak asks for
  EXPECT_NEAR(master.leastGainDB, -4.5, 0.01);  // YouTube and Tidal turn down only, to -14
  EXPECT_EQ(master.mostGainDB, std::numeric_limits<double>::infinity());
  EXPECT_EQ(master.reductionDB(), 0);
}

// -20 LUFS and a peak at -3 dBTP: 6 dB up to -14 go 4 dB beyond the ceiling of -1.
TEST(DeliveryPlan, AQuietSongIsLiftedToTheServicesThatDoNotTurnUp) {
  const Plan plan = DeliveryPlan::make({*LoudnessTargetCatalog::target("music.youtube")}, figures(-20, -3));
  ASSERT_EQ(plan.masters.size(), 1u);
  EXPECT_NEAR(plan.masters[0].gainDB, 6, 0.01);
  EXPECT_NEAR(plan.masters[0].limitingBeginsAtDB, 2, 1e-6);
  EXPECT_NEAR(plan.masters[0].reductionDB(), 4, 0.01);
  EXPECT_NEAR(plan.masters[0].after.integratedLUFS, -14, 0.01);
  EXPECT_EQ(plan.masters[0].after.truePeakDBTP, -1);
}

TEST(DeliveryPlan, AGainThatServesAsItIsStaysNothing) {
  const Plan plan = DeliveryPlan::make({*LoudnessTargetCatalog::target("music.spotify")}, figures(-20, -3));
  ASSERT_EQ(plan.masters.size(), 1u);
  EXPECT_EQ(plan.masters[0].gainDB, 0);  // Spotify turns it up itself
}

TEST(DeliveryPlan, OutletsFarFromEachOtherNeedAMasterEach) {
  const Plan plan = DeliveryPlan::make({compliance("a", -23, 0.5f, -1), compliance("b", -16, 1, -1),
                                        compliance("c", -23, 1, -2), compliance("d", -27, 2, -1)},
                                       figures(-20, -10));
  ASSERT_EQ(plan.masters.size(), 3u);
  EXPECT_EQ(idsOf(plan.masters[0].targets), (std::vector<std::string>{"d"}));
  EXPECT_EQ(idsOf(plan.masters[1].targets), (std::vector<std::string>{"a", "c"}));
  EXPECT_EQ(idsOf(plan.masters[2].targets), (std::vector<std::string>{"b"}));
  EXPECT_EQ(plan.masters[1].ceilingDBTP, -2);
  EXPECT_NEAR(plan.masters[1].gainDB, -3, 0.01);  // the middle of what serves both
}

TEST(DeliveryPlan, AFileWithoutSpeechIsNotServedInTheSystemsWords) {
  const Plan plan = DeliveryPlan::make({*LoudnessTargetCatalog::target("vod.netflix")}, figures(-20, -3));
  EXPECT_TRUE(plan.masters.empty());
  ASSERT_EQ(plan.unserved.size(), 1u);
  EXPECT_EQ(plan.unserved[0].reason,
            "Dialog-gated targets need detected speech.\n"
            "This file has no detected speech, so the verdict is unavailable.");
}

TEST(DeliveryPlan, ACriterionThatNoGainSatisfiesIsNamed) {
  LoudnessMeasurement before = figures(-20, -10);
  before.rmsDBFS = -20.0f;
  before.noiseFloorDBRMS = -50.0f;
  const Plan plan = DeliveryPlan::make({*LoudnessTargetCatalog::target("podcast.acx")}, before);
  ASSERT_EQ(plan.unserved.size(), 1u);
  // At -23 dB RMS, the least that -20.5 +- 2.5 takes, it is still at -53.
  EXPECT_TRUE(contains(plan.unserved[0].reason, "Not compliant: noise floor 7.0 dB above the ceiling."));
}

TEST(DeliveryPlan, ATargetWithoutToleranceNamesItsCriterionToo) {
  LoudnessMeasurement before = figures(-20, -10);
  before.maxShortTermLUFS = -15.0f;
  const Plan plan =
      DeliveryPlan::make({compliance("exact", -23, 0, -1, {{ExtraCriterion::MaxShortTerm{-20}}})}, before);
  ASSERT_EQ(plan.unserved.size(), 1u);
  EXPECT_TRUE(contains(plan.unserved[0].reason, "Not compliant: Max Short-term 2.0 LU above the ceiling."));
}

TEST(DeliveryPlan, ATargetWithoutToleranceIsServedByTheOneGain) {
  const Plan plan = DeliveryPlan::make({compliance("exact", -23, 0, -1)}, figures(-19.3f, -10));
  ASSERT_EQ(plan.masters.size(), 1u);
  EXPECT_TRUE(isServed(plan.masters[0].targets[0], figures(-19.3f, -10), plan.masters[0].gainDB));
}

TEST(DeliveryPlan, ANegativeToleranceServesNobody) {
  EXPECT_EQ(DeliveryPlan::make({compliance("odd", -23, -1, -1)}, figures(-23, -10)).unserved.size(), 1u);
}

TEST(DeliveryPlan, AFigureThatIsNotFiniteIsNoCriterion) {
  LoudnessMeasurement before = figures(-23, -10);
  before.maxShortTermLUFS = std::numeric_limits<float>::infinity();  // the verdict lets it pass
  EXPECT_TRUE(
      DeliveryPlan::make({*LoudnessTargetCatalog::target("broadcast.ebuR128S1")}, before).unserved.empty());
}

TEST(DeliveryPlan, NoTargetsNeedNoMaster) {
  const Plan plan = DeliveryPlan::make({}, figures(-20, -3));
  EXPECT_TRUE(plan.masters.empty());
  EXPECT_TRUE(plan.unserved.empty());
}

}  // namespace
}  // namespace vellum
