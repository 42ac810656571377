#include "VellumApp/RoutesDocument.hpp"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <set>
#include <utility>

#include "VellumCore/ChannelOrder.hpp"
#include "VellumCore/Json/Document.hpp"
#include "VellumCore/Json/DocumentError.hpp"
#include "VellumCore/Json/Reader.hpp"

namespace vellum {
namespace {

using Json::Reader;
using Kind = Json::DocumentError::Kind;
using Names = RoutesDocument::Names;

constexpr AudioChannelLabel left = 1, right = 2, mono = 42;

// --- Reading ---------------------------------------------------------------------------------------------

std::vector<Reader> elements(const Reader& reader, std::int64_t least) {
  std::vector<Reader> all = reader.elements();
  const auto count = static_cast<std::int64_t>(all.size());
  if (count < least) reader.fail(Kind::dataCorrupted, "there is none");
  if (count > RoutesDocument::mostChannels)
    reader.fail(Kind::dataCorrupted, fmt::format("there are {}, and at most {} are possible", count,
                                                 RoutesDocument::mostChannels));
  return all;
}

AudioChannelLabel readName(const Reader& reader) {
  const std::string name = reader.text();
  if (const auto label = ChannelOrder::labelOfShortName(name)) return *label;
  reader.fail(Kind::dataCorrupted,
              fmt::format("'{}' is not a channel; the channels are {}", name,
                          fmt::join(ChannelOrder::displayShortNames(ChannelOrder::namedLabels()), " ")));
}

Names readNames(const Reader& reader, std::int64_t least) {
  Names names;
  for (const Reader& element : elements(reader, least)) names.push_back(readName(element));
  return names;
}

std::variant<std::int64_t, Names> readSource(const Reader& reader) {
  const Json::Value::Content& content = reader.value().content();
  if (std::holds_alternative<std::string>(content)) return Names{readName(reader)};
  if (std::holds_alternative<Json::Array>(content)) return readNames(reader, 1);
  const std::int64_t index = reader.integer();
  if (index < 0 || index >= RoutesDocument::mostChannels)
    reader.fail(Kind::dataCorrupted,
                fmt::format("{} is not from 0 to {}", index, RoutesDocument::mostChannels - 1));
  return index;
}

double readInRange(const Reader& reader, double least, double most) {
  const double value = reader.float64();
  if (!(value >= least && value <= most))
    reader.fail(Kind::dataCorrupted, fmt::format("{} is not from {} to {}", value, least, most));
  return value;
}

float readGain(const Reader& route) {
  const auto linear = route.find("gain"), dB = route.find("gainDB");
  if (linear && dB) dB->fail(Kind::dataCorrupted, "there is a linear gain already");
  if (linear) {
    readInRange(*linear, -RoutesDocument::largestGain, RoutesDocument::largestGain);
    return linear->float32();
  }
  if (!dB) return 1;
  return static_cast<float>(
      std::pow(10.0, readInRange(*dB, RoutesDocument::leastGainDB, RoutesDocument::mostGainDB) / 20));
}

RoutesDocument::Route readRoute(const Reader& reader) {
  const auto quadrature = reader.find("useQuadrature");
  return {.source = readSource(reader.member("source")),
          .gain = readGain(reader),
          .useQuadrature = quadrature && quadrature->boolean()};
}

RoutesDocument::Output readOutput(const Reader& reader, std::set<AudioChannelLabel>& labels) {
  RoutesDocument::Output output;
  if (const auto label = reader.find("label")) {
    output.label = readName(*label);
    if (!labels.insert(*output.label).second)
      label->fail(Kind::dataCorrupted, fmt::format("there is an output '{}' already", label->text()));
  }
  for (const Reader& route : elements(reader.member("routes"), 0)) output.routes.push_back(readRoute(route));
  return output;
}

// --- Sources of an input ---------------------------------------------------------------------------------

std::string textOf(std::span<const AudioChannelLabel> labels, std::string_view lastSeparator) {
  std::string text;
  const std::vector<std::string> names = ChannelOrder::displayShortNames(labels);
  for (std::size_t k = 0; k < names.size(); ++k)
    text.append(k == 0 ? "" : k + 1 == names.size() ? lastSeparator : ", ").append(names[k]);
  return text;
}

struct Input {
  std::span<const AudioChannelLabel> labels;
  std::int64_t channelCount;

  std::int64_t channelOf(std::int64_t index) const {
    if (index < channelCount) return index;
    throw FileError(fmt::format("there is no channel {}: it has {}, counted from 0", index, channelCount));
  }

  std::int64_t channelOf(const Names& names) const {
    for (const AudioChannelLabel name : names)
      if (const auto found = std::find(labels.begin(), labels.end(), name); found != labels.end())
        return found - labels.begin();
    if (labels.empty())
      throw FileError(
          fmt::format("it does not tell which of its {} channels is which, so that {} cannot be found: a "
                      "layout has to name them",
                      channelCount, textOf(names, " or ")));
    throw FileError(
        fmt::format("it has no channel {}, only {}", textOf(names, " or "), textOf(labels, ", ")));
  }
};

Names assumedLabels(std::span<const AudioChannelLabel> labels, std::int64_t channelCount) {
  if (!labels.empty()) return {labels.begin(), labels.end()};
  if (channelCount == 1) return {mono};
  if (channelCount == 2) return {left, right};
  return {};
}

void refuseUnused(const RoutesDocument& document, const Routing& routing) {
  if (!document.unused) return;
  Names lost;
  for (const std::int64_t channel : routing.unusedSources) {
    const AudioChannelLabel label =
        routing.sourceLabels.empty() ? 0 : routing.sourceLabels[static_cast<std::size_t>(channel)];
    const Names& allowed = *document.unused;
    if (std::find(allowed.begin(), allowed.end(), label) == allowed.end()) lost.push_back(label);
  }
  if (!lost.empty())
    throw FileError(fmt::format("{} {} would go to no output",
                                lost.size() == 1 ? "its channel" : "its channels", textOf(lost, ", ")));
}

}  // namespace

RoutesDocument parseRoutesDocument(std::string_view text) {
  const Json::Value value = Json::parse(text);
  const Reader reader(value);
  RoutesDocument document;
  if (const auto description = reader.find("description")) document.description = description->text();
  if (const auto unused = reader.find("unused")) document.unused = readNames(*unused, 0);
  std::set<AudioChannelLabel> labels;
  for (const Reader& output : elements(reader.member("outputs"), 1))
    document.outputs.push_back(readOutput(output, labels));
  return document;
}

Routing routingFor(const RoutesDocument& document, std::span<const AudioChannelLabel> labels,
                   std::int64_t channelCount) {
  Routing routing{.outputRoutes = {},
                  .sourceLabels = assumedLabels(labels, channelCount),
                  .outputLabels = {},
                  .unusedSources = {}};
  const Input input{routing.sourceLabels, channelCount};
  std::vector<bool> isUsed(static_cast<std::size_t>(channelCount));
  for (std::size_t o = 0; o < document.outputs.size(); ++o) {
    const RoutesDocument::Output& output = document.outputs[o];
    std::vector<SurroundBake::Route>& routes = routing.outputRoutes.emplace_back();
    for (const RoutesDocument::Route& route : output.routes) {
      const std::int64_t source =
          std::visit([&](const auto& wanted) { return input.channelOf(wanted); }, route.source);
      isUsed[static_cast<std::size_t>(source)] = true;
      routes.push_back({source, route.gain, route.useQuadrature});
    }
    if (output.label) routing.outputLabels.push_back(*output.label);
  }
  if (routing.outputLabels.size() < document.outputs.size()) routing.outputLabels.clear();
  for (std::int64_t channel = 0; channel < channelCount; ++channel)
    if (!isUsed[static_cast<std::size_t>(channel)]) routing.unusedSources.push_back(channel);
  refuseUnused(document, routing);
  return routing;
}

std::vector<std::string> channelNames(std::span<const AudioChannelLabel> labels, std::int64_t channelCount) {
  if (!labels.empty()) return ChannelOrder::displayShortNames(labels);
  return ChannelOrder::displayShortNames(Names(static_cast<std::size_t>(channelCount)));
}

}  // namespace vellum
