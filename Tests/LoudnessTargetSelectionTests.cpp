#include "VellumCore/LoudnessTargetSelection.hpp"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace vellum {
namespace {

using Mode = LoudnessTargetMode;
using IDs = std::vector<std::string>;

LoudnessTarget custom(const std::string& id, Mode mode, const std::string& name = "Mine") {
  return {.id = id,
          .name = name,
          .mode = mode,
          .source = LoudnessSource::integrated,
          .treatment = {LoudnessTreatment::Compliance{-19, 1, -1}},
          .extraCriteria = {}};
}

LoudnessTargetSelection selectionOf(Mode mode, const IDs& ids,
                                    std::vector<LoudnessTarget> customTargets = {}) {
  return {.mode = mode, .selectedTargetIDsByMode = {{mode, ids}}, .customTargets = std::move(customTargets)};
}

IDs namesOf(const std::vector<LoudnessTarget>& targets) {
  IDs names;
  for (const LoudnessTarget& target : targets) names.push_back(target.name);
  return names;
}

TEST(LoudnessTargetSelection, HasItsConstants) {
  EXPECT_EQ(LoudnessTargetSelection::customIDPrefix, "custom.");
  EXPECT_EQ(LoudnessTargetSelection::maxTargetsPerMode, 4u);
}

TEST(LoudnessTargetSelection, DefaultIsMusicWithTheDefaultIDsOfEveryMode) {
  const auto selection = LoudnessTargetSelection::defaultValue();
  EXPECT_EQ(selection.mode, Mode::music);
  EXPECT_TRUE(selection.customTargets.empty());
  ASSERT_EQ(selection.selectedTargetIDsByMode.size(), 4u);
  EXPECT_EQ(selection.selectedTargetIDsByMode.at(Mode::music),
            (IDs{"music.spotify", "music.appleMusic", "music.youtube", "music.tidal"}));
  EXPECT_EQ(selection.selectedTargetIDsByMode.at(Mode::podcast), (IDs{"podcast.apple", "podcast.spotify"}));
  EXPECT_EQ(selection.selectedTargetIDsByMode.at(Mode::vod),
            (IDs{"vod.netflix", "vod.primeVideo", "vod.appleTV", "vod.max"}));
  EXPECT_EQ(selection.selectedTargetIDsByMode.at(Mode::broadcast),
            (IDs{"broadcast.ebuR128", "broadcast.atscA85"}));
}

TEST(LoudnessTargetSelection, ActiveByDefaultIsTheMusicList) {
  const auto selection = LoudnessTargetSelection::defaultValue();
  EXPECT_EQ(selection.activeTargetIDs(),
            (IDs{"music.spotify", "music.appleMusic", "music.youtube", "music.tidal"}));
  EXPECT_EQ(namesOf(selection.activeTargets()), (IDs{"Spotify", "Apple Music", "YouTube", "Tidal"}));
}

TEST(LoudnessTargetSelection, LeavesOutUnknownIDsAndThoseOfOtherModes) {
  const auto selection = selectionOf(Mode::podcast, {"vod.netflix", "podcast.apple", "nope"});
  EXPECT_EQ(selection.activeTargetIDs(), IDs{"podcast.apple"});
  EXPECT_EQ(namesOf(selection.activeTargets()), IDs{"Apple Podcasts"});
}

TEST(LoudnessTargetSelection, OfSixValidIDsTheFirstFourAreActive) {
  const auto selection = selectionOf(Mode::music, {"music.deezer", "music.tidal", "music.spotify",
                                                   "music.youtube", "music.soundcloud", "music.appleMusic"});
  EXPECT_EQ(selection.activeTargetIDs(),
            (IDs{"music.deezer", "music.tidal", "music.spotify", "music.youtube"}));
}

// The four are counted after the others are left out.
TEST(LoudnessTargetSelection, IDsThatAreLeftOutTakeNoPlace) {
  const auto selection =
      selectionOf(Mode::music, {"nope", "vod.max", "music.tidal", "nope", "music.deezer", "podcast.acx",
                                "music.spotify", "Music.spotify", "music.youtube", "music.soundcloud"});
  EXPECT_EQ(selection.activeTargetIDs(),
            (IDs{"music.tidal", "music.deezer", "music.spotify", "music.youtube"}));
}

TEST(LoudnessTargetSelection, ACustomTargetIsActiveInItsMode) {
  auto selection = selectionOf(Mode::vod, {"custom.x"}, {custom("custom.x", Mode::vod)});
  EXPECT_EQ(selection.activeTargetIDs(), IDs{"custom.x"});
  EXPECT_EQ(selection.activeTargets(), selection.customTargets);
  ASSERT_NE(selection.target("custom.x"), nullptr);
  EXPECT_EQ(*selection.target("custom.x"), selection.customTargets[0]);
  EXPECT_EQ(selection.target("custom.X"), nullptr);

  selection.mode = Mode::music;
  selection.selectedTargetIDsByMode[Mode::music] = {"custom.x"};
  EXPECT_EQ(selection.activeTargetIDs(), IDs{});
}

TEST(LoudnessTargetSelection, AModeWithoutAnEntryHasItsDefaultIDs) {
  auto selection = selectionOf(Mode::vod, {"vod.max"});
  selection.mode = Mode::broadcast;
  EXPECT_EQ(selection.activeTargetIDs(), (IDs{"broadcast.ebuR128", "broadcast.atscA85"}));
}

TEST(LoudnessTargetSelection, AnEmptyEntryStaysEmpty) {
  const auto selection = selectionOf(Mode::broadcast, {});
  EXPECT_EQ(selection.activeTargetIDs(), IDs{});
  EXPECT_TRUE(selection.activeTargets().empty());
}

TEST(LoudnessTargetSelection, RepeatedIDsStayAndCount) {
  const auto selection =
      selectionOf(Mode::vod, {"vod.max", "vod.max", "vod.netflix", "vod.max", "vod.primeVideo"});
  EXPECT_EQ(selection.activeTargetIDs(), (IDs{"vod.max", "vod.max", "vod.netflix", "vod.max"}));
  EXPECT_EQ(namesOf(selection.activeTargets()), (IDs{"Max", "Max", "Netflix", "Max"}));
}

TEST(LoudnessTargetSelection, ABuiltInTargetHidesACustomOneWithItsID) {
  const auto selection =
      selectionOf(Mode::music, {"music.tidal"}, {custom("music.tidal", Mode::music, "Not Tidal")});
  EXPECT_EQ(selection.target("music.tidal")->name, "Tidal");
  EXPECT_EQ(namesOf(selection.activeTargets()), IDs{"Tidal"});
}

// Also where the built-in one belongs to another mode than the custom one.
TEST(LoudnessTargetSelection, ACustomTargetOfABuiltInIDIsNotActiveInItsOwnMode) {
  const auto selection = selectionOf(Mode::vod, {"music.tidal"}, {custom("music.tidal", Mode::vod)});
  EXPECT_EQ(selection.activeTargetIDs(), IDs{});
}

TEST(LoudnessTargetSelection, OfCustomTargetsWithOneIDTheFirstCounts) {
  const std::vector<LoudnessTarget> both = {custom("custom.x", Mode::vod, "first"),
                                            custom("custom.x", Mode::music, "second")};
  EXPECT_EQ(selectionOf(Mode::vod, {}, both).target("custom.x")->name, "first");
  EXPECT_EQ(namesOf(selectionOf(Mode::vod, {"custom.x"}, both).activeTargets()), IDs{"first"});
  EXPECT_EQ(selectionOf(Mode::music, {"custom.x"}, both).activeTargetIDs(), IDs{});
}

TEST(LoudnessTargetSelection, TheCustomPrefixIsNotAskedFor) {
  const auto selection =
      selectionOf(Mode::vod, {"mine", ""}, {custom("mine", Mode::vod), custom("", Mode::vod)});
  EXPECT_EQ(selection.activeTargetIDs(), (IDs{"mine", ""}));
}

TEST(LoudnessTargetSelection, ListsTheCustomTargetsOfAModeInOrder) {
  const auto selection =
      selectionOf(Mode::music, {},
                  {custom("custom.b", Mode::vod, "b"), custom("custom.m", Mode::music, "m"),
                   custom("custom.a", Mode::vod, "a"), custom("custom.b", Mode::vod, "b again")});
  EXPECT_EQ(namesOf(selection.customTargetsFor(Mode::vod)), (IDs{"b", "a", "b again"}));
  EXPECT_EQ(namesOf(selection.customTargetsFor(Mode::music)), IDs{"m"});
  EXPECT_TRUE(selection.customTargetsFor(Mode::podcast).empty());
}

TEST(LoudnessTargetSelection, IsEqualByModeMapAndCustomTargets) {
  const auto selection = selectionOf(Mode::vod, {"vod.max", "vod.netflix"}, {custom("custom.x", Mode::vod)});
  EXPECT_EQ(selection, LoudnessTargetSelection(selection));
  auto other = selection;
  other.mode = Mode::music;
  EXPECT_NE(selection, other);
  other = selection;
  other.selectedTargetIDsByMode[Mode::music] = {};
  EXPECT_NE(selection, other);
  other = selection;
  other.selectedTargetIDsByMode[Mode::vod] = {"vod.netflix", "vod.max"};
  EXPECT_NE(selection, other);
  other = selection;
  other.customTargets[0].name = "Yours";
  EXPECT_NE(selection, other);
}

}  // namespace
}  // namespace vellum
