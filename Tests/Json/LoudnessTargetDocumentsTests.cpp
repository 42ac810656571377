#include "VellumCore/Json/LoudnessTargetDocuments.hpp"

#include <gtest/gtest.h>
#include <rapidcheck/gtest.h>

#include <bit>
#include <cmath>
#include <cstdint>
#include <limits>
#include <string>
#include <vector>

#include "Support/DocumentErrors.hpp"

namespace vellum {
namespace {

using test::DocumentFault;
using test::faultOf;
using Kind = Json::DocumentError::Kind;
using Mode = LoudnessTargetMode;
using IDs = std::vector<std::string>;

LoudnessTargetSelection selectionIn(const std::string& text) {
  return Json::parseLoudnessTargetSelection(text);
}
LoudnessTarget targetIn(const std::string& text) {
  const Json::Value document = Json::parse(text);
  return Json::readLoudnessTarget(Json::Reader(document));
}
DocumentFault selectionFault(const std::string& text) {
  return faultOf([&] { selectionIn(text); });
}
DocumentFault targetFault(const std::string& text) {
  return faultOf([&] { targetIn(text); });
}

const std::string spotify =
    R"json({"id":"music.spotify","name":"Spotify","mode":"music","source":"integrated",)json"
    R"json("treatment":{"penalty":{"referenceLUFS":-14.0,"truePeakCeilingDBTP":-1.0,)json"
    R"json("boostBehaviour":"symmetric"}},)json"
    R"json("extraCriteria":[]})json";
const std::string shortForm =
    R"json({"id":"broadcast.ebuR128S1","name":"EBU R128 S1 (EU, short-form)","mode":"broadcast",)json"
    R"json("source":"integrated",)json"
    R"json("treatment":{"compliance":{"referenceLUFS":-23.0,"toleranceLU":0.2,"truePeakCeilingDBTP":-1.0}},)json"
    R"json("extraCriteria":[{"maxShortTerm":{"maxLUFS":-18.0}}]})json";
const std::string audiobook =
    R"json({"id":"podcast.acx","name":"ACX (Audiobook)","mode":"podcast","source":"rms",)json"
    R"json("treatment":{"compliance":{"referenceLUFS":-20.5,"toleranceLU":2.5,"truePeakCeilingDBTP":-3.0}},)json"
    R"json("extraCriteria":[{"noiseFloor":{"maxDBRMS":-60.0}}]})json";

std::string replaced(std::string text, const std::string& part, const std::string& other) {
  const std::size_t place = text.find(part);
  EXPECT_NE(place, std::string::npos) << part;
  return text.replace(place, part.size(), other);
}

// A selection with one custom target, whose faults then stand below customTargets[0].
std::string selectionWith(const std::string& target) {
  return R"({"mode":"music","selectedTargetIDsByMode":[],"customTargets":[)" + target + "]}";
}

// ---- Targets

TEST(LoudnessTargetDocument, IsWrittenWithItsKeysInOrder) {
  EXPECT_EQ(Json::compactText(Json::valueOf(*LoudnessTargetCatalog::target("music.spotify"))), spotify);
  EXPECT_EQ(Json::compactText(Json::valueOf(*LoudnessTargetCatalog::target("broadcast.ebuR128S1"))),
            shortForm);
  EXPECT_EQ(Json::compactText(Json::valueOf(*LoudnessTargetCatalog::target("podcast.acx"))), audiobook);
}

TEST(LoudnessTargetDocument, IsReadWithEveryField) {
  EXPECT_EQ(targetIn(spotify), *LoudnessTargetCatalog::target("music.spotify"));
  EXPECT_EQ(targetIn(shortForm), *LoudnessTargetCatalog::target("broadcast.ebuR128S1"));
  EXPECT_EQ(targetIn(audiobook), *LoudnessTargetCatalog::target("podcast.acx"));
}

TEST(LoudnessTargetDocument, EveryBuiltInTargetReadsBackAsItself) {
  for (const LoudnessTarget& target : LoudnessTargetCatalog::all())
    EXPECT_EQ(targetIn(Json::indentedText(Json::valueOf(target))), target) << target.id;
}

TEST(LoudnessTargetDocument, MembersMayStandInAnyOrderAmongUnknownOnes) {
  EXPECT_EQ(
      targetIn(
          R"({"extraCriteria":[],"notes":{"by":["me"]},"treatment":{"penalty":{"boostBehaviour":"symmetric",
                         "loudness":null,"truePeakCeilingDBTP":-1,"referenceLUFS":-14}},"source":"integrated",
                         "mode":"music","name":"Spotify","id":"music.spotify","treatments":3})"),
      targetIn(spotify));
}

TEST(LoudnessTargetDocument, EachMemberIsRequired) {
  for (const std::string key : {"id", "name", "mode", "source", "treatment", "extraCriteria"}) {
    const DocumentFault missing{Kind::keyNotFound, key, "the member \"" + key + "\" is missing"};
    EXPECT_EQ(targetFault(replaced(spotify, "\"" + key + "\":", "\"other\":")), missing);
    DocumentFault inSelection = missing;
    inSelection.path = "customTargets[0]." + key;
    EXPECT_EQ(selectionFault(selectionWith(replaced(spotify, "\"" + key + "\":", "\"other\":"))),
              inSelection);
  }
}

TEST(LoudnessTargetDocument, EachFieldOfATreatmentIsRequired) {
  const auto expectMissing = [](const std::string& document, const std::string& path,
                                const std::string& key) {
    EXPECT_EQ(targetFault(replaced(document, "\"" + key + "\":", "\"other\":")),
              (DocumentFault{Kind::keyNotFound, path + "." + key, "the member \"" + key + "\" is missing"}));
  };
  for (const char* key : {"referenceLUFS", "truePeakCeilingDBTP", "boostBehaviour"})
    expectMissing(spotify, "treatment.penalty", key);
  for (const char* key : {"referenceLUFS", "toleranceLU", "truePeakCeilingDBTP"})
    expectMissing(audiobook, "treatment.compliance", key);
  expectMissing(audiobook, "extraCriteria[0].noiseFloor", "maxDBRMS");
  expectMissing(shortForm, "extraCriteria[0].maxShortTerm", "maxLUFS");
}

TEST(LoudnessTargetDocument, NoMemberMayBeNull) {
  for (const std::string key : {"id", "name", "mode", "source"})
    EXPECT_EQ(targetFault(replaced(spotify, "\"" + key + "\":\"", "\"" + key + "\":null,\"was\":\"")),
              (DocumentFault{Kind::typeMismatch, key, "expected text, found null"}));
  EXPECT_EQ(targetFault(replaced(spotify, "\"extraCriteria\":[]", "\"extraCriteria\":null")),
            (DocumentFault{Kind::typeMismatch, "extraCriteria", "expected an array, found null"}));
  EXPECT_EQ(targetFault(replaced(spotify, "-14.0", "null")),
            (DocumentFault{Kind::typeMismatch, "treatment.penalty.referenceLUFS",
                           "expected a number, found null"}));
}

TEST(LoudnessTargetDocument, ATreatmentHasExactlyOneKey) {
  const DocumentFault fault{Kind::typeMismatch, "treatment", "Invalid number of keys found, expected one."};
  EXPECT_EQ(targetFault(replaced(spotify, "\"treatment\":{", "\"treatment\":{\"compliance\":{},")), fault);
  EXPECT_EQ(targetFault(replaced(spotify, "\"treatment\":{", "\"treatment\":{},\"was\":{")), fault);
}

TEST(LoudnessTargetDocument, ACriterionHasExactlyOneKey) {
  const DocumentFault fault{Kind::typeMismatch, "extraCriteria[0]",
                            "Invalid number of keys found, expected one."};
  EXPECT_EQ(targetFault(replaced(audiobook, "[{", "[{\"maxShortTerm\":{\"maxLUFS\":0},")), fault);
  EXPECT_EQ(targetFault(replaced(audiobook, "[{", "[{},{")), fault);
}

TEST(LoudnessTargetDocument, AnUnknownCaseIsAKeyThatIsNotFound) {
  EXPECT_EQ(targetFault(replaced(spotify, "\"penalty\"", "\"Penalty\"")),
            (DocumentFault{Kind::keyNotFound, "treatment", "there is no case \"Penalty\""}));
  EXPECT_EQ(
      targetFault(replaced(audiobook, "[{\"noiseFloor\"", "[{\"noiseFloor\":{\"maxDBRMS\":0}},{\"hum\"")),
      (DocumentFault{Kind::keyNotFound, "extraCriteria[1]", "there is no case \"hum\""}));
}

TEST(LoudnessTargetDocument, UnknownRawValuesAreNamed) {
  EXPECT_EQ(
      targetFault(replaced(spotify, "\"mode\":\"music\"", "\"mode\":\"Music\"")),
      (DocumentFault{Kind::dataCorrupted, "mode", "\"Music\" is none of music, podcast, vod, broadcast"}));
  EXPECT_EQ(
      targetFault(replaced(spotify, "\"integrated\"", "\"peak\"")),
      (DocumentFault{Kind::dataCorrupted, "source", "\"peak\" is none of integrated, dialogGated, rms"}));
  EXPECT_EQ(targetFault(replaced(spotify, "\"symmetric\"", "\"\"")),
            (DocumentFault{Kind::dataCorrupted, "treatment.penalty.boostBehaviour",
                           "\"\" is none of symmetric, turnsDownOnly"}));
}

TEST(LoudnessTargetDocument, TypesAndRangesAreChecked) {
  EXPECT_EQ(targetFault(replaced(spotify, "-14.0", "true")),
            (DocumentFault{Kind::typeMismatch, "treatment.penalty.referenceLUFS",
                           "expected a number, found true or false"}));
  EXPECT_EQ(targetFault(replaced(spotify, "-14.0", "\"-14\"")),
            (DocumentFault{Kind::typeMismatch, "treatment.penalty.referenceLUFS",
                           "expected a number, found text"}));
  EXPECT_EQ(targetFault(replaced(audiobook, "2.5", "1e39")),
            (DocumentFault{Kind::dataCorrupted, "treatment.compliance.toleranceLU",
                           "1e+39 does not fit a 32-bit number"}));
  EXPECT_EQ(targetFault(replaced(spotify, "\"Spotify\"", "7")),
            (DocumentFault{Kind::typeMismatch, "name", "expected text, found a number"}));
  EXPECT_EQ(targetFault("[]"), (DocumentFault{Kind::typeMismatch, "", "expected an object, found an array"}));
}

TEST(LoudnessTargetDocument, OfAMemberGivenTwiceTheLastCounts) {
  EXPECT_EQ(targetIn(replaced(spotify, "-14.0", "true,\"referenceLUFS\":-14")), targetIn(spotify));
  EXPECT_EQ(targetIn(replaced(spotify, "\"treatment\":{", "\"treatment\":{\"penalty\":{},")),
            targetIn(spotify));
}

// ---- Selections

TEST(LoudnessTargetSelectionDocument, IsWrittenWithItsThreeKeysInOrder) {
  LoudnessTargetSelection selection{
      .mode = Mode::podcast,
      .selectedTargetIDsByMode = {{Mode::podcast, {"podcast.apple"}},
                                  {Mode::music, {"music.spotify", "music.appleMusic"}},
                                  {Mode::vod, {}}},
      .customTargets = {}};
  EXPECT_EQ(Json::compactText(Json::valueOf(selection)),
            R"({"mode":"podcast","selectedTargetIDsByMode":["music",["music.spotify","music.appleMusic"],)"
            R"("podcast",["podcast.apple"],"vod",[]],"customTargets":[]})");
  EXPECT_EQ(Json::documentText(selection), Json::indentedText(Json::valueOf(selection)));
  selection = {.mode = Mode::vod,
               .selectedTargetIDsByMode = {},
               .customTargets = {*LoudnessTargetCatalog::target("music.spotify")}};
  EXPECT_EQ(Json::compactText(Json::valueOf(selection)),
            R"({"mode":"vod","selectedTargetIDsByMode":[],"customTargets":[)" + spotify + "]}");
}

TEST(LoudnessTargetSelectionDocument, TheDefaultReadsBackAsItself) {
  const auto selection = LoudnessTargetSelection::defaultValue();
  EXPECT_EQ(selectionIn(Json::documentText(selection).value()), selection);
}

TEST(LoudnessTargetSelectionDocument, IsReadWithEveryField) {
  EXPECT_EQ(
      selectionIn(R"({"customTargets":[)" + audiobook + "," + shortForm +
                  R"(],"selectedTargetIDsByMode":["vod",["a","","a"],"music",[]],"mode":"vod","version":2})"),
      (LoudnessTargetSelection{.mode = Mode::vod,
                               .selectedTargetIDsByMode = {{Mode::music, {}}, {Mode::vod, {"a", "", "a"}}},
                               .customTargets = {*LoudnessTargetCatalog::target("podcast.acx"),
                                                 *LoudnessTargetCatalog::target("broadcast.ebuR128S1")}}));
}

TEST(LoudnessTargetSelectionDocument, CustomTargetsMayBeAbsentOrNull) {
  const LoudnessTargetSelection selection{Mode::vod, {}, {}};
  EXPECT_EQ(selectionIn(R"({"mode":"vod","selectedTargetIDsByMode":[]})"), selection);
  EXPECT_EQ(selectionIn(R"({"mode":"vod","selectedTargetIDsByMode":[],"customTargets":null})"), selection);
}

TEST(LoudnessTargetSelectionDocument, ModeAndIDsAreRequired) {
  EXPECT_EQ(selectionFault(R"({"mode":"vod","customTargets":[]})"),
            (DocumentFault{Kind::keyNotFound, "selectedTargetIDsByMode",
                           "the member \"selectedTargetIDsByMode\" is missing"}));
  EXPECT_EQ(selectionFault(R"({"selectedTargetIDsByMode":[],"customTargets":[]})"),
            (DocumentFault{Kind::keyNotFound, "mode", "the member \"mode\" is missing"}));
  EXPECT_EQ(selectionFault(R"({"mode":"vod","selectedTargetIDsByMode":null})"),
            (DocumentFault{Kind::typeMismatch, "selectedTargetIDsByMode", "expected an array, found null"}));
}

TEST(LoudnessTargetSelectionDocument, TheFlatArrayHasAModeForEachListOfIDs) {
  const auto fault = [](const std::string& array) {
    return selectionFault(R"({"mode":"vod","selectedTargetIDsByMode":)" + array + "}");
  };
  const DocumentFault odd{Kind::dataCorrupted, "selectedTargetIDsByMode",
                          "a mode without its ids: the array's length is odd"};
  EXPECT_EQ(fault(R"(["vod"])"), odd);
  EXPECT_EQ(fault(R"(["vod",["vod.max"],"music"])"), odd);
  EXPECT_EQ(fault(R"(["vod",["vod.max"],"radio",[]])"),
            (DocumentFault{Kind::dataCorrupted, "selectedTargetIDsByMode[2]",
                           "\"radio\" is none of music, podcast, vod, broadcast"}));
  EXPECT_EQ(fault(R"([["vod.max"],"vod"])").path, "selectedTargetIDsByMode[1]");
  EXPECT_EQ(fault(R"(["vod","vod.max"])"), (DocumentFault{Kind::typeMismatch, "selectedTargetIDsByMode[1]",
                                                          "expected an array, found text"}));
  EXPECT_EQ(
      fault(R"(["vod",["vod.max",null]])"),
      (DocumentFault{Kind::typeMismatch, "selectedTargetIDsByMode[1][1]", "expected text, found null"}));
  EXPECT_EQ(fault(R"({"vod":["vod.max"]})"), (DocumentFault{Kind::typeMismatch, "selectedTargetIDsByMode",
                                                            "expected an array, found an object"}));
}

TEST(LoudnessTargetSelectionDocument, OfAModeGivenTwiceTheLastCounts) {
  const auto selection =
      selectionIn(R"({"mode":"vod","selectedTargetIDsByMode":["vod",["a","b"],"music",["c"],"vod",["d"]]})");
  EXPECT_EQ(selection.selectedTargetIDsByMode.size(), 2u);
  EXPECT_EQ(selection.selectedTargetIDsByMode.at(Mode::vod), IDs{"d"});
  EXPECT_EQ(selection.selectedTargetIDsByMode.at(Mode::music), IDs{"c"});
}

TEST(LoudnessTargetSelectionDocument, AFaultInTheSecondCustomTargetIsPlacedThere) {
  EXPECT_EQ(selectionFault(selectionWith(spotify + "," + replaced(audiobook, "\"maxDBRMS\"", "\"max\""))),
            (DocumentFault{Kind::keyNotFound, "customTargets[1].extraCriteria[0].noiseFloor.maxDBRMS",
                           "the member \"maxDBRMS\" is missing"}));
}

TEST(LoudnessTargetSelectionDocument, WhatIsNoDocumentIsRefused) {
  EXPECT_EQ(selectionFault("").kind, Kind::dataCorrupted);
  EXPECT_EQ(selectionFault("{}}").kind, Kind::dataCorrupted);
  EXPECT_EQ(selectionFault("null"),
            (DocumentFault{Kind::typeMismatch, "", "expected an object, found null"}));
}

TEST(LoudnessTargetSelectionDocument, AFaultyIDIsWrittenAsReplacementCharacters) {
  LoudnessTargetSelection selection{Mode::vod, {{Mode::vod, {"a\xFF", "\xC3"}}}, {}};
  EXPECT_EQ(selectionIn(Json::documentText(selection).value()).selectedTargetIDsByMode.at(Mode::vod),
            (IDs{"a\uFFFD", "\uFFFD"}));
}

TEST(LoudnessTargetSelectionDocument, ALevelThatIsNotFiniteHasNoDocument) {
  for (const float level : {std::numeric_limits<float>::infinity(), -std::numeric_limits<float>::infinity(),
                            std::numeric_limits<float>::quiet_NaN()}) {
    const std::vector<LoudnessTreatment> treatments = {
        {LoudnessTreatment::Penalty{level, -1, BoostBehaviour::symmetric}},
        {LoudnessTreatment::Penalty{-14, level, BoostBehaviour::symmetric}},
        {LoudnessTreatment::Compliance{level, 1, -1}},
        {LoudnessTreatment::Compliance{-14, level, -1}},
        {LoudnessTreatment::Compliance{-14, 1, level}}};
    auto selection = LoudnessTargetSelection::defaultValue();
    selection.customTargets = {*LoudnessTargetCatalog::target("vod.max"),
                               *LoudnessTargetCatalog::target("vod.max")};
    EXPECT_TRUE(Json::documentText(selection).has_value());
    for (const LoudnessTreatment& treatment : treatments) {
      selection.customTargets[1].treatment = treatment;
      EXPECT_EQ(Json::documentText(selection), std::nullopt);
    }
    selection.customTargets[1] = selection.customTargets[0];
    selection.customTargets[1].extraCriteria = {{ExtraCriterion::NoiseFloor{level}}};
    EXPECT_EQ(Json::documentText(selection), std::nullopt);
    selection.customTargets[1].extraCriteria = {{ExtraCriterion::MaxShortTerm{level}}};
    EXPECT_EQ(Json::documentText(selection), std::nullopt);
  }
}

// ---- Any selection

std::string anyText() {
  static const IDs pieces = {"a",
                             "Z",
                             "0",
                             " ",
                             ".",
                             "\"",
                             "\\",
                             "/",
                             "\n",
                             "\t",
                             "\x01",
                             "\x7F",
                             std::string(1, '\0'),
                             "é",
                             "Ω",
                             "\u2028",
                             "中",
                             "🔉",
                             "\uFEFF",
                             "\uFFFD",
                             "custom.",
                             "music.spotify",
                             "{}",
                             "]"};
  std::string text;
  for (const std::string& piece : *rc::gen::container<IDs>(rc::gen::elementOf(pieces))) text += piece;
  return text;
}
// Any bits that are a finite number.
float anyLevel() {
  return std::bit_cast<float>(*rc::gen::suchThat(rc::gen::arbitrary<std::uint32_t>(), [](std::uint32_t bits) {
    return std::isfinite(std::bit_cast<float>(bits));
  }));
}
template <typename Enumeration>
Enumeration anyCase() {
  return *rc::gen::elementOf(allCases<Enumeration>());
}
bool either() {
  return *rc::gen::arbitrary<bool>();
}
std::size_t atMost(std::size_t count) {
  return *rc::gen::inRange<std::size_t>(0, count + 1);
}

LoudnessTarget anyTarget() {
  LoudnessTarget target{.id = anyText(),
                        .name = anyText(),
                        .mode = anyCase<Mode>(),
                        .source = anyCase<LoudnessSource>(),
                        .treatment = {LoudnessTreatment::Compliance{anyLevel(), anyLevel(), anyLevel()}},
                        .extraCriteria = {}};
  if (either())
    target.treatment = {LoudnessTreatment::Penalty{anyLevel(), anyLevel(), anyCase<BoostBehaviour>()}};
  for (std::size_t k = atMost(3); k > 0; --k) {
    if (either())
      target.extraCriteria.push_back({ExtraCriterion::NoiseFloor{anyLevel()}});
    else
      target.extraCriteria.push_back({ExtraCriterion::MaxShortTerm{anyLevel()}});
  }
  return target;
}

LoudnessTargetSelection anySelection() {
  LoudnessTargetSelection selection{anyCase<Mode>(), {}, {}};
  for (const Mode mode : allCases<Mode>()) {
    if (either()) continue;
    IDs& ids = selection.selectedTargetIDsByMode[mode];
    for (std::size_t k = atMost(5); k > 0; --k) ids.push_back(anyText());
  }
  for (std::size_t k = atMost(3); k > 0; --k) selection.customTargets.push_back(anyTarget());
  return selection;
}

RC_GTEST_PROP(LoudnessTargetDocument, AnyTargetReadsBackAsItself, ()) {
  const LoudnessTarget target = anyTarget();
  const std::string text = Json::compactText(Json::valueOf(target));
  const LoudnessTarget readBack = targetIn(text);
  RC_ASSERT(readBack == target);
  RC_ASSERT(Json::compactText(Json::valueOf(readBack)) == text);  // to the bit: -0.0 equals 0.0 above
}

RC_GTEST_PROP(LoudnessTargetSelectionDocument, AnySelectionReadsBackAsItself, ()) {
  const LoudnessTargetSelection selection = anySelection();
  const std::string text = Json::documentText(selection).value();
  const LoudnessTargetSelection readBack = selectionIn(text);
  RC_ASSERT(readBack == selection);
  RC_ASSERT(Json::documentText(readBack) == text);
  RC_ASSERT(readBack.activeTargets() == selection.activeTargets());
}

// A document that was cut off or has a byte changed is read or refused with an error of its own, nothing
// else.
RC_GTEST_PROP(LoudnessTargetSelectionDocument, ADamagedDocumentIsReadOrRefused, ()) {
  std::string text = selectionWith(spotify + "," + audiobook);
  if (either()) text.resize(atMost(text.size()));
  for (std::size_t k = text.empty() ? 0 : atMost(4); k > 0; --k)
    text[atMost(text.size() - 1)] = *rc::gen::arbitrary<char>();
  try {
    const auto selection = selectionIn(text);
    RC_ASSERT(selectionIn(Json::documentText(selection).value()) == selection);
  } catch (const Json::DocumentError& error) {
    RC_ASSERT(!error.description().empty());
  }
}

}  // namespace
}  // namespace vellum
