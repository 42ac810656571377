#include "vellum/ChaptersReport.hpp"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <string_view>
#include <utility>

#include "VellumCore/ChapterAnalysis.hpp"
#include "vellum/ClockText.hpp"
#include "vellum/Console.hpp"
#include "vellum/FigureText.hpp"

namespace vellum::ChaptersReport {
namespace {

bool isFinite(const std::optional<float>& level) {
  return level && std::isfinite(*level);
}

// --- Text

using Row = std::vector<std::string>;

std::string levelCell(const std::optional<float>& level) {
  if (!level) return "-";
  return std::isfinite(*level) ? decimal(*level) : "silent";
}

std::string signedCell(const std::optional<float>& level) {
  if (!isFinite(level)) return "-";
  const std::string text = decimal(*level);
  return text.front() == '-' || text == "0.0" ? text : fmt::format("+{}", text);
}

std::size_t characters(std::string_view text) {
  return static_cast<std::size_t>(std::count_if(
      text.begin(), text.end(), [](char c) { return (static_cast<unsigned char>(c) & 0xC0) != 0x80; }));
}

std::string nameCell(const std::string& name) {
  constexpr std::size_t most = 30;
  std::string text = Console::printable(name);
  if (characters(text) <= most) return text;
  while (characters(text) >= most) text.pop_back();
  while (!text.empty() && (static_cast<unsigned char>(text.back()) & 0xC0) == 0x80) text.pop_back();
  return text + "…";
}

Row rowOf(const Chapter& chapter, const ChapterExports::Judgement& judgement) {
  return {std::to_string(chapter.index),
          nameCell(chapter.name),
          clockTextWithTenths(chapter.startSec),
          clockTextWithTenths(chapter.endSec),
          clockTextWithTenths(chapter.durationSec()),
          levelCell(chapter.integratedLUFS),
          levelCell(chapter.rmsDBFS),
          levelCell(chapter.truePeakDBTP),
          levelCell(chapter.maxShortTermLUFS),
          levelCell(chapter.loudnessRange),
          isFinite(chapter.speechPercentage) ? decimal(*chapter.speechPercentage * 100) + " %" : "-",
          levelCell(chapter.noiseFloorDBRMS),
          signedCell(judgement.deviation) + (judgement.isFlagged ? " !" : "  "),
          signedCell(judgement.gainDB)};
}

std::string lines(const std::vector<Row>& rows) {
  constexpr std::size_t name = 1;  // the column that is set to the left
  std::vector<std::size_t> widths(rows.front().size());
  for (const Row& row : rows)
    for (std::size_t c = 0; c < row.size(); ++c) widths[c] = std::max(widths[c], characters(row[c]));
  std::string text;
  for (const Row& row : rows) {
    std::string line;
    for (std::size_t c = 0; c < row.size(); ++c) {
      const std::string padding(widths[c] - characters(row[c]), ' ');
      line += "  " + (c == name ? row[c] + padding : padding + row[c]);
    }
    text += line + "\n";
  }
  return text;
}

std::string tableText(const Table& table, const ChapterDetectionSettings& settings,
                      std::string_view gainTitle) {
  std::vector<Row> rows = {{"#", "Name", "Start", "End", "Length", "LUFS", "RMS", "dBTP", "Max S", "LRA",
                            "Speech", "Noise", "Dev  ", std::string(gainTitle)}};
  for (std::size_t k = 0; k < table.chapters.size(); ++k)
    rows.push_back(rowOf(table.chapters[k], table.judgements[k]));
  const auto flagged =
      std::count_if(table.judgements.begin(), table.judgements.end(),
                    [](const ChapterExports::Judgement& judgement) { return judgement.isFlagged; });
  const std::string_view metricUnit = unit(settings.consistencyMetric);
  return lines(rows) + fmt::format("  Median {}; {} of {} more than {} {} away{}\n",
                                   table.median ? fmt::format("{:.2f} {}", *table.median, metricUnit)
                                                : fmt::format("not measured ({})", metricUnit),
                                   flagged, table.chapters.size(), settings.deviationThresholdLU,
                                   shortUnit(settings.consistencyMetric), flagged > 0 ? " (!)" : "");
}

// "Chapter 3", "Chapters 3, 5, 9", and no more of them than a reader takes in.
std::string chaptersText(const std::vector<std::int64_t>& indexes) {
  constexpr std::size_t most = 20;
  const std::size_t shown = std::min(indexes.size(), most);
  const std::string rest =
      shown < indexes.size() ? fmt::format(" and {} more", indexes.size() - shown) : std::string();
  return fmt::format("Chapter{} {}{}", indexes.size() == 1 ? "" : "s",
                     fmt::join(indexes.begin(), indexes.begin() + static_cast<std::ptrdiff_t>(shown), ", "),
                     rest);
}

// Why some cells are empty.
std::vector<std::string> reasonsForGaps(const Result& result) {
  std::vector<std::int64_t> tooShort, behindEnd;
  for (const Chapter& chapter : result.table.chapters)
    if (!chapter.rmsDBFS)
      behindEnd.push_back(chapter.index);
    else if (chapter.durationSec() < ChapterAnalyser::minDurationForLUFS)
      tooShort.push_back(chapter.index);
  std::vector<std::string> reasons;
  if (!tooShort.empty())
    reasons.push_back(fmt::format("{}: shorter than {:.0f} s, so loudness is not measured",
                                  chaptersText(tooShort), ChapterAnalyser::minDurationForLUFS));
  if (!behindEnd.empty())
    reasons.push_back(
        fmt::format("{}: behind the end of the file, or no frame long", chaptersText(behindEnd)));
  return reasons;
}

std::string missText(const Leveled& leveled, const LevelingMiss& miss) {
  const Chapter& chapter = leveled.table.chapters[miss.chapter];
  return fmt::format("Chapter {} ({}): {}", chapter.index, Console::printable(chapter.name), miss.reason);
}

std::string leveledText(const Result& result, const Leveled& leveled) {
  const ChapterConsistencyMetric metric = result.settings.consistencyMetric;
  std::string text =
      fmt::format("\n{}\n", leveled.path.empty() ? "The chapters' files" : Console::printable(leveled.path));
  addLine(text, "Leveled to", fmt::format("{:.2f} {}", leveled.target, unit(metric)));
  addLine(text, "Rounds", std::to_string(leveled.rounds));
  addLine(text, "Limiter",
          leveled.largestReductionDB > 0
              ? fmt::format("takes at most {} dB", decimal(leveled.largestReductionDB))
              : "not needed");
  text += '\n';
  text += tableText(leveled.table, result.settings, "Applied");
  for (const LevelingMiss& miss : leveled.misses) addLine(text, "Not leveled", missText(leveled, miss));
  return text;
}

// --- JSON

template <typename Number>
void setIfFinite(Json::Object& record, std::string_view key, const std::optional<Number>& value) {
  if (value) setFigure(record, key, *value);
}

Json::Object rowRecord(const Chapter& chapter, const ChapterExports::Judgement& judgement) {
  Json::Object row;
  row.set("index", chapter.index);
  setIfFinite(row, "deviation", judgement.deviation);
  row.set("isFlagged", judgement.isFlagged);
  setIfFinite(row, "gainDB", judgement.gainDB);
  return row;
}

void setTable(Json::Object& record, const Table& table) {
  setIfFinite(record, "median", table.median);
  Json::Array rows;
  for (std::size_t k = 0; k < table.chapters.size(); ++k)
    rows.push_back(rowRecord(table.chapters[k], table.judgements[k]));
  record.set("rows", std::move(rows));
}

Json::Object leveledRecord(const Leveled& leveled) {
  Json::Object record;
  if (!leveled.path.empty()) record.set("file", leveled.path);
  setFigure(record, "target", leveled.target);
  record.set("rounds", leveled.rounds);
  setFigure(record, "largestReductionDB", leveled.largestReductionDB);
  Json::Array chapters, misses;
  for (const Chapter& chapter : leveled.table.chapters)
    chapters.push_back(ChapterExports::documentOf(chapter));
  for (const LevelingMiss& miss : leveled.misses) {
    Json::Object entry;
    entry.set("index", leveled.table.chapters[miss.chapter].index);
    entry.set("reason", miss.reason);
    misses.push_back(std::move(entry));
  }
  record.set("chapters", std::move(chapters));
  setTable(record, leveled.table);
  record.set("misses", std::move(misses));
  return record;
}

}  // namespace

Table tableOf(std::span<const Chapter> chapters, const ChapterDetectionSettings& settings,
              std::span<const std::optional<float>> gainDB) {
  Table table{.chapters = {chapters.begin(), chapters.end()},
              .median = ChapterAnalyser::median(chapters, settings.consistencyMetric),
              .judgements = {}};
  for (std::size_t k = 0; k < chapters.size(); ++k) {
    ChapterExports::Judgement judgement{.deviation = {}, .isFlagged = false, .gainDB = gainDB[k]};
    const auto level = ChapterAnalyser::value(chapters[k], settings.consistencyMetric);
    if (table.median && isFinite(level)) {
      judgement.deviation = *level - *table.median;
      judgement.isFlagged = std::fabs(*judgement.deviation) > settings.deviationThresholdLU;
    }
    table.judgements.push_back(judgement);
  }
  return table;
}

std::string textBlock(const Result& result) {
  const ChapterProgramme& programme = result.programme;
  const ProgrammeFigures& figures = programme.figures;
  std::string text = Console::printable(programme.path.string()) + "\n";
  addLine(text, "Audio",
          fmt::format("{}, {} Hz, {} channel{}, {}", programme.formatName, programme.sampleRate,
                      programme.channelCount, programme.channelCount == 1 ? "" : "s",
                      clockTextWithTenths(figures.durationSec)));
  addLine(text, "Integrated loudness", figure(figures.integratedLUFS, "LUFS"));
  addLine(text, "RMS", figure(figures.rmsDBFS, "dBFS"));
  addLine(text, "True peak", figure(figures.truePeakDBTP, "dBTP"));
  addLine(text, "Speech", fmt::format("{} %", decimal(figures.speechPercentage)));
  text += '\n';
  text += tableText(result.table, result.settings, "Gain");
  for (const std::string& reason : reasonsForGaps(result)) addLine(text, "Note", reason);
  if (result.leveled) text += leveledText(result, *result.leveled);
  for (const std::string& note : result.notes) addLine(text, "Note", Console::printable(note));
  return text;
}

Json::Object record(const Result& result) {
  const ProgrammeFigures& figures = result.programme.figures;
  Json::Object record;
  record.set("file", result.programme.path.string());
  record.set("durationSec", figures.durationSec);
  setFigure(record, "integratedLUFS", figures.integratedLUFS);
  setFigure(record, "rmsDBFS", figures.rmsDBFS);
  setFigure(record, "truePeakDBTP", figures.truePeakDBTP);
  setFigure(record, "speechPercentage", figures.speechPercentage);
  record.set("settings", ChapterExports::documentOf(result.settings));
  record.set("report", ChapterExports::documentOf(result.report));
  setTable(record, result.table);
  if (result.leveled) record.set("leveled", leveledRecord(*result.leveled));
  if (!result.notes.empty()) record.set("notes", Json::Array(result.notes.begin(), result.notes.end()));
  return record;
}

}  // namespace vellum::ChaptersReport
