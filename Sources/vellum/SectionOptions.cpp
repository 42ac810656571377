#include "vellum/SectionOptions.hpp"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <string_view>

#include "VellumApp/SpectrumAnalysis.hpp"
#include "vellum/Numbers.hpp"
#include "vellum/Options.hpp"

namespace vellum {
namespace {

double timeArgument(std::string_view option, const std::string& text) {
  if (const auto seconds = parseTime(text)) return *seconds;
  refuse(option, fmt::format("'{}' is not a time; write seconds or h:mm:ss, not negative", text));
}

}  // namespace

SectionTimes sectionTimesArgument(const std::string& from, const std::string& to) {
  SectionTimes times;
  if (!from.empty()) times.fromSec = timeArgument("--from", from);
  if (!to.empty()) times.toSec = timeArgument("--to", to);
  if (times.toSec && *times.toSec <= times.fromSec.value_or(0))
    refuse("--to", "has to be later than the section's start");
  return times;
}

std::vector<std::int64_t> channelsArgument(const std::string& text) {
  std::vector<std::int64_t> channels;
  if (text.empty()) return channels;
  for (const std::string& part : splitAtCommas(text)) {
    const std::int64_t channel = wholeNumberArgument("--channels", part, 0, 1023);
    if (std::find(channels.begin(), channels.end(), channel) != channels.end())
      refuse("--channels", fmt::format("channel {} stands there twice", channel));
    channels.push_back(channel);
  }
  return channels;
}

std::optional<std::int64_t> fftSizeArgument(const std::string& option, const std::string& text) {
  if (text.empty()) return {};
  const double size = parseNumber(text).value_or(0);
  if (size != std::floor(size) || size > static_cast<double>(mostFFTSize) || size < 0 ||
      !isFFTSize(static_cast<std::int64_t>(size)))
    refuse(option, fmt::format("'{}' is not a power of two from {} to {}", text, leastFFTSize, mostFFTSize));
  return static_cast<std::int64_t>(size);
}

void addSectionOptions(CLI::App& verb, SectionArguments& arguments) {
  addTextOption(verb, "--from", arguments.from, "TIME", "Look from here on (seconds or h:mm:ss)");
  addTextOption(verb, "--to", arguments.to, "TIME", "Look up to here (seconds or h:mm:ss)");
  addTextOption(verb, "--channels", arguments.channels, "LIST",
                "Only these channels, counted from 0: 0,2 (all)");
}

std::string channelNumbers(const std::vector<std::int64_t>& channels) {
  std::string text;
  for (const std::int64_t channel : channels) text += fmt::format("{}{}", text.empty() ? "" : ", ", channel);
  return text;
}

}  // namespace vellum
