#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "VellumCore/ChapterReport.hpp"
#include "VellumCore/Json/Document.hpp"
#include "VellumCore/Json/Reader.hpp"

// Chapters, to and from JSON. The keys are the fields' names, in their order.
//
//   chapter      "id" (a UUID's text), "index", "name", "startSec", "endSec" are required; of the ten
//                measurements each has a key only where it was taken
//   fingerprint  {"fileName", "durationCS", "sampleRate", "channelCount"}: all four are required
//   settings     {"silenceThresholdDB", "minSilenceDuration", "deviationThresholdLU", "blockDuration",
//                "consistencyMetric"}: all are written; what is missing takes its default
//   report       {"chapters", "medianLUFS", "fileFingerprint", "origin"}: all but the median are required
//
// A measurement or median that is not finite is no JSON number: it has no key, and reads back as absent. The
// -infinity of a silent chapter lives in memory only.
namespace vellum::Json {

Value valueOf(const ChapterDetectionSettings& settings);
Value valueOf(const Chapter& chapter);
Value valueOf(const ChapterFileFingerprint& fingerprint);
Value valueOf(const ChapterReport& report);

// Throw DocumentError.
ChapterDetectionSettings readChapterDetectionSettings(const Reader& reader);
Chapter readChapter(const Reader& reader);
ChapterFileFingerprint readChapterFileFingerprint(const Reader& reader);
ChapterReport readChapterReport(const Reader& reader);

// Whole documents. Absent where a setting or a chapter's time is not finite.
std::optional<std::string> documentText(const ChapterDetectionSettings& settings);
std::optional<std::string> documentText(const ChapterReport& report);
// Throw DocumentError; there is no half-read document.
ChapterDetectionSettings parseChapterDetectionSettings(std::string_view text);
ChapterReport parseChapterReport(std::string_view text);

}  // namespace vellum::Json
