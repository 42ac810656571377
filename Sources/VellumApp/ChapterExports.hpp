#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "VellumCore/ChapterReport.hpp"
#include "VellumCore/Json/Document.hpp"

// Chapters in the forms that other software reads. All texts are UTF-8 with LF, and put the chapters in the
// order of their starts. Times are kept within the file.
namespace vellum::ChapterExports {

struct Source {
  std::span<const Chapter> chapters;
  std::string fileName;  // of the audio, as a text may name it
  double sampleRate;     // Hz
  double durationSec;
};

// Why a cue sheet cannot hold the chapters: it ends at 99 tracks, and at 99:59:74. Absent where it can.
std::optional<std::string> reasonAgainstCueSheet(const Source& source);
// One FILE, one TRACK per chapter with TITLE and INDEX 01, in 75ths of a second, nearest. It knows no ends: a
// track lasts until the next one starts. Quotation marks cannot be written and become apostrophes, control
// characters become spaces. What reasonAgainstCueSheet refuses stops the program.
std::string cueSheet(const Source& source);

// FFmpeg's metadata file: a [CHAPTER] with TIMEBASE, START, END (exclusive, in frames) and title each. Of a
// title = ; # \ and line feeds are escaped by a backslash.
std::string ffmetadata(const Source& source);

// Lines of start, end and name with tabs between, seconds with 6 decimals: label tracks of audio editors.
// Control characters in a name become spaces.
std::string labels(const Source& source);

// The JSON chapters of the Podcasting 2.0 namespace, version 1.2.0: startTime, endTime, title.
std::string podcastChapters(const Source& source);

// What a table tells of a chapter beside its record, one per chapter in their order.
struct Judgement {
  std::optional<float> deviation;  // of the chosen metric from its own median
  bool isFlagged;
  std::optional<float> gainDB;  // proposed
};

// A header line, then one line per chapter in the order given (RFC 4180, but LF): the members of a chapter,
// durationSec, and those of its judgement. What was not measured is empty.
std::string csv(std::span<const Chapter> chapters, std::span<const Judgement> judgements);

// The documents' members, for a record that holds them.
Json::Value documentOf(const Chapter& chapter);
Json::Value documentOf(const ChapterReport& report);
Json::Value documentOf(const ChapterDetectionSettings& settings);

// A file name without extension: "01 Chapter 01". The number has as many digits as `count` has, at least 2.
// What some file system does not take becomes "_", and long names are cut.
std::string fileNameOf(const Chapter& chapter, std::size_t count);

}  // namespace vellum::ChapterExports
