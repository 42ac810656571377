#include "vellum/RenderOptions.hpp"

#include <fmt/format.h>

#include <array>
#include <filesystem>
#include <utility>

#include "vellum/Interrupt.hpp"
#include "vellum/LayoutOption.hpp"
#include "vellum/Numbers.hpp"
#include "vellum/Options.hpp"

namespace vellum {
namespace {

// The value that a word stands for.
template <typename Value, std::size_t count>
Value choice(std::string_view option, std::string_view text,
             const std::array<std::pair<std::string_view, Value>, count>& choices) {
  std::string words;
  for (const auto& [word, value] : choices) {
    if (word == text) return value;
    words.append(words.empty() ? "" : ", ").append(word);
  }
  refuse(option, fmt::format("'{}' is none of {}", text, words));
}

constexpr std::array<std::pair<std::string_view, Container>, 5> formats = {{{"wav", Container::wav},
                                                                            {"rf64", Container::rf64},
                                                                            {"aiff", Container::aiff},
                                                                            {"caf", Container::caf},
                                                                            {"flac", Container::flac}}};
constexpr std::array<std::pair<std::string_view, SampleCoding>, 3> bitDepths = {
    {{"16", SampleCoding::pcm16}, {"24", SampleCoding::pcm24}, {"float", SampleCoding::float32}}};
constexpr std::array<std::pair<std::string_view, Dither>, 2> dithers = {
    {{"tpdf", Dither::tpdf}, {"none", Dither::none}}};

std::string stageText(const DeliveryProgress& progress) {
  switch (progress.stage) {
    case DeliveryProgress::Stage::measuring:
      return "measuring";
    case DeliveryProgress::Stage::rendering:
      return fmt::format("round {}, rendering", progress.round);
    case DeliveryProgress::Stage::verifying:
      return fmt::format("round {}, verifying", progress.round);
  }
  return {};
}

}  // namespace

void addRenderOptions(CLI::App& verb, RenderArguments& arguments) {
  addTextOption(verb, "--format", arguments.format, "FORMAT",
                "wav, rf64, aiff, caf or flac, not the input's own or that of the output's name");
  addTextOption(verb, "--bit-depth", arguments.bitDepth, "BITS", "16, 24 or float, not the input's own");
  addTextOption(verb, "--dither", arguments.dither, "KIND", "tpdf or none; of 16 and 24 bit")
      .capture_default_str();
  addLayoutOption(verb, arguments.layout);
  verb.add_flag("--force", arguments.force, "Replace an existing output");
  verb.add_flag("--json", arguments.json, "Print one JSON object");
}

DeliveryOutputs outputsOf(const RenderArguments& arguments, std::vector<DeliveryItem> items) {
  DeliveryOutputs outputs{.items = std::move(items),
                          .format = {},
                          .dither = ditherArgument(arguments.dither),
                          .replacesExisting = arguments.force,
                          .isDryRun = false,
                          .channelLabels = {}};
  if (!arguments.format.empty()) outputs.format.container = choice("--format", arguments.format, formats);
  if (!arguments.bitDepth.empty())
    outputs.format.coding = choice("--bit-depth", arguments.bitDepth, bitDepths);
  if (!arguments.layout.empty()) outputs.channelLabels = layoutArgument(arguments.layout);
  return outputs;
}

std::filesystem::path outputIn(const std::filesystem::path& folder, const std::filesystem::path& input,
                               const RenderArguments& arguments) {
  std::filesystem::path output = folder / input.filename();
  if (arguments.format.empty()) return output;
  if (containerOfExtension(output) != choice("--format", arguments.format, formats))
    output.replace_extension(arguments.format);
  return output;
}

Dither ditherArgument(std::string_view text) {
  return choice("--dither", text, dithers);
}

double numberArgument(std::string_view option, std::string_view text, double least, double most,
                      std::string_view unit) {
  const auto value = parseNumber(text.starts_with('+') ? text.substr(1) : text);
  if (!value || *value < least || *value > most)
    refuse(option, fmt::format("'{}' is not a number from {} to {} {}", text, least, most, unit));
  return *value;
}

DeliveryWatch::DeliveryWatch(const std::vector<DeliveryItem>& items) {
  for (const DeliveryItem& item : items) names_.push_back(item.input.filename().string());
}

bool DeliveryWatch::operator()(const DeliveryProgress& progress) {
  const bool isSame = shown_ && shown_->stage == progress.stage && shown_->round == progress.round &&
                      shown_->item == progress.item;
  if (!isSame) {
    std::vector<std::string> lines;
    for (const std::string& name : names_) lines.push_back(fmt::format("{}  {}", stageText(progress), name));
    progress_.emplace(std::move(lines));
  }
  shown_ = progress;
  progress_->advance(progress.item, progress.progress);
  progress_->draw();
  return !Interrupt::wasAsked();
}

ExitCode runDelivery(const std::vector<DeliveryItem>& items,
                     const std::function<std::optional<Delivery>(const DeliveryGoOn&)>& work,
                     const std::function<ExitCode(const Delivery&)>& print) {
  std::optional<Delivery> delivery;
  {
    DeliveryWatch watch(items);
    delivery = work([&](const DeliveryProgress& progress) { return watch(progress); });
  }
  return delivery ? print(*delivery) : ExitCode::interrupted;
}

}  // namespace vellum
