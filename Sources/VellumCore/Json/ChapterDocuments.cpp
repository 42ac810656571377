#include "VellumCore/Json/ChapterDocuments.hpp"

#include <cmath>
#include <utility>

namespace vellum::Json {
namespace {

using Members = std::vector<Member>;

void addIfFinite(Members& members, std::string_view key, const std::optional<float>& level) {
  if (level && std::isfinite(*level)) members.emplace_back(key, *level);
}

std::optional<float> readLevel(const Reader& reader, std::string_view key) {
  const auto member = reader.find(key);
  return member ? std::optional(member->float32()) : std::nullopt;
}

template <typename Record>
std::optional<std::string> textOf(const Record& record) {
  const Value value = valueOf(record);
  if (!isWritable(value)) return {};
  return indentedText(value);
}

}  // namespace

Value valueOf(const ChapterDetectionSettings& settings) {
  return Object({{"silenceThresholdDB", settings.silenceThresholdDB},
                 {"minSilenceDuration", settings.minSilenceDuration},
                 {"deviationThresholdLU", settings.deviationThresholdLU},
                 {"blockDuration", settings.blockDuration},
                 {"consistencyMetric", rawValue(settings.consistencyMetric)}});
}

Value valueOf(const Chapter& chapter) {
  Members members = {{"id", chapter.id.text()},
                     {"index", chapter.index},
                     {"name", chapter.name},
                     {"startSec", chapter.startSec},
                     {"endSec", chapter.endSec}};
  for (const ChapterMeasurement& measurement : chapterMeasurements)
    addIfFinite(members, measurement.name, chapter.*measurement.value);
  return Object(std::move(members));
}

Value valueOf(const ChapterFileFingerprint& fingerprint) {
  return Object({{"fileName", fingerprint.fileName},
                 {"durationCS", fingerprint.durationCS},
                 {"sampleRate", fingerprint.sampleRate},
                 {"channelCount", fingerprint.channelCount}});
}

Value valueOf(const ChapterReport& report) {
  Array chapters;
  for (const Chapter& chapter : report.chapters) chapters.push_back(valueOf(chapter));
  Members members = {{"chapters", std::move(chapters)}};
  addIfFinite(members, "medianLUFS", report.medianLUFS);
  members.emplace_back("fileFingerprint", valueOf(report.fileFingerprint));
  members.emplace_back("origin", rawValue(report.origin));
  return Object(std::move(members));
}

ChapterDetectionSettings readChapterDetectionSettings(const Reader& reader) {
  ChapterDetectionSettings settings = ChapterDetectionSettings::defaultValue();
  if (const auto member = reader.find("silenceThresholdDB")) settings.silenceThresholdDB = member->float32();
  if (const auto member = reader.find("minSilenceDuration")) settings.minSilenceDuration = member->float64();
  if (const auto member = reader.find("deviationThresholdLU"))
    settings.deviationThresholdLU = member->float32();
  if (const auto member = reader.find("blockDuration")) settings.blockDuration = member->float64();
  if (const auto member = reader.find("consistencyMetric"))
    settings.consistencyMetric = member->enumeration<ChapterConsistencyMetric>();
  return settings;
}

Chapter readChapter(const Reader& reader) {
  Chapter chapter{.id = reader.member("id").uuid(),
                  .index = reader.member("index").integer(),
                  .name = reader.member("name").text(),
                  .startSec = reader.member("startSec").float64(),
                  .endSec = reader.member("endSec").float64()};
  for (const ChapterMeasurement& measurement : chapterMeasurements)
    chapter.*measurement.value = readLevel(reader, measurement.name);
  return chapter;
}

ChapterFileFingerprint readChapterFileFingerprint(const Reader& reader) {
  return {.fileName = reader.member("fileName").text(),
          .durationCS = reader.member("durationCS").integer(),
          .sampleRate = reader.member("sampleRate").integer(),
          .channelCount = reader.member("channelCount").integer()};
}

ChapterReport readChapterReport(const Reader& reader) {
  ChapterReport report{.chapters = {},
                       .medianLUFS = readLevel(reader, "medianLUFS"),
                       .fileFingerprint = readChapterFileFingerprint(reader.member("fileFingerprint")),
                       .origin = reader.member("origin").enumeration<ChapterReport::Origin>()};
  for (const Reader& chapter : reader.member("chapters").elements())
    report.chapters.push_back(readChapter(chapter));
  return report;
}

std::optional<std::string> documentText(const ChapterDetectionSettings& settings) {
  return textOf(settings);
}

std::optional<std::string> documentText(const ChapterReport& report) {
  return textOf(report);
}

ChapterDetectionSettings parseChapterDetectionSettings(std::string_view text) {
  const Value document = parse(text);
  return readChapterDetectionSettings(Reader(document));
}

ChapterReport parseChapterReport(std::string_view text) {
  const Value document = parse(text);
  return readChapterReport(Reader(document));
}

}  // namespace vellum::Json
