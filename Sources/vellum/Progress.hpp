#pragma once

#include <chrono>
#include <cstddef>
#include <filesystem>
#include <map>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include "VellumApp/FileMeasurement.hpp"

namespace vellum {

// One line on standard error that is drawn again and again while files are measured: how far the first
// unfinished one is, how long those under way will take, and how many times faster than real time the work
// goes. Nothing where it is no terminal.
// advance and finish may be called by any thread, draw and clear by the one that prints.
class Progress {
 public:
  explicit Progress(std::vector<std::string> fileNames);
  ~Progress() { clear(); }

  void advance(std::size_t file, const MeasureProgress& progress);
  void finish(std::size_t file);

  void draw();   // does nothing if it was drawn a moment ago
  void clear();  // before anything else is printed

 private:
  using Clock = std::chrono::steady_clock;
  std::string line() const;

  const std::vector<std::string> fileNames_;
  const bool isShown_;
  const Clock::time_point start_ = Clock::now();
  Clock::time_point lastDrawn_ = start_;
  bool isOnScreen_ = false;

  mutable std::mutex mutex_;
  std::map<std::size_t, MeasureProgress> underWay_;
  double finishedSec_ = 0;
};

// How far one step of the work on a file is: "rendering  song.wav". Answers whether to go on.
class StepWatch {
 public:
  StepWatch(std::string_view step, const std::filesystem::path& file);
  bool operator()(const MeasureProgress& done);

 private:
  Progress progress_;
};

}  // namespace vellum
