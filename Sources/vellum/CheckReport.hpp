#pragma once

#include <filesystem>
#include <string>
#include <vector>

#include "VellumApp/FileMeasurement.hpp"
#include "VellumCore/Json/Document.hpp"
#include "VellumCore/LoudnessTargetEvaluation.hpp"

// Verdicts as text for people and as JSON records. In a record a figure that is not finite has no key.
namespace vellum::CheckReport {

// A file, what was judged of it, and the verdicts.
struct CheckedFile {
  const std::filesystem::path& path;
  const FileMeasurement& measured;
  LoudnessMeasurement judged;
  std::vector<LoudnessTargetEvaluation> evaluations;  // of `judged`; at least one
};

// Whether the target takes the file: not where the verdict is not compliant or unavailable. With isStrict a
// normalising outlet does not either if its true-peak ceiling is exceeded.
bool isMet(const LoudnessVerdict& verdict, bool isStrict);

Json::Object record(const LoudnessMeasurement& measurement);
Json::Object record(const LoudnessTargetEvaluation& evaluation, const LoudnessMeasurement& measurement);
Json::Object record(const CheckedFile& file);

// The target's name, then the verdict's lines below it; each begins with two spaces more than the last.
//   isStrict  also says where a target is not met by isMet's stricter rule, if the verdict's own lines do not
std::string verdictText(const LoudnessTargetEvaluation& evaluation, const LoudnessMeasurement& measurement,
                        bool isStrict);
// The figures that belong to the targets' modes, and every verdict.
std::string textBlock(const CheckedFile& file, bool isStrict);

}  // namespace vellum::CheckReport
