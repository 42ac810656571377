#include "vellum/FileBatch.hpp"

#include <fmt/format.h>

#include <algorithm>
#include <atomic>
#include <cstddef>
#include <exception>

#include "vellum/Console.hpp"
#include "vellum/InputFiles.hpp"
#include "vellum/Interrupt.hpp"
#include "vellum/Options.hpp"
#include "vellum/OrderedJobs.hpp"
#include "vellum/Output.hpp"
#include "vellum/Progress.hpp"

namespace vellum {
namespace {

// Whatever goes wrong with an input becomes its result.
FileResult resultOf(const FileBatch& batch, const InputFile& input, const FileBatch::GoOn& goOn) {
  const auto failure = [&](std::string_view error) {
    return FileResult{ExitCode::fileFailed, batch.failureText(input.path, error)};
  };
  if (input.error) return failure(*input.error);
  try {
    if (auto result = batch.work(input.path, goOn)) return *std::move(result);
    return failure("interrupted");  // nobody will read it
  } catch (const std::exception& error) {
    return failure(error.what());
  }
}

// How many files ended how.
struct Tally {
  std::size_t count = 0, failed = 0, missed = 0;

  void add(ExitCode exitCode) {
    ++count;
    if (exitCode == ExitCode::fileFailed) ++failed;
    if (exitCode == ExitCode::checkFailed) ++missed;
  }

  ExitCode exitCode() const {
    if (failed > 0) return ExitCode::fileFailed;
    return missed > 0 ? ExitCode::checkFailed : ExitCode::done;
  }

  void printSummary(const FileBatch& batch) const {
    const std::string files = fmt::format("{} file{}", count, count == 1 ? "" : "s");
    if (failed > 0) Console::printError(fmt::format("{} of {} could not be measured", failed, files));
    if (count == 1) return;  // its result says the rest
    if (missed > 0) Console::printNote(fmt::format("{} of {} {}", missed, files, batch.missed));
    if (failed + missed == 0) Console::printNote(fmt::format("{} {}", files, batch.done));
  }
};

}  // namespace

void addBatchOptions(CLI::App& verb, BatchArguments& arguments) {
  verb.add_option("FILE", arguments.files,
                  "Audio files: WAV, RF64, W64, AIFF, CAF, FLAC, Ogg Vorbis, Opus, MP3")
      ->required()
      ->type_name("");
  addTextOption(verb, "--out", arguments.out, "FILE",
                "Write to this file, which appears whole or not at all");
  verb.add_flag("--force", arguments.force, "Let --out replace an existing file");
  addTextOption(verb, "--jobs", arguments.jobs, "N", "Files measured side by side").capture_default_str();
  verb.add_flag("--recursive", arguments.recursive, "Measure the audio files in directories and below");
}

ExitCode runBatch(const BatchArguments& arguments, const FileBatch& batch) {
  if (arguments.force && arguments.out.empty()) refuse("--force", "needs --out");
  const std::size_t jobs = static_cast<std::size_t>(wholeNumberArgument("--jobs", arguments.jobs, 1, 256));
  const std::vector<InputFile> inputs = findInputFiles(arguments.files, arguments.recursive);
  std::vector<std::filesystem::path> paths = batch.furtherInputs;
  std::vector<std::string> names;
  for (const InputFile& input : inputs) {
    paths.push_back(input.path);
    names.push_back(input.path.filename().string());
  }

  Output output(arguments.out, arguments.force, paths);
  Progress progress(names);
  std::atomic<bool> stop = false;
  Tally tally;
  const auto work = [&](std::size_t index) {
    FileResult result = resultOf(batch, inputs[index], [&](const MeasureProgress& done) {
      progress.advance(index, done);
      return !stop;
    });
    progress.finish(index);
    return result;
  };
  const auto deliver = [&](std::size_t index, const FileResult& result) {
    progress.clear();
    if (index > 0) output.write(batch.separator);
    output.write(result.text);
    tally.add(result.exitCode);
  };
  const auto tick = [&] {
    if (Interrupt::wasAsked()) stop = true;
    progress.draw();
  };

  output.write(batch.header);
  runInOrder(inputs.size(), jobs, stop, work, deliver, tick);
  progress.clear();
  if (Interrupt::wasAsked()) return ExitCode::interrupted;
  output.commit();
  tally.printSummary(batch);
  return tally.exitCode();
}

}  // namespace vellum
