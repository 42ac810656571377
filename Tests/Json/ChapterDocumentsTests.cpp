#include "VellumCore/Json/ChapterDocuments.hpp"

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
using Metric = ChapterConsistencyMetric;
using Origin = ChapterReport::Origin;

constexpr float infinity = std::numeric_limits<float>::infinity();

const std::string idText = "01234567-89AB-4DEF-BEDC-BA9876543210";
const std::string bareChapter =
    R"({"id":"01234567-89AB-4DEF-BEDC-BA9876543210","index":2,"name":"Chapter 02","startSec":1712.35,)"
    R"("endSec":3600.0})";
const std::string fullChapter =
    R"({"id":"01234567-89AB-4DEF-BEDC-BA9876543210","index":1,"name":"Chapter 01","startSec":0.0,)"
    R"("endSec":1712.35,"integratedLUFS":-18.1,"rmsDBFS":-21.7,"truePeakDBTP":-1.2,"samplePeakDBFS":-1.5,)"
    R"("loudnessRange":6.25,"maxMomentaryLUFS":-12.5,"maxShortTermLUFS":-14.25,"speechGatedLUFS":-18.0,)"
    R"("noiseFloorDBRMS":-62.5,"speechPercentage":0.875})";
const std::string fingerprint =
    R"({"fileName":"talk.wav","durationCS":360000,"sampleRate":48000,"channelCount":2})";
const std::string defaultSettings =
    R"({"silenceThresholdDB":-55.0,"minSilenceDuration":2.0,"deviationThresholdLU":2.0,"blockDuration":0.1,)"
    R"("consistencyMetric":"rms"})";

std::string reportOf(const std::string& chapters, const std::string& median, const std::string& origin) {
  return R"({"chapters":)" + chapters + median + R"(,"fileFingerprint":)" + fingerprint + R"(,"origin":)" +
         origin + "}";
}

std::string replaced(std::string text, const std::string& part, const std::string& other) {
  const std::size_t place = text.find(part);
  EXPECT_NE(place, std::string::npos) << part;
  return text.replace(place, part.size(), other);
}

Chapter chapterIn(const std::string& text) {
  const Json::Value document = Json::parse(text);
  return Json::readChapter(Json::Reader(document));
}
ChapterDetectionSettings settingsIn(const std::string& text) {
  return Json::parseChapterDetectionSettings(text);
}
ChapterReport reportIn(const std::string& text) {
  return Json::parseChapterReport(text);
}
template <typename Record>
std::string textOf(const Record& record) {
  return Json::compactText(Json::valueOf(record));
}
DocumentFault chapterFault(const std::string& text) {
  return faultOf([&] { chapterIn(text); });
}
DocumentFault settingsFault(const std::string& text) {
  return faultOf([&] { settingsIn(text); });
}
DocumentFault reportFault(const std::string& text) {
  return faultOf([&] { reportIn(text); });
}

// --- Chapter ---------------------------------------------------------------------------------------------

TEST(ChapterDocument, AMeasuredChapterIsReadWithEveryField) {
  const Chapter expected{.id = *UUID::parse(idText),
                         .index = 1,
                         .name = "Chapter 01",
                         .startSec = 0,
                         .endSec = 1712.35,
                         .integratedLUFS = -18.1f,
                         .rmsDBFS = -21.7f,
                         .truePeakDBTP = -1.2f,
                         .samplePeakDBFS = -1.5f,
                         .loudnessRange = 6.25f,
                         .maxMomentaryLUFS = -12.5f,
                         .maxShortTermLUFS = -14.25f,
                         .speechGatedLUFS = -18.0f,
                         .noiseFloorDBRMS = -62.5f,
                         .speechPercentage = 0.875f};
  EXPECT_EQ(chapterIn(fullChapter), expected);
}

TEST(ChapterDocument, IsWrittenWithItsKeysInOrder) {
  EXPECT_EQ(textOf(chapterIn(fullChapter)), fullChapter);
}

TEST(ChapterDocument, FiveIdentityKeysAreEnoughAndStayFive) {
  EXPECT_EQ(textOf(chapterIn(bareChapter)), bareChapter);
}

TEST(ChapterDocument, ClearingLosesAllTenMeasurementKeys) {
  Chapter chapter = chapterIn(fullChapter);
  chapter.clearMeasurements();
  EXPECT_EQ(textOf(chapter), fullChapter.substr(0, fullChapter.find(",\"integratedLUFS\"")) + "}");
}

TEST(ChapterDocument, AMeasurementOfNullIsAbsent) {
  for (const ChapterMeasurement& measurement : chapterMeasurements) {
    const std::string member = ",\"" + std::string(measurement.name) + "\":null}";
    EXPECT_EQ(chapterIn(replaced(bareChapter, "}", member)), chapterIn(bareChapter)) << member;
  }
}

TEST(ChapterDocument, AMeasurementThatIsNotFiniteHasNoKey) {
  for (const float level : {infinity, -infinity, std::nanf("")})
    for (const ChapterMeasurement& measurement : chapterMeasurements) {
      Chapter chapter = chapterIn(bareChapter);
      chapter.*measurement.value = level;
      EXPECT_EQ(textOf(chapter), bareChapter) << measurement.name;
    }
}

TEST(ChapterDocument, AnIDIsReadInEitherCaseAndWrittenInUpperCase) {
  const std::string lower = "01234567-89ab-4def-bedc-ba9876543210";
  EXPECT_EQ(chapterIn(replaced(bareChapter, idText, lower)).id, *UUID::parse(idText));
  EXPECT_EQ(textOf(chapterIn(replaced(bareChapter, idText, lower))), bareChapter);
}

TEST(ChapterDocument, UnknownMembersAreIgnoredAndOfTwoTheLastCounts) {
  EXPECT_EQ(chapterIn(replaced(bareChapter, "}", R"(,"colour":["red"],"index":7})")).index, 7);
}

TEST(ChapterDocument, AnIntegerMayHaveAPoint) {
  EXPECT_EQ(chapterIn(replaced(bareChapter, R"("index":2)", R"("index":3.0)")).index, 3);
  EXPECT_EQ(chapterIn(replaced(bareChapter, R"("endSec":3600.0)", R"("endSec":3600)")).endSec, 3600.0);
  const auto fault = chapterFault(replaced(bareChapter, R"("index":2)", R"("index":3.5)"));
  EXPECT_EQ(fault.kind, Kind::dataCorrupted);
  EXPECT_EQ(fault.path, "index");
}

TEST(ChapterDocument, EachIdentityKeyIsRequired) {
  for (const char* key : {"id", "index", "name", "startSec", "endSec"}) {
    const auto missing = chapterFault(replaced(bareChapter, "\"" + std::string(key) + "\"", "\"other\""));
    EXPECT_EQ(missing.kind, Kind::keyNotFound) << key;
    EXPECT_EQ(missing.path, key);
    const auto null = chapterFault(replaced(bareChapter, "}", ",\"" + std::string(key) + "\":null}"));
    EXPECT_EQ(null.kind, Kind::typeMismatch) << key;
    EXPECT_EQ(null.path, key);
  }
}

TEST(ChapterDocument, AMemberOfAnotherTypeIsNamed) {
  std::vector<std::string> keys = {"id", "index", "name", "startSec", "endSec"};
  for (const ChapterMeasurement& measurement : chapterMeasurements) keys.emplace_back(measurement.name);
  for (const std::string& key : keys) {
    const auto fault = chapterFault(replaced(fullChapter, "}", ",\"" + key + "\":true}"));
    EXPECT_EQ(fault.kind, Kind::typeMismatch) << key;
    EXPECT_EQ(fault.path, key);
  }
}

TEST(ChapterDocument, AnIDThatIsNoUUIDIsNamed) {
  EXPECT_EQ(chapterFault(replaced(bareChapter, idText, "chapter-2")),
            (DocumentFault{Kind::dataCorrupted, "id", "\"chapter-2\" is no UUID"}));
}

// --- Settings --------------------------------------------------------------------------------------------

TEST(ChapterDetectionSettingsDocument, IsWrittenWithItsKeysInOrder) {
  EXPECT_EQ(textOf(ChapterDetectionSettings::defaultValue()), defaultSettings);
}

TEST(ChapterDetectionSettingsDocument, AnEmptyObjectIsTheDefault) {
  EXPECT_EQ(settingsIn("{}"), ChapterDetectionSettings::defaultValue());
  EXPECT_EQ(settingsIn("{}").consistencyMetric, Metric::rms);
}

TEST(ChapterDetectionSettingsDocument, EachKeyIsReadAlone) {
  auto expected = ChapterDetectionSettings::defaultValue();
  expected.silenceThresholdDB = -40.5f;
  EXPECT_EQ(settingsIn(R"({"silenceThresholdDB":-40.5})"), expected);
  expected = ChapterDetectionSettings::defaultValue();
  expected.minSilenceDuration = 1.25;
  EXPECT_EQ(settingsIn(R"({"minSilenceDuration":1.25})"), expected);
  expected = ChapterDetectionSettings::defaultValue();
  expected.deviationThresholdLU = 3.5f;
  EXPECT_EQ(settingsIn(R"({"deviationThresholdLU":3.5})"), expected);
  expected = ChapterDetectionSettings::defaultValue();
  expected.blockDuration = 0.05;
  EXPECT_EQ(settingsIn(R"({"blockDuration":0.05})"), expected);
  expected = ChapterDetectionSettings::defaultValue();
  expected.consistencyMetric = Metric::integratedLUFS;
  EXPECT_EQ(settingsIn(R"({"consistencyMetric":"integratedLUFS"})"), expected);
}

TEST(ChapterDetectionSettingsDocument, NullTakesTheDefault) {
  EXPECT_EQ(settingsIn(R"({"silenceThresholdDB":null,"minSilenceDuration":null,"deviationThresholdLU":null,)"
                       R"("blockDuration":null,"consistencyMetric":null})"),
            ChapterDetectionSettings::defaultValue());
}

TEST(ChapterDetectionSettingsDocument, AMemberOfAnotherTypeIsNamed) {
  for (const char* key : {"silenceThresholdDB", "minSilenceDuration", "deviationThresholdLU", "blockDuration",
                          "consistencyMetric"}) {
    const auto fault = settingsFault("{\"" + std::string(key) + "\":[]}");
    EXPECT_EQ(fault.kind, Kind::typeMismatch) << key;
    EXPECT_EQ(fault.path, key);
  }
}

TEST(ChapterDetectionSettingsDocument, AnUnknownMetricIsRefused) {
  EXPECT_EQ(settingsFault(R"({"consistencyMetric":"integrated"})"),
            (DocumentFault{Kind::dataCorrupted, "consistencyMetric",
                           "\"integrated\" is none of integratedLUFS, rms"}));
}

TEST(ChapterDetectionSettingsDocument, ASettingThatIsNotFiniteIsNotWritten) {
  auto settings = ChapterDetectionSettings::defaultValue();
  EXPECT_TRUE(Json::documentText(settings));
  settings.silenceThresholdDB = -infinity;
  EXPECT_FALSE(Json::documentText(settings));
  settings = ChapterDetectionSettings::defaultValue();
  settings.blockDuration = std::nan("");
  EXPECT_FALSE(Json::documentText(settings));
}

// --- Report ----------------------------------------------------------------------------------------------

TEST(ChapterReportDocument, IsReadWithEveryField) {
  const ChapterReport report = reportIn(
      reportOf("[" + fullChapter + "," + bareChapter + "]", R"(,"medianLUFS":-18.4)", R"("detected")"));
  EXPECT_EQ(report.chapters, (std::vector{chapterIn(fullChapter), chapterIn(bareChapter)}));
  EXPECT_EQ(report.medianLUFS, -18.4f);
  EXPECT_EQ(report.fileFingerprint, (ChapterFileFingerprint{"talk.wav", 360000, 48000, 2}));
  EXPECT_EQ(report.origin, Origin::detected);
}

TEST(ChapterReportDocument, IsWrittenWithItsKeysInOrder) {
  const std::string text =
      reportOf("[" + fullChapter + "," + bareChapter + "]", R"(,"medianLUFS":-18.4)", R"("detected")");
  EXPECT_EQ(textOf(reportIn(text)), text);
}

TEST(ChapterReportDocument, AMedianIsWrittenWhereThereIsAFiniteOne) {
  const std::string without = reportOf("[]", "", R"("manual")");
  EXPECT_EQ(textOf(reportIn(without)), without);
  EXPECT_EQ(textOf(reportIn(reportOf("[]", R"(,"medianLUFS":null)", R"("manual")"))), without);
  ChapterReport report = reportIn(without);
  for (const float level : {infinity, -infinity, std::nanf("")}) {
    report.medianLUFS = level;
    EXPECT_EQ(textOf(report), without);
  }
}

TEST(ChapterReportDocument, EveryOriginReadsBackAsItself) {
  for (const Origin origin : allCases<Origin>()) {
    const std::string text = reportOf("[]", "", "\"" + std::string(rawValue(origin)) + "\"");
    EXPECT_EQ(reportIn(text).origin, origin);
    EXPECT_EQ(textOf(reportIn(text)), text);
  }
}

TEST(ChapterReportDocument, AnOriginWithACapitalIsRefused) {
  const auto fault = reportFault(reportOf("[]", "", R"("Music")"));
  EXPECT_EQ(fault.kind, Kind::dataCorrupted);
  EXPECT_EQ(fault.path, "origin");
}

TEST(ChapterReportDocument, AllButTheMedianAreRequired) {
  const std::string text = reportOf("[]", "", R"("manual")");
  for (const char* key : {"chapters", "fileFingerprint", "origin"}) {
    const auto fault = reportFault(replaced(text, "\"" + std::string(key) + "\"", "\"other\""));
    EXPECT_EQ(fault.kind, Kind::keyNotFound) << key;
    EXPECT_EQ(fault.path, key);
  }
}

TEST(ChapterReportDocument, EveryFieldOfTheFingerprintIsRequired) {
  const std::string text = reportOf("[]", "", R"("manual")");
  for (const char* key : {"fileName", "durationCS", "sampleRate", "channelCount"}) {
    const auto missing = reportFault(replaced(text, "\"" + std::string(key) + "\"", "\"other\""));
    EXPECT_EQ(missing.kind, Kind::keyNotFound) << key;
    EXPECT_EQ(missing.path, "fileFingerprint." + std::string(key));
    const auto null = reportFault(
        replaced(text, R"("channelCount":2})", R"("channelCount":2,")" + std::string(key) + "\":null}"));
    EXPECT_EQ(null.kind, Kind::typeMismatch) << key;
  }
}

TEST(ChapterReportDocument, AFaultInAChapterIsNamedByItsPlace) {
  const std::string broken = replaced(bareChapter, R"("startSec":1712.35)", R"("startSec":"late")");
  const auto fault = reportFault(reportOf("[" + fullChapter + "," + broken + "]", "", R"("manual")"));
  EXPECT_EQ(fault.kind, Kind::typeMismatch);
  EXPECT_EQ(fault.path, "chapters[1].startSec");
}

TEST(ChapterReportDocument, ATimeThatIsNotFiniteIsNotWritten) {
  ChapterReport report = reportIn(reportOf("[" + bareChapter + "]", "", R"("manual")"));
  EXPECT_TRUE(Json::documentText(report));
  report.chapters[0].startSec = std::numeric_limits<double>::infinity();
  EXPECT_FALSE(Json::documentText(report));
  report.chapters[0].startSec = 0;
  report.chapters[0].endSec = std::nan("");
  EXPECT_FALSE(Json::documentText(report));
}

TEST(ChapterReportDocument, ADocumentIsWrittenOneMemberPerLine) {
  const auto text = Json::documentText(reportIn(reportOf("[]", R"(,"medianLUFS":-18.4)", R"("music")")));
  EXPECT_EQ(text,
            "{\n  \"chapters\": [],\n  \"medianLUFS\": -18.4,\n  \"fileFingerprint\": {\n"
            "    \"fileName\": \"talk.wav\",\n    \"durationCS\": 360000,\n    \"sampleRate\": 48000,\n"
            "    \"channelCount\": 2\n  },\n  \"origin\": \"music\"\n}");
}

TEST(ChapterReportDocument, NoReportIsReadFromHalfAText) {
  const std::string text = reportOf("[" + bareChapter + "]", "", R"("manual")");
  for (std::size_t n = 0; n < text.size(); ++n)
    EXPECT_THROW(reportIn(text.substr(0, n)), Json::DocumentError) << n;
}

// --- Any record ------------------------------------------------------------------------------------------

rc::Gen<float> finiteFloat() {
  return rc::gen::map(
      rc::gen::suchThat(rc::gen::arbitrary<std::uint32_t>(),
                        [](std::uint32_t bits) { return std::isfinite(std::bit_cast<float>(bits)); }),
      [](std::uint32_t bits) { return std::bit_cast<float>(bits); });
}
rc::Gen<double> finiteDouble() {
  return rc::gen::map(
      rc::gen::suchThat(rc::gen::arbitrary<std::uint64_t>(),
                        [](std::uint64_t bits) { return std::isfinite(std::bit_cast<double>(bits)); }),
      [](std::uint64_t bits) { return std::bit_cast<double>(bits); });
}
std::optional<float> someLevel() {
  if (*rc::gen::arbitrary<bool>()) return {};
  return *finiteFloat();
}
// Any Unicode text would do; bytes beyond ASCII are the tree's business.
std::string someText() {
  return *rc::gen::container<std::string>(rc::gen::inRange<char>(1, 127));
}
Chapter someChapter() {
  Chapter chapter{.id = {*rc::gen::arbitrary<UUID::Bytes>()},
                  .index = *rc::gen::arbitrary<std::int64_t>(),
                  .name = someText(),
                  .startSec = *finiteDouble(),
                  .endSec = *finiteDouble()};
  for (const ChapterMeasurement& measurement : chapterMeasurements) chapter.*measurement.value = someLevel();
  return chapter;
}

RC_GTEST_PROP(ChapterReportDocument, AnyReportReadsBackAsItselfAndIsWrittenAlike, ()) {
  ChapterReport report{.chapters = {},
                       .medianLUFS = someLevel(),
                       .fileFingerprint = {.fileName = someText(),
                                           .durationCS = *rc::gen::arbitrary<std::int64_t>(),
                                           .sampleRate = *rc::gen::arbitrary<std::int64_t>(),
                                           .channelCount = *rc::gen::arbitrary<std::int64_t>()},
                       .origin = *rc::gen::elementOf(allCases<Origin>())};
  for (int count = *rc::gen::inRange(0, 4); count > 0; --count) report.chapters.push_back(someChapter());
  const auto text = Json::documentText(report);
  RC_ASSERT(text.has_value());
  const ChapterReport readBack = reportIn(*text);
  RC_ASSERT(readBack == report);
  RC_ASSERT(Json::documentText(readBack) == text);
}

RC_GTEST_PROP(ChapterDetectionSettingsDocument, AnyReadsBackAsItself, ()) {
  const ChapterDetectionSettings settings{.silenceThresholdDB = *finiteFloat(),
                                          .minSilenceDuration = *finiteDouble(),
                                          .deviationThresholdLU = *finiteFloat(),
                                          .blockDuration = *finiteDouble(),
                                          .consistencyMetric = *rc::gen::elementOf(allCases<Metric>())};
  const auto text = Json::documentText(settings);
  RC_ASSERT(text.has_value());
  RC_ASSERT(settingsIn(*text) == settings);
}

}  // namespace
}  // namespace vellum
