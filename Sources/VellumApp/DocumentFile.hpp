#pragma once

#include <filesystem>
#include <string>
#include <string_view>

#include "VellumApp/EditScript.hpp"
#include "VellumApp/FileError.hpp"
#include "VellumApp/RoutesDocument.hpp"
#include "VellumCore/ChapterReport.hpp"
#include "VellumCore/GeneratorSpec.hpp"
#include "VellumCore/LoudnessTargetSelection.hpp"

// The JSON documents that a user keeps in files. All errors begin with the file's name: a document is never
// the only file of a task.
namespace vellum {

// A document that was read, and whose content is wrong: "my.json: customTargets[0].treatment: ...".
class FaultyDocument : public NamedFileError {
 public:
  using NamedFileError::NamedFileError;
};

// The file's bytes. Throws NamedFileError for what cannot be read, is no regular file, or is above 64 MiB.
std::string readDocument(const std::filesystem::path& path);

// Throws NamedFileError as readDocument, FaultyDocument for the content.
LoudnessTargetSelection readTargetSelection(const std::filesystem::path& path);
// What readTargetSelection reads back as an equal selection. Its custom targets' levels have to be finite.
std::string targetSelectionText(const LoudnessTargetSelection& selection);

// The same of chapters. What is outside of ChapterLimits is a faulty document too.
ChapterDetectionSettings readChapterDetectionSettings(const std::filesystem::path& path);
ChapterReport readChapterReport(const std::filesystem::path& path);
// The chapters' times have to be finite.
std::string chapterReportText(const ChapterReport& report);

// The same of a test signal. One that cannot become a file (SignalFile::faultOf) is a faulty document too.
GeneratorSpec readGeneratorSpec(const std::filesystem::path& path);
// The same of a document that is no file. Throws FaultyDocument, which begins with the name.
GeneratorSpec generatorSpecOf(std::string_view text, const std::filesystem::path& name);

// The same of routes between channels.
RoutesDocument readRoutesDocument(const std::filesystem::path& path);
RoutesDocument routesDocumentOf(std::string_view text, const std::filesystem::path& name);

// The same of spectral edits.
EditScript readEditScript(const std::filesystem::path& path);

}  // namespace vellum
