#pragma once

#include <CLI/App.hpp>
#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "VellumApp/FileMeasurement.hpp"
#include "vellum/ExitCode.hpp"

// What verbs have in common that print something about each of many files: inputs, folders, jobs side by
// side, progress, results in the order of the inputs, interruption, summary and exit code.
namespace vellum {

struct BatchArguments {
  std::vector<std::string> files;
  bool recursive = false, force = false;
  std::string out, jobs = "1";
};

// FILE, --out, --force, --jobs and --recursive.
void addBatchOptions(CLI::App& verb, BatchArguments& arguments);

struct FileResult {
  ExitCode exitCode;  // done, checkFailed or fileFailed
  std::string text;   // ready to be written
};

// What a verb does with a file, and how it words things.
struct FileBatch {
  using GoOn = std::function<bool(const MeasureProgress&)>;

  // Called by any thread. Absent once goOn answered false. What it throws becomes the file's failure.
  std::function<std::optional<FileResult>(const std::filesystem::path&, const GoOn&)> work;
  std::function<std::string(const std::filesystem::path&, std::string_view error)> failureText;
  std::string header;                                     // before the results
  std::string separator;                                  // between two results
  std::string_view done;                                  // in the summary: "3 files measured"
  std::string_view missed = "did not meet every target";  // "1 of 3 files ...", those with checkFailed
  std::vector<std::filesystem::path> furtherInputs;  // what the verb reads besides, and --out may not replace
};

// The worst of the files' exit codes: a file that failed outweighs one that did not pass its check.
// Throws CLI::ValidationError, and FileError where the output cannot be written.
ExitCode runBatch(const BatchArguments& arguments, const FileBatch& batch);

}  // namespace vellum
