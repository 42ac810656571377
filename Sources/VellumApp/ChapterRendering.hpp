#pragma once

#include <cstddef>
#include <filesystem>
#include <functional>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "VellumApp/ChapterProgramme.hpp"
#include "VellumApp/OutputFormat.hpp"
#include "VellumApp/Rendering.hpp"

// Writing the chapters' programme as one file, or each chapter as a file of its own.
namespace vellum {

struct ChapterOutput {
  std::filesystem::path path;  // the file, or the folder for the chapters' files
  FormatChoice format;
  bool replacesExisting;
  std::vector<std::filesystem::path> inputs;  // which no output may replace
  // Instead of the input's own; one label per channel, in the file's order.
  std::optional<std::vector<AudioChannelLabel>> channelLabels;
};

enum class RenderStep { rendering, verifying };
using RenderGoOn = std::function<bool(RenderStep, const MeasureProgress&)>;  // false interrupts

// Everything here throws NamedFileError, which names the file: whatever reading and writing throw, a format
// that cannot take the audio.

// What is known to be impossible before the input is read to its end: the place, the name, the format.
// Answers the format that will be written.
AudioFileFormat checkedFormat(const std::filesystem::path& input, const ChapterOutput& output);

struct RenderedProgramme {
  MeasuredChapters after;          // of the written file
  std::vector<std::string> notes;  // what it cannot hold, and samples that were clipped
};
// Renders the whole programme, and measures the chapters of the file that was written. Absent: interrupted.
std::optional<RenderedProgramme> renderProgramme(const ChapterProgramme& programme,
                                                 std::span<const Chapter> chapters,
                                                 const RenderSettings& rendering, const ChapterOutput& output,
                                                 const RenderGoOn& goOn);

struct SplitFile {
  std::size_t chapter;  // from 0
  std::filesystem::path path;
};
// The folder's files, one per chapter that has frames, with the format's extension or the input's own.
std::vector<SplitFile> splitFilesOf(const ChapterProgramme& programme, std::span<const Chapter> chapters,
                                    const ChapterOutput& output);
// As checkedFormat, of the folder.
AudioFileFormat checkedSplitFormat(const std::filesystem::path& input, const ChapterOutput& output);
// Renders each chapter into its own file, which appears when it is complete. The folder is made where there
// is none. Titles and track numbers are the chapters', markers and Broadcast Wave time references move along.
// Answers what the files cannot hold, and samples that were clipped; absent: interrupted.
std::optional<std::vector<std::string>> renderSplit(const ChapterProgramme& programme,
                                                    std::span<const Chapter> chapters,
                                                    const RenderSettings& rendering,
                                                    const ChapterOutput& output, const ScanGoOn& goOn);

}  // namespace vellum
