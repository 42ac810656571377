#include "VellumApp/ChapterRendering.hpp"

#include <algorithm>
#include <memory>
#include <system_error>
#include <utility>

#include "VellumApp/AudioFile.hpp"
#include "VellumApp/AudioFileWriter.hpp"
#include "VellumApp/ChapterExports.hpp"
#include "VellumApp/OutputFile.hpp"

namespace vellum {
namespace {

namespace fs = std::filesystem;
using ChapterAnalyser::FrameRange;

// What both kinds of output take from the input.
struct InputTraits {
  std::vector<AudioChannelLabel> channelLabels;
  AudioMetadata metadata;
};

InputTraits traitsOf(const ChapterProgramme& programme, const ChapterOutput& output,
                     const RenderSettings& rendering) {
  const AudioFile file(programme.path);
  InputTraits traits{output.channelLabels.value_or(file.channelLabels()), file.metadata()};
  if (rendering.curve) clearLoudness(traits.metadata);
  return traits;
}

void refuseFormat(const AudioFileFormat& format, const ChapterProgramme& programme, std::int64_t frameCount,
                  const InputTraits& traits) {
  const auto reason =
      reasonAgainst(format, programme.sampleRate, programme.channelCount, frameCount, traits.channelLabels);
  if (reason) throw FileError(*reason);
}

// Hands the rendered frames to `sink`, which names its own errors. Absent: interrupted.
std::optional<RenderResult> renderAll(const ChapterProgramme& programme, const RenderSettings& rendering,
                                      const RenderSink& sink,
                                      const std::function<bool(const MeasureProgress&)>& goOn) {
  return naming(programme.path, [&] {
    const auto tell = [&](std::int64_t frames) {
      return goOn({static_cast<double>(frames) / programme.sampleRate, programme.figures.durationSec});
    };
    auto rendered = render(programme.path, rendering, sink, tell);
    if (rendered && rendered->frameCount != programme.figures.frameCount)
      throw FileError("it changed while it was read");
    return rendered;
  });
}

void noteClipping(std::vector<std::string>& notes, const RenderResult& rendered) {
  if (rendered.clippedSamples > 0) notes.push_back(samplesWereClipped(rendered.clippedSamples));
}

FrameRange framesOf(const Chapter& chapter, const ChapterProgramme& programme) {
  return ChapterAnalyser::framesOf(chapter, programme.sampleRate, programme.figures.frameCount);
}

// --- Parts of a file -------------------------------------------------------------------------------------

// The Broadcast Wave extension's time reference (EBU Tech 3285): samples since midnight, 64 bits, little
// endian.
void moveTimeReference(std::string& bext, std::int64_t frames) {
  constexpr std::size_t at = 338, width = 8;
  if (bext.size() < at + width) return;
  std::uint64_t reference = 0;
  for (std::size_t k = width; k-- > 0;) reference = reference << 8 | static_cast<unsigned char>(bext[at + k]);
  reference += static_cast<std::uint64_t>(frames);
  for (std::size_t k = 0; k < width; ++k) bext[at + k] = static_cast<char>(reference >> (8 * k) & 0xFF);
}

AudioMetadata metadataOf(const Chapter& chapter, const FrameRange& frames, AudioMetadata metadata) {
  clearLoudness(metadata);  // it was the whole programme's
  metadata.tags[AudioTag::title] = chapter.name;
  metadata.tags[AudioTag::trackNumber] = std::to_string(chapter.index);
  moveTimeReference(metadata.bext, frames.start);
  std::erase_if(metadata.markers, [&](const AudioMetadata::Marker& marker) {
    return marker.frame < frames.start || marker.frame >= frames.end;
  });
  for (AudioMetadata::Marker& marker : metadata.markers) marker.frame -= frames.start;
  return metadata;
}

std::string extensionFor(const AudioFileFormat& format, const fs::path& input) {
  const auto own = containerOfExtension(input);
  const bool isFitting =
      own == format.container || (own == Container::wav && format.container == Container::rf64);
  if (isFitting) return input.extension().string();
  switch (format.container) {
    case Container::wav:
      return ".wav";
    case Container::rf64:
      return ".rf64";
    case Container::aiff:
      return ".aiff";
    case Container::caf:
      return ".caf";
    case Container::flac:
      break;
  }
  return ".flac";
}

// Cuts what streams by into the chapters' files.
class Splitter {
 public:
  Splitter(const ChapterProgramme& programme, std::span<const Chapter> chapters, const ChapterOutput& output,
           const AudioFileFormat& format, InputTraits traits)
      : programme_(programme),
        chapters_(chapters),
        output_(output),
        format_(format),
        traits_(std::move(traits)) {
    for (const SplitFile& file : splitFilesOf(programme, chapters, output))
      waiting_.push_back({file, framesOf(chapters[file.chapter], programme)});
    // The last one starts first.
    std::stable_sort(waiting_.begin(), waiting_.end(),
                     [](const Part& a, const Part& b) { return a.frames.start > b.frames.start; });
  }

  void add(std::span<const float* const> channelData, std::int64_t frameCount) {
    const std::int64_t chunkEnd = position_ + frameCount;
    while (!waiting_.empty() && waiting_.back().frames.start < chunkEnd) {
      open(waiting_.back());
      waiting_.pop_back();
    }
    std::vector<const float*> piece(channelData.size());
    for (Open& part : open_) {
      const std::int64_t from = std::max(part.frames.start, position_);
      const std::int64_t to = std::min(part.frames.end, chunkEnd);
      for (std::size_t c = 0; c < piece.size(); ++c) piece[c] = channelData[c] + (from - position_);
      naming(part.path, [&] {
        part.writer->write(piece, to - from);
        if (to < part.frames.end) return;
        part.writer->finish();
        part.writer->commit();
      });
    }
    std::erase_if(open_, [&](const Open& part) { return part.frames.end <= chunkEnd; });
    position_ = chunkEnd;
  }

  std::vector<std::string> takeLosses() { return std::move(losses_); }

 private:
  struct Part {
    SplitFile file;
    FrameRange frames;
  };
  struct Open {
    fs::path path;
    FrameRange frames;
    std::unique_ptr<AudioFileWriter> writer;
  };

  void open(const Part& part) {
    const fs::path& path = part.file.path;
    naming(path, [&] {
      auto writer = std::make_unique<AudioFileWriter>(AudioFileWriter::Settings{
          .output = {.path = path, .replacesExisting = output_.replacesExisting, .inputs = output_.inputs},
          .format = format_,
          .sampleRate = programme_.sampleRate,
          .channelCount = programme_.channelCount,
          .channelLabels = traits_.channelLabels,
          .frameCount = part.frames.end - part.frames.start,
          .metadata = metadataOf(chapters_[part.file.chapter], part.frames, traits_.metadata)});
      for (const std::string& loss : writer->losses())
        if (std::find(losses_.begin(), losses_.end(), loss) == losses_.end()) losses_.push_back(loss);
      open_.push_back({path, part.frames, std::move(writer)});
    });
  }

  const ChapterProgramme& programme_;
  std::span<const Chapter> chapters_;
  const ChapterOutput& output_;
  AudioFileFormat format_;
  InputTraits traits_;
  std::vector<Part> waiting_;
  std::vector<Open> open_;
  std::int64_t position_ = 0;
  std::vector<std::string> losses_;
};

}  // namespace

AudioFileFormat checkedFormat(const fs::path& input, const ChapterOutput& output) {
  naming(output.path, [&] {
    refuseImpossibleName(output.path, output.format);
    OutputFile({.path = output.path, .replacesExisting = output.replacesExisting, .inputs = output.inputs});
  });
  return naming(input, [&] { return formatFor(AudioFile(input), output.path, output.format); });
}

std::optional<RenderedProgramme> renderProgramme(const ChapterProgramme& programme,
                                                 std::span<const Chapter> chapters,
                                                 const RenderSettings& rendering, const ChapterOutput& output,
                                                 const RenderGoOn& goOn) {
  InputTraits traits = naming(programme.path, [&] { return traitsOf(programme, output, rendering); });
  const AudioFileFormat format = naming(
      programme.path, [&] { return formatFor(AudioFile(programme.path), output.path, output.format); });
  auto writer = naming(output.path, [&] {
    return std::make_unique<AudioFileWriter>(AudioFileWriter::Settings{
        .output = {.path = output.path, .replacesExisting = output.replacesExisting, .inputs = output.inputs},
        .format = format,
        .sampleRate = programme.sampleRate,
        .channelCount = programme.channelCount,
        .channelLabels = traits.channelLabels,
        .frameCount = programme.figures.frameCount,
        .metadata = std::move(traits.metadata)});
  });
  const auto put = [&](std::span<const float* const> channelData, std::int64_t frameCount) {
    naming(output.path, [&] { writer->write(channelData, frameCount); });
  };
  const auto rendered = renderAll(programme, rendering, put, [&](const MeasureProgress& progress) {
    return goOn(RenderStep::rendering, progress);
  });
  if (!rendered) return {};
  return naming(output.path, [&]() -> std::optional<RenderedProgramme> {
    writer->finish();
    auto after = measureChapters(
        writer->temporaryPath(), programme, chapters,
        [&](const MeasureProgress& progress) { return goOn(RenderStep::verifying, progress); });
    if (!after) return {};
    writer->commit();
    RenderedProgramme result{*std::move(after), writer->losses()};
    noteClipping(result.notes, *rendered);
    return result;
  });
}

AudioFileFormat checkedSplitFormat(const fs::path& input, const ChapterOutput& output) {
  std::error_code ignored;
  if (fs::exists(output.path, ignored) && !fs::is_directory(output.path, ignored))
    throw NamedFileError(output.path, FileError("it is no folder"));
  return naming(input, [&] { return formatFor(AudioFile(input), "part", output.format); });
}

std::vector<SplitFile> splitFilesOf(const ChapterProgramme& programme, std::span<const Chapter> chapters,
                                    const ChapterOutput& output) {
  const AudioFileFormat format = checkedSplitFormat(programme.path, output);
  const std::string extension = extensionFor(format, programme.path);
  std::vector<SplitFile> files;
  for (std::size_t k = 0; k < chapters.size(); ++k) {
    const FrameRange frames = framesOf(chapters[k], programme);
    if (frames.start >= frames.end) continue;
    files.push_back(
        {k, output.path / (ChapterExports::fileNameOf(chapters[k], chapters.size()) + extension)});
  }
  return files;
}

std::optional<std::vector<std::string>> renderSplit(const ChapterProgramme& programme,
                                                    std::span<const Chapter> chapters,
                                                    const RenderSettings& rendering,
                                                    const ChapterOutput& output, const ScanGoOn& goOn) {
  const AudioFileFormat format = checkedSplitFormat(programme.path, output);
  InputTraits traits = naming(programme.path, [&] { return traitsOf(programme, output, rendering); });
  naming(output.path, [&] {
    std::int64_t longest = 0;
    for (const Chapter& chapter : chapters) {
      const FrameRange frames = framesOf(chapter, programme);
      longest = std::max(longest, frames.end - frames.start);
    }
    refuseFormat(format, programme, longest, traits);
    std::error_code error;
    fs::create_directory(output.path, error);
    if (error) throw FileError("the folder cannot be made: " + error.message());
  });
  for (const SplitFile& file : splitFilesOf(programme, chapters, output))
    naming(file.path, [&] {
      OutputFile({.path = file.path, .replacesExisting = output.replacesExisting, .inputs = output.inputs});
    });
  Splitter splitter(programme, chapters, output, format, std::move(traits));
  const auto put = [&](std::span<const float* const> channelData, std::int64_t frameCount) {
    splitter.add(channelData, frameCount);
  };
  const auto rendered = renderAll(programme, rendering, put, goOn);
  if (!rendered) return {};
  std::vector<std::string> notes = splitter.takeLosses();
  noteClipping(notes, *rendered);
  return notes;
}

}  // namespace vellum
