#pragma once

#include <optional>
#include <span>
#include <string>
#include <vector>

#include "VellumApp/ChapterExports.hpp"
#include "VellumApp/ChapterLeveling.hpp"
#include "VellumApp/ChapterProgramme.hpp"
#include "VellumCore/ChapterReport.hpp"
#include "VellumCore/Json/Document.hpp"

// What a programme's chapters measure, as text for people and as a JSON record.
namespace vellum::ChaptersReport {

// Chapters beside each other, before or after leveling.
struct Table {
  std::vector<Chapter> chapters;
  std::optional<float> median;                        // of the chosen metric
  std::vector<ChapterExports::Judgement> judgements;  // one per chapter, against that median
};

// Deviations and flags of the metric against its own median.
//   gainDB  one per chapter
Table tableOf(std::span<const Chapter> chapters, const ChapterDetectionSettings& settings,
              std::span<const std::optional<float>> gainDB);

struct Leveled {
  std::string path;  // of the rendered file; empty where only parts were written
  float target;
  Table table;  // its gains are those that were applied
  std::vector<LevelingMiss> misses;
  int rounds;
  double largestReductionDB;
};

struct Result {
  ChapterProgramme programme;
  ChapterDetectionSettings settings;
  ChapterReport report;
  Table table;  // its gains are proposed
  std::optional<Leveled> leveled;
  std::vector<std::string> notes;
};

std::string textBlock(const Result& result);
Json::Object record(const Result& result);

}  // namespace vellum::ChaptersReport
