#include "vellum/DeliverCommand.hpp"

#include <filesystem>
#include <memory>
#include <string>
#include <system_error>
#include <vector>

#include "VellumApp/Delivery.hpp"
#include "vellum/Console.hpp"
#include "vellum/DeliverReport.hpp"
#include "vellum/Options.hpp"
#include "vellum/RenderOptions.hpp"
#include "vellum/TargetOptions.hpp"

namespace vellum {
namespace {

namespace fs = std::filesystem;

struct Arguments {
  std::vector<std::string> files;
  TargetArguments target;
  std::string maxReduction = "6";
  bool album = false, dryRun = false;
  RenderArguments render;
};

std::vector<DeliveryItem> itemsOf(const Arguments& arguments) {
  const std::vector<std::string>& files = arguments.files;
  if (files.size() < 2)
    refuse("OUT", arguments.album ? "a folder for the outputs is needed" : "an output is needed");
  if (!arguments.album) {
    if (files.size() > 2) refuse("OUT", "there is one input and one output; several inputs need --album");
    return {{files.front(), files.back()}};
  }
  const fs::path folder = files.back();
  std::error_code ignored;
  if (!fs::is_directory(folder, ignored)) throw NamedFileError(folder, FileError("there is no such folder"));
  std::vector<DeliveryItem> items;
  for (std::size_t k = 0; k + 1 < files.size(); ++k)
    items.push_back({files[k], outputIn(folder, files[k], arguments.render)});
  return items;
}

DeliverySettings settingsOf(const Arguments& arguments) {
  const double maxReductionDB = numberArgument("--max-reduction", arguments.maxReduction, 0, 60, "dB");
  DeliveryOutputs outputs = outputsOf(arguments.render, itemsOf(arguments));
  outputs.isDryRun = arguments.dryRun;
  if (!arguments.target.selection.empty()) outputs.furtherInputs = {arguments.target.selection};
  return {chooseTarget(arguments.target), maxReductionDB, std::move(outputs)};
}

ExitCode renderDelivery(const Arguments& arguments) {
  const DeliverySettings settings = settingsOf(arguments);
  return runDelivery(
      settings.outputs.items, [&](const DeliveryGoOn& goOn) { return deliver(settings, goOn); },
      [&](const Delivery& delivery) {
        Console::writeOutput(arguments.render.json
                                 ? Json::compactText(DeliverReport::record(settings, delivery)) + "\n"
                                 : DeliverReport::textBlock(settings, delivery));
        return delivery.obstacle ? ExitCode::checkFailed : ExitCode::done;
      });
}

}  // namespace

void addDeliverCommand(CLI::App& app, ExitCode& exitCode) {
  const auto arguments = std::make_shared<Arguments>();
  CLI::App& verb =
      *app.add_subcommand("deliver", "Write an audio file that a delivery target takes, and prove it");
  verb.add_option("FILE", arguments->files, "IN OUT, or with --album IN... FOLDER")
      ->required()
      ->type_name("");
  addSingleTargetOptions(verb, arguments->target);
  verb.add_flag("--album", arguments->album, "Several inputs with one gain, measured as one programme");
  verb.add_flag("--dry-run", arguments->dryRun, "Render and measure, but write nothing");
  addTextOption(verb, "--max-reduction", arguments->maxReduction, "DB",
                "The most that the limiter may take away, 0 to 60")
      .capture_default_str();
  addRenderOptions(verb, arguments->render);
  verb.footer(
      "Examples:\n"
      "  vellum deliver mix.wav spotify.wav --target music.spotify\n"
      "  vellum deliver --album 1.flac 2.flac masters/ --target music.appleMusic --bit-depth 16\n"
      "\n"
      "Exit codes: 0 the target is met, 1 it cannot be met and nothing is written, 2 wrong arguments or a\n"
      "faulty selection, 3 a file failed or the output exists, 130 interrupted");
  verb.callback([arguments, &exitCode] { exitCode = renderDelivery(*arguments); });
}

}  // namespace vellum
