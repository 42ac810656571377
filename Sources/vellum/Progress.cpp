#include "vellum/Progress.hpp"

#include <fmt/format.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <utility>

#include "vellum/ClockText.hpp"
#include "vellum/Console.hpp"
#include "vellum/Interrupt.hpp"

namespace vellum {
namespace {

std::size_t terminalColumns() {
  winsize size{};
  return ::ioctl(STDERR_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 0 ? size.ws_col : 80;
}

// The first characters of UTF-8 text.
std::string_view firstCharacters(std::string_view text, std::size_t count) {
  std::size_t end = 0;
  for (std::size_t characters = 0; end < text.size(); ++end) {
    const bool startsCharacter = (static_cast<unsigned char>(text[end]) & 0xC0) != 0x80;
    if (startsCharacter && ++characters > count) break;
  }
  return text.substr(0, end);
}

std::string bar(double done, double total) {
  constexpr double width = 12;
  const auto filled = static_cast<std::size_t>(width * std::clamp(done / total, 0.0, 1.0));
  return fmt::format("[{:-<12}]", std::string(filled, '#'));
}

}  // namespace

Progress::Progress(std::vector<std::string> fileNames)
    : fileNames_(std::move(fileNames)), isShown_(Console::canRedraw()) {}

void Progress::advance(std::size_t file, const MeasureProgress& progress) {
  if (!isShown_) return;
  const std::lock_guard lock(mutex_);
  underWay_.insert_or_assign(file, progress);
}

void Progress::finish(std::size_t file) {
  if (!isShown_) return;
  const std::lock_guard lock(mutex_);
  if (const auto entry = underWay_.extract(file)) finishedSec_ += entry.mapped().doneSec;
}

void Progress::draw() {
  constexpr auto interval = std::chrono::milliseconds(90);
  const auto now = Clock::now();
  if (!isShown_ || now - lastDrawn_ < interval) return;
  const std::string text = line();
  if (text.empty()) return;
  fmt::print(stderr, "\r{}\x1b[K", firstCharacters(text, terminalColumns() - 1));
  lastDrawn_ = now;
  isOnScreen_ = true;
}

void Progress::clear() {
  if (!std::exchange(isOnScreen_, false)) return;
  fmt::print(stderr, "\r\x1b[K");
}

std::string Progress::line() const {
  const std::lock_guard lock(mutex_);
  if (underWay_.empty()) return {};
  const auto& [file, progress] = *underWay_.begin();

  double measuredSec = finishedSec_, leftSec = 0;
  for (const auto& [index, other] : underWay_) {
    measuredSec += other.doneSec;
    leftSec += std::max(0.0, other.totalSec.value_or(0) - other.doneSec);
  }
  const std::chrono::duration<double> elapsed = Clock::now() - start_;
  const double speed = measuredSec / elapsed.count();

  const bool hasTotal = progress.totalSec && *progress.totalSec > 0;
  const std::string left = hasTotal && speed > 0 ? clockText(leftSec / speed) + " left  " : "";
  return fmt::format("{}/{}  {}  {}  {}{:.0f}x  {}", file + 1, fileNames_.size(),
                     hasTotal ? bar(progress.doneSec, *progress.totalSec) : "",
                     hasTotal
                         ? fmt::format("{} / {}", clockText(progress.doneSec), clockText(*progress.totalSec))
                         : clockText(progress.doneSec),
                     left, speed, Console::printable(fileNames_[file]));
}

StepWatch::StepWatch(std::string_view step, const std::filesystem::path& file)
    : progress_({fmt::format("{}  {}", step, file.filename().string())}) {}

bool StepWatch::operator()(const MeasureProgress& done) {
  progress_.advance(0, done);
  progress_.draw();
  return !Interrupt::wasAsked();
}

}  // namespace vellum
