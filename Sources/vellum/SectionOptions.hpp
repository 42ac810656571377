#pragma once

#include <CLI/App.hpp>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

// --from, --to and --channels: what of a file a verb looks at.
namespace vellum {

struct SectionTimes {
  std::optional<double> fromSec, toSec;  // from < to
};
// Throws CLI::ValidationError, as everything here. Empty texts were not given.
SectionTimes sectionTimesArgument(const std::string& from, const std::string& to);

// Channels by their numbers, from 0, with commas between. Empty: all of them.
std::vector<std::int64_t> channelsArgument(const std::string& text);

// A power of two that a transform of the pictures and spectra may have; absent where the text is empty.
std::optional<std::int64_t> fftSizeArgument(const std::string& option, const std::string& text);

struct SectionArguments {
  std::string from, to, channels;
};
void addSectionOptions(CLI::App& verb, SectionArguments& arguments);

// "0, 2".
std::string channelNumbers(const std::vector<std::int64_t>& channels);

}  // namespace vellum
