#pragma once

#include <CLI/App.hpp>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "VellumApp/Delivery.hpp"
#include "vellum/ExitCode.hpp"
#include "vellum/Progress.hpp"

// What the verbs that write audio have in common.
namespace vellum {

struct RenderArguments {
  std::string format, bitDepth, dither = "tpdf", layout;  // as written; empty where not given
  bool force = false, json = false;
};

// --format, --bit-depth, --dither, --layout, --force and --json.
void addRenderOptions(CLI::App& verb, RenderArguments& arguments);

// Throws CLI::ValidationError, as everything here that looks at arguments.
DeliveryOutputs outputsOf(const RenderArguments& arguments, std::vector<DeliveryItem> items);

// The name of a file's output in a folder: the file's own, with the chosen format's extension where that is
// another.
std::filesystem::path outputIn(const std::filesystem::path& folder, const std::filesystem::path& input,
                               const RenderArguments& arguments);

Dither ditherArgument(std::string_view text);

// A number from `least` to `most`, an option's text.
double numberArgument(std::string_view option, std::string_view text, double least, double most,
                      std::string_view unit);

// Shows how far a delivery is, and answers whether it is to go on.
class DeliveryWatch {
 public:
  explicit DeliveryWatch(const std::vector<DeliveryItem>& items);
  bool operator()(const DeliveryProgress& progress);

 private:
  std::vector<std::string> names_;
  std::optional<DeliveryProgress> shown_;
  std::optional<Progress> progress_;  // of one stage of one file
};

// Renders, and has `print` tell the result and answer the exit code; an interruption is answered here. Throws
// FileError.
ExitCode runDelivery(const std::vector<DeliveryItem>& items,
                     const std::function<std::optional<Delivery>(const DeliveryGoOn&)>& work,
                     const std::function<ExitCode(const Delivery&)>& print);

}  // namespace vellum
