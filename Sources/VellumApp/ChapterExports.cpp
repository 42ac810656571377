#include "VellumApp/ChapterExports.hpp"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <utility>

#include "VellumApp/CSVCell.hpp"
#include "VellumCore/Json/ChapterDocuments.hpp"
#include "VellumCore/Support/Require.hpp"

namespace vellum::ChapterExports {
namespace {

constexpr std::int64_t cueFramesPerSec = 75;
constexpr std::int64_t mostCueTracks = 99;
constexpr std::int64_t lastCueFrame = (99 * 60 + 59) * cueFramesPerSec + 74;

struct Mark {
  double startSec, endSec;
  std::string_view name;
};

std::vector<Mark> marksOf(const Source& source) {
  std::vector<Mark> marks;
  for (const Chapter& chapter : source.chapters)
    marks.push_back({std::clamp(chapter.startSec, 0.0, source.durationSec),
                     std::clamp(chapter.endSec, 0.0, source.durationSec), chapter.name});
  std::stable_sort(marks.begin(), marks.end(),
                   [](const Mark& a, const Mark& b) { return a.startSec < b.startSec; });
  return marks;
}

bool isControl(char c) {
  return static_cast<unsigned char>(c) < 0x20 || c == 0x7F;
}

std::string onOneLine(std::string_view text) {
  std::string line(text);
  for (char& c : line)
    if (isControl(c)) c = ' ';
  return line;
}

// --- Cue sheet

std::int64_t cueFrameOf(double seconds) {
  return std::llround(seconds * static_cast<double>(cueFramesPerSec));
}

std::string cueTime(std::int64_t frame) {
  return fmt::format("{:02}:{:02}:{:02}", frame / (60 * cueFramesPerSec), frame / cueFramesPerSec % 60,
                     frame % cueFramesPerSec);
}

std::string quotedInCue(std::string_view text) {
  std::string quoted = onOneLine(text);
  std::replace(quoted.begin(), quoted.end(), '"', '\'');
  return '"' + quoted + '"';
}

// The word for the kind of file. Players take WAVE for everything that they decode themselves, FLAC too.
std::string_view cueFileType(const std::string& fileName) {
  std::string extension = fileName.substr(std::min(fileName.rfind('.'), fileName.size()));
  for (char& c : extension)
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
  if (extension == ".mp3") return "MP3";
  if (extension == ".aif" || extension == ".aiff" || extension == ".aifc") return "AIFF";
  return "WAVE";
}

// --- FFmpeg

std::string escapedForFFmpeg(std::string_view text) {
  std::string escaped;
  for (const char c : text) {
    if (c == '\0') continue;  // it would end the file
    if (std::string_view("=;#\\\n").find(c) != std::string_view::npos) escaped += '\\';
    escaped += c;
  }
  return escaped;
}

// --- CSV

std::string cell(const Json::Value& value) {
  if (const auto* text = std::get_if<std::string>(&value.content())) return csvCell(*text);
  return Json::compactText(value);
}

std::string levelCell(const std::optional<float>& level) {
  return level && std::isfinite(*level) ? cell(*level) : "";
}

std::string joined(const std::vector<std::string>& cells) {
  return fmt::format("{}\n", fmt::join(cells, ","));
}

// --- File names

bool isUnsafe(char c) {
  return isControl(c) || std::string_view("/\\:*?\"<>|").find(c) != std::string_view::npos;
}

// At most so many bytes, and no part of a character.
std::string_view firstBytes(std::string_view text, std::size_t most) {
  if (text.size() <= most) return text;
  while (most > 0 && (static_cast<unsigned char>(text[most]) & 0xC0) == 0x80) --most;
  return text.substr(0, most);
}

}  // namespace

std::optional<std::string> reasonAgainstCueSheet(const Source& source) {
  const std::vector<Mark> marks = marksOf(source);
  if (static_cast<std::int64_t>(marks.size()) > mostCueTracks)
    return fmt::format("a cue sheet has at most {} tracks, and there are {} chapters", mostCueTracks,
                       marks.size());
  if (!marks.empty() && cueFrameOf(marks.back().startSec) > lastCueFrame)
    return fmt::format("a cue sheet ends at {}, and a chapter starts at {}", cueTime(lastCueFrame),
                       cueTime(cueFrameOf(marks.back().startSec)));
  return {};
}

std::string cueSheet(const Source& source) {
  VELLUM_REQUIRE(!reasonAgainstCueSheet(source), "ChapterExports: a cue sheet cannot hold these chapters");
  std::string text = fmt::format("FILE {} {}\n", quotedInCue(source.fileName), cueFileType(source.fileName));
  int track = 0;
  for (const Mark& mark : marksOf(source))
    text += fmt::format("  TRACK {:02} AUDIO\n    TITLE {}\n    INDEX 01 {}\n", ++track,
                        quotedInCue(mark.name), cueTime(cueFrameOf(mark.startSec)));
  return text;
}

std::string ffmetadata(const Source& source) {
  const auto frameOf = [&](double seconds) { return std::llround(seconds * source.sampleRate); };
  std::string text = ";FFMETADATA1\n";
  for (const Mark& mark : marksOf(source))
    text +=
        fmt::format("[CHAPTER]\nTIMEBASE=1/{}\nSTART={}\nEND={}\ntitle={}\n", std::llround(source.sampleRate),
                    frameOf(mark.startSec), frameOf(mark.endSec), escapedForFFmpeg(mark.name));
  return text;
}

std::string labels(const Source& source) {
  std::string text;
  for (const Mark& mark : marksOf(source))
    text += fmt::format("{:.6f}\t{:.6f}\t{}\n", mark.startSec, mark.endSec, onOneLine(mark.name));
  return text;
}

std::string podcastChapters(const Source& source) {
  Json::Array chapters;
  for (const Mark& mark : marksOf(source)) {
    Json::Object chapter;
    chapter.set("startTime", mark.startSec);
    chapter.set("endTime", mark.endSec);
    chapter.set("title", mark.name);
    chapters.push_back(std::move(chapter));
  }
  Json::Object document;
  document.set("version", "1.2.0");
  document.set("chapters", std::move(chapters));
  return Json::indentedText(document) + "\n";
}

std::string csv(std::span<const Chapter> chapters, std::span<const Judgement> judgements) {
  VELLUM_REQUIRE(chapters.size() == judgements.size(), "ChapterExports: one judgement per chapter");
  std::vector<std::string> names = {"id", "index", "name", "startSec", "endSec", "durationSec"};
  for (const ChapterMeasurement& measurement : chapterMeasurements) names.emplace_back(measurement.name);
  names.insert(names.end(), {"deviation", "isFlagged", "gainDB"});
  std::string text = joined(names);
  for (std::size_t k = 0; k < chapters.size(); ++k) {
    const Chapter& chapter = chapters[k];
    std::vector<std::string> cells = {cell(chapter.id.text()), cell(chapter.index),
                                      cell(chapter.name),      cell(chapter.startSec),
                                      cell(chapter.endSec),    cell(chapter.durationSec())};
    for (const ChapterMeasurement& measurement : chapterMeasurements)
      cells.push_back(levelCell(chapter.*measurement.value));
    cells.push_back(levelCell(judgements[k].deviation));
    cells.push_back(cell(judgements[k].isFlagged));
    cells.push_back(levelCell(judgements[k].gainDB));
    text += joined(cells);
  }
  return text;
}

Json::Value documentOf(const Chapter& chapter) {
  return Json::valueOf(chapter);
}
Json::Value documentOf(const ChapterReport& report) {
  return Json::valueOf(report);
}
Json::Value documentOf(const ChapterDetectionSettings& settings) {
  return Json::valueOf(settings);
}

std::string fileNameOf(const Chapter& chapter, std::size_t count) {
  constexpr std::size_t mostBytes = 120;  // file systems take 255, with index and extension
  const std::size_t digits = std::max<std::size_t>(2, std::to_string(count).size());
  std::string name(firstBytes(chapter.name, mostBytes));
  for (char& c : name)
    if (isUnsafe(c)) c = '_';
  // Spaces at the ends get lost on the way, and so do dots at the end.
  name.erase(0, std::min(name.find_first_not_of(' '), name.size()));
  name.resize(name.find_last_not_of(" .") + 1);  // npos + 1 is 0
  const std::string number = fmt::format("{:0{}}", chapter.index, digits);
  return name.empty() ? number : number + " " + name;
}

}  // namespace vellum::ChapterExports
