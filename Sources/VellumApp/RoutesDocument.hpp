#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "VellumApp/FileError.hpp"
#include "VellumCore/AudioChannelLayout.hpp"
#include "VellumCore/SurroundBake.hpp"

namespace vellum {

// How the channels of a file become other channels, as a JSON document says it. What stands after "=" is read
// where a member is missing or null; other members are ignored.
//
//   document  {"description" = "", "unused" = any channel, "outputs"}
//   output    {"label" = none, "routes"}
//   route     {"source", "gain" = 1 or "gainDB" = 0, "useQuadrature" = false}
//   source    a channel's number from 0, the short name of a channel (ChannelOrder), or a list of names
struct RoutesDocument {
  using Names = std::vector<AudioChannelLabel>;
  struct Route {
    std::variant<std::int64_t, Names> source;  // of names the first one that the input has
    float gain;
    bool useQuadrature;
    friend bool operator==(const Route&, const Route&) = default;
  };
  struct Output {
    std::optional<AudioChannelLabel> label;
    std::vector<Route> routes;
    friend bool operator==(const Output&, const Output&) = default;
  };
  std::string description;
  std::vector<Output> outputs;
  std::optional<Names> unused;  // channels that may go to no output; absent: any

  // What a document may hold: as many channels as containers do, and gains that leave 32 bits room.
  static constexpr std::int64_t mostChannels = 1024;
  static constexpr double largestGain = 1000, leastGainDB = -200, mostGainDB = 60;

  friend bool operator==(const RoutesDocument&, const RoutesDocument&) = default;
};

// Throws Json::DocumentError: what is no such document, numbers outside of the limits, outputs of one label.
RoutesDocument parseRoutesDocument(std::string_view text);

// A document's routes for an input.
struct Routing {
  std::vector<std::vector<SurroundBake::Route>> outputRoutes;
  std::vector<AudioChannelLabel> sourceLabels;  // one per channel, as far as known
  std::vector<AudioChannelLabel> outputLabels;  // one per output, or none at all
  std::vector<std::int64_t> unusedSources;      // channels of the input that go to no output
};

// Every route's source is a channel of the input. A file of one or two channels that does not tell which they
// are is taken as M, or as L R.
//   labels  one per channel, or none at all: the input does not tell
// Throws FileError: a source that the input does not have, a channel that would go nowhere and may not.
Routing routingFor(const RoutesDocument& document, std::span<const AudioChannelLabel> labels,
                   std::int64_t channelCount);

// "L", or "Ch3" of a channel without a name.
std::vector<std::string> channelNames(std::span<const AudioChannelLabel> labels, std::int64_t channelCount);

}  // namespace vellum
