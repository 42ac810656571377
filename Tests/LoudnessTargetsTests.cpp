#include "VellumCore/LoudnessTargets.hpp"

#include <gtest/gtest.h>

#include <barrier>
#include <functional>
#include <optional>
#include <string>
#include <thread>
#include <unordered_map>
#include <utility>
#include <vector>

namespace vellum {
namespace {

namespace Catalog = LoudnessTargetCatalog;
using Mode = LoudnessTargetMode;
using Source = LoudnessSource;

// The outlets as a table. A normalising one has a boost, one that passes or refuses has a tolerance.
struct Row {
  const char *id, *name;
  Mode mode;
  Source source;
  float reference;
  std::optional<float> tolerance;
  float ceiling;
  std::optional<BoostBehaviour> boost;
  std::vector<ExtraCriterion> extraCriteria;
};

const std::vector<Row>& expectedRows() {
  using enum LoudnessSource;
  using enum BoostBehaviour;
  constexpr std::nullopt_t none = std::nullopt;
  static const std::vector<Row> rows = {
      {"music.spotify", "Spotify", Mode::music, integrated, -14, none, -1, symmetric, {}},
      {"music.appleMusic", "Apple Music", Mode::music, integrated, -16, none, -1, turnsDownOnly, {}},
      {"music.youtube", "YouTube", Mode::music, integrated, -14, none, -1, turnsDownOnly, {}},
      {"music.tidal", "Tidal", Mode::music, integrated, -14, none, -1, turnsDownOnly, {}},
      {"music.amazonMusic", "Amazon Music", Mode::music, integrated, -14, none, -2, symmetric, {}},
      {"music.deezer", "Deezer", Mode::music, integrated, -15, none, -1, symmetric, {}},
      {"music.soundcloud", "SoundCloud", Mode::music, integrated, -14, none, -1, symmetric, {}},
      {"music.aesTD1008", "AES TD1008 (streaming)", Mode::music, integrated, -18, none, -1, symmetric, {}},
      {"podcast.apple", "Apple Podcasts", Mode::podcast, dialogGated, -16, none, -1, turnsDownOnly, {}},
      {"podcast.spotify", "Spotify (Podcast)", Mode::podcast, dialogGated, -14, none, -1, symmetric, {}},
      {"podcast.acx",
       "ACX (Audiobook)",
       Mode::podcast,
       rms,
       -20.5f,
       2.5f,
       -3,
       none,
       {{ExtraCriterion::NoiseFloor{-60}}}},
      {"vod.netflix", "Netflix", Mode::vod, dialogGated, -27, 2.0f, -2, none, {}},
      {"vod.primeVideo", "Prime Video", Mode::vod, dialogGated, -27, 2.0f, -2, none, {}},
      {"vod.appleTV", "Apple TV+", Mode::vod, dialogGated, -27, 2.0f, -2, none, {}},
      {"vod.disneyPlus", "Disney+", Mode::vod, dialogGated, -27, 2.0f, -2, none, {}},
      {"vod.max", "Max", Mode::vod, dialogGated, -27, 2.0f, -2, none, {}},
      {"broadcast.ebuR128", "EBU R128 (EU)", Mode::broadcast, integrated, -23, 0.5f, -1, none, {}},
      {"broadcast.ebuR128Live", "EBU R128 (EU, live)", Mode::broadcast, integrated, -23, 1.0f, -1, none, {}},
      {"broadcast.ebuR128S1",
       "EBU R128 S1 (EU, short-form)",
       Mode::broadcast,
       integrated,
       -23,
       0.2f,
       -1,
       none,
       {{ExtraCriterion::MaxShortTerm{-18}}}},
      {"broadcast.atscA85", "ATSC A/85 (CALM Act)", Mode::broadcast, dialogGated, -24, 2.0f, -2, none, {}},
      {"broadcast.aribB32", "ARIB TR-B32 (Japan)", Mode::broadcast, integrated, -24, 1.0f, -1, none, {}},
      {"broadcast.op59", "OP-59 (Australia)", Mode::broadcast, integrated, -24, 1.0f, -1, none, {}},
  };
  return rows;
}

std::vector<std::string> idsOf(const std::vector<LoudnessTarget>& targets) {
  std::vector<std::string> ids;
  for (const LoudnessTarget& target : targets) ids.push_back(target.id);
  return ids;
}

TEST(LoudnessTargetCatalog, HoldsEveryOutletWithEveryField) {
  ASSERT_EQ(expectedRows().size(), 22u);
  ASSERT_EQ(Catalog::all().size(), 22u);
  for (std::size_t k = 0; k < 22; ++k) {
    const Row& row = expectedRows()[k];
    const LoudnessTarget& target = Catalog::all()[k];
    SCOPED_TRACE(row.id);
    EXPECT_EQ(target.id, row.id);
    EXPECT_EQ(target.name, row.name);
    EXPECT_EQ(target.mode, row.mode);
    EXPECT_EQ(target.source, row.source);
    EXPECT_EQ(target.extraCriteria, row.extraCriteria);
    ASSERT_NE(row.tolerance.has_value(), row.boost.has_value());
    if (row.boost) {
      const auto* rule = std::get_if<LoudnessTreatment::Penalty>(&target.treatment.value);
      ASSERT_NE(rule, nullptr);
      EXPECT_EQ(rule->referenceLUFS, row.reference);
      EXPECT_EQ(rule->truePeakCeilingDBTP, row.ceiling);
      EXPECT_EQ(rule->boostBehaviour, *row.boost);
    } else {
      const auto* rule = std::get_if<LoudnessTreatment::Compliance>(&target.treatment.value);
      ASSERT_NE(rule, nullptr);
      EXPECT_EQ(rule->referenceLUFS, row.reference);
      EXPECT_EQ(rule->toleranceLU, *row.tolerance);
      EXPECT_EQ(rule->truePeakCeilingDBTP, row.ceiling);
    }
  }
}

TEST(LoudnessTargetCatalog, EachModesListIsItsPartOfTheWhole) {
  const std::vector<std::pair<Mode, const std::vector<LoudnessTarget>*>> lists = {
      {Mode::music, &Catalog::music()},
      {Mode::podcast, &Catalog::podcast()},
      {Mode::vod, &Catalog::vod()},
      {Mode::broadcast, &Catalog::broadcast()}};
  for (const auto& [mode, list] : lists) {
    std::vector<LoudnessTarget> ofMode;
    for (const LoudnessTarget& target : Catalog::all())
      if (target.mode == mode) ofMode.push_back(target);
    EXPECT_EQ(*list, ofMode);
    EXPECT_EQ(Catalog::targets(mode), ofMode);
  }
}

TEST(LoudnessTargetCatalog, PodcastHasThreeOutletsInOrder) {
  EXPECT_EQ(idsOf(Catalog::targets(Mode::podcast)),
            (std::vector<std::string>{"podcast.apple", "podcast.spotify", "podcast.acx"}));
}

TEST(LoudnessTargetCatalog, FindsATargetByItsExactID) {
  for (const LoudnessTarget& target : Catalog::all()) EXPECT_EQ(Catalog::target(target.id), &target);
  ASSERT_NE(Catalog::target("vod.max"), nullptr);
  EXPECT_EQ(Catalog::target("vod.max")->name, "Max");
}

TEST(LoudnessTargetCatalog, FindsNothingForAnIDThatDiffersInCaseOrLength) {
  for (const char* id : {"vod.Max", "VOD.max", "Music.spotify", "music.applemusic", "", "vod.ma", "vod.max ",
                         "music", "spotify"})
    EXPECT_EQ(Catalog::target(id), nullptr) << id;
  EXPECT_EQ(Catalog::target(std::string_view("vod.max\0", 8)), nullptr);
}

TEST(LoudnessTargetCatalog, HasDefaultIDsForEachMode) {
  using IDs = std::vector<std::string>;
  EXPECT_EQ(Catalog::defaultSelectedIDs(Mode::music),
            (IDs{"music.spotify", "music.appleMusic", "music.youtube", "music.tidal"}));
  EXPECT_EQ(Catalog::defaultSelectedIDs(Mode::podcast), (IDs{"podcast.apple", "podcast.spotify"}));
  EXPECT_EQ(Catalog::defaultSelectedIDs(Mode::vod),
            (IDs{"vod.netflix", "vod.primeVideo", "vod.appleTV", "vod.max"}));
  EXPECT_EQ(Catalog::defaultSelectedIDs(Mode::broadcast), (IDs{"broadcast.ebuR128", "broadcast.atscA85"}));
}

TEST(LoudnessTargetCatalog, DefaultIDsNameTargetsOfTheirMode) {
  for (const Mode mode : allCases<Mode>())
    for (const std::string& id : Catalog::defaultSelectedIDs(mode)) {
      ASSERT_NE(Catalog::target(id), nullptr) << id;
      EXPECT_EQ(Catalog::target(id)->mode, mode) << id;
    }
}

// Worth most under a thread sanitizer, and when this is the first test of its process, as ctest runs it.
TEST(LoudnessTargetCatalog, IsBuiltOnceThoughThreadsTouchItTogether) {
  constexpr std::size_t threadCount = 8;
  std::barrier start(static_cast<std::ptrdiff_t>(threadCount));
  std::vector<const LoudnessTarget*> found(threadCount);
  std::vector<std::size_t> counts(threadCount);
  std::vector<const std::string*> defaults(threadCount);
  std::vector<std::thread> threads;
  for (std::size_t k = 0; k < threadCount; ++k)
    threads.emplace_back([&, k] {
      start.arrive_and_wait();
      found[k] = Catalog::target("broadcast.op59");
      counts[k] = Catalog::all().size();
      defaults[k] = Catalog::defaultSelectedIDs(Mode::vod).data();
    });
  for (std::thread& thread : threads) thread.join();
  for (std::size_t k = 0; k < threadCount; ++k) {
    EXPECT_EQ(found[k], &Catalog::all().back());
    EXPECT_EQ(counts[k], 22u);
    EXPECT_EQ(defaults[k], Catalog::defaultSelectedIDs(Mode::vod).data());
  }
}

TEST(LoudnessTargetMode, HasTextsAndReadouts) {
  struct Texts {
    Mode mode;
    const char *id, *displayName, *shortName;
    bool showsSpeechGated, showsNoiseFloor, showsMargin, showsDynamicRange;
  };
  const std::vector<Texts> rows = {
      {Mode::music, "music", "Music / Streaming", "Music", false, false, true, true},
      {Mode::podcast, "podcast", "Podcast / Spoken Word", "Podcast", true, true, false, false},
      {Mode::vod, "vod", "VOD", "VOD", true, false, false, false},
      {Mode::broadcast, "broadcast", "Broadcast", "Broadcast", true, false, true, true}};
  ASSERT_EQ(allCases<Mode>().size(), rows.size());
  for (std::size_t k = 0; k < rows.size(); ++k) {
    const Texts& row = rows[k];
    SCOPED_TRACE(row.id);
    EXPECT_EQ(allCases<Mode>()[k], row.mode);
    EXPECT_EQ(id(row.mode), row.id);
    EXPECT_EQ(displayName(row.mode), row.displayName);
    EXPECT_EQ(shortName(row.mode), row.shortName);
    EXPECT_EQ(showsSpeechGated(row.mode), row.showsSpeechGated);
    EXPECT_EQ(showsNoiseFloor(row.mode), row.showsNoiseFloor);
    EXPECT_EQ(showsMargin(row.mode), row.showsMargin);
    EXPECT_EQ(showsDynamicRange(row.mode), row.showsDynamicRange);
  }
}

TEST(LoudnessTargetMode, IsAKeyOfAHashedMap) {
  std::unordered_map<Mode, int> map;
  for (const Mode mode : allCases<Mode>()) map[mode] = static_cast<int>(mode);
  EXPECT_EQ(map.size(), 4u);
  EXPECT_EQ(map.at(Mode::vod), static_cast<int>(Mode::vod));
}

TEST(LoudnessSource, HasUnitsAndALabel) {
  EXPECT_EQ(unit(Source::integrated), "LUFS");
  EXPECT_EQ(unit(Source::dialogGated), "LKFS");
  EXPECT_EQ(unit(Source::rms), "dB RMS");
  EXPECT_EQ(metricLabel(Source::integrated), "Loudness");
  EXPECT_EQ(metricLabel(Source::dialogGated), "Loudness");
  EXPECT_EQ(metricLabel(Source::rms), "RMS");
  EXPECT_EQ(deltaUnit(Source::integrated), "LU");
  EXPECT_EQ(deltaUnit(Source::dialogGated), "LU");
  EXPECT_EQ(deltaUnit(Source::rms), "dB");
}

// Each case to its text, each text to its case, and the cases in their order.
template <typename Enumeration>
void expectRawValues(const std::vector<std::pair<Enumeration, std::string>>& expected) {
  ASSERT_EQ(allCases<Enumeration>().size(), expected.size());
  for (std::size_t k = 0; k < expected.size(); ++k) {
    const auto& [value, text] = expected[k];
    EXPECT_EQ(allCases<Enumeration>()[k], value) << text;
    EXPECT_EQ(rawValue(value), text);
    EXPECT_EQ(fromRawValue<Enumeration>(text), value) << text;
    EXPECT_EQ(fromRawValue<Enumeration>(text + " "), std::nullopt) << text;
    EXPECT_EQ(fromRawValue<Enumeration>(text.substr(1)), std::nullopt) << text;
  }
  EXPECT_EQ(fromRawValue<Enumeration>(""), std::nullopt);
  EXPECT_EQ(rawValue(static_cast<Enumeration>(99)), "");
}

TEST(RawValue, NamesEveryModeBothWays) {
  expectRawValues<Mode>({{Mode::music, "music"},
                         {Mode::podcast, "podcast"},
                         {Mode::vod, "vod"},
                         {Mode::broadcast, "broadcast"}});
  EXPECT_EQ(fromRawValue<Mode>("Music"), std::nullopt);
}

TEST(RawValue, NamesEverySourceBothWays) {
  expectRawValues<Source>(
      {{Source::integrated, "integrated"}, {Source::dialogGated, "dialogGated"}, {Source::rms, "rms"}});
  EXPECT_EQ(fromRawValue<Source>("dialoggated"), std::nullopt);
}

TEST(RawValue, NamesEveryBoostBothWays) {
  expectRawValues<BoostBehaviour>(
      {{BoostBehaviour::symmetric, "symmetric"}, {BoostBehaviour::turnsDownOnly, "turnsDownOnly"}});
}

TEST(LoudnessTreatment, GivesReferenceAndCeilingOfEitherCase) {
  const LoudnessTreatment penalty{LoudnessTreatment::Penalty{-14, -1, BoostBehaviour::symmetric}};
  EXPECT_EQ(penalty.referenceLUFS(), -14.0f);
  EXPECT_EQ(penalty.truePeakCeilingDBTP(), -1.0f);
  const LoudnessTreatment compliance{LoudnessTreatment::Compliance{-20.5f, 2.5f, -3}};
  EXPECT_EQ(compliance.referenceLUFS(), -20.5f);
  EXPECT_EQ(compliance.truePeakCeilingDBTP(), -3.0f);
}

TEST(LoudnessTarget, IsEqualByEveryField) {
  const LoudnessTarget target = *Catalog::target("podcast.acx");
  const std::vector<std::function<void(LoudnessTarget&)>> changes = {
      [](auto& t) { t.id += "x"; },
      [](auto& t) { t.name += "x"; },
      [](auto& t) { t.mode = Mode::vod; },
      [](auto& t) { t.source = Source::integrated; },
      [](auto& t) {
        t.treatment = {LoudnessTreatment::Compliance{-20.5f, 2.5f, -2}};
      },
      [](auto& t) {
        t.treatment = {LoudnessTreatment::Compliance{-20.5f, 2, -3}};
      },
      [](auto& t) {
        t.treatment = {LoudnessTreatment::Compliance{-20, 2.5f, -3}};
      },
      [](auto& t) {
        t.treatment = {LoudnessTreatment::Penalty{-20.5f, -3, BoostBehaviour::symmetric}};
      },
      [](auto& t) { t.extraCriteria.clear(); },
      [](auto& t) { t.extraCriteria[0] = {ExtraCriterion::NoiseFloor{-61}}; },
      [](auto& t) { t.extraCriteria[0] = {ExtraCriterion::MaxShortTerm{-60}}; }};
  EXPECT_EQ(target, LoudnessTarget(target));
  for (std::size_t k = 0; k < changes.size(); ++k) {
    LoudnessTarget other = target;
    changes[k](other);
    EXPECT_NE(target, other) << "change " << k;
  }
}

}  // namespace
}  // namespace vellum
