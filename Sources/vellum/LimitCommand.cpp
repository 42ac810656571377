#include "vellum/LimitCommand.hpp"

#include <memory>
#include <string>

#include "VellumApp/Delivery.hpp"
#include "vellum/Console.hpp"
#include "vellum/DeliverReport.hpp"
#include "vellum/Options.hpp"
#include "vellum/RenderOptions.hpp"

namespace vellum {
namespace {

struct Arguments {
  std::string input, output;
  std::string ceiling = "-1", gain = "0", lookahead = "5", release = "100";
  bool exact = false;
  RenderArguments render;
};

LimitSettings settingsOf(const Arguments& arguments) {
  return {.gainDB = numberArgument("--gain", arguments.gain, -60, 60, "dB"),
          .limiter = {.ceilingDBTP = numberArgument("--ceiling", arguments.ceiling, -60, 0, "dBTP"),
                      .lookaheadMs = numberArgument("--lookahead", arguments.lookahead, 0, 1000, "ms"),
                      .releaseMs = numberArgument("--release", arguments.release, 1, 10'000, "ms")},
          .isExact = arguments.exact,
          .outputs = outputsOf(arguments.render, {{arguments.input, arguments.output}})};
}

ExitCode renderLimited(const Arguments& arguments) {
  const LimitSettings settings = settingsOf(arguments);
  return runDelivery(
      settings.outputs.items, [&](const DeliveryGoOn& goOn) { return limit(settings, goOn); },
      [&](const Delivery& delivery) {
        Console::writeOutput(arguments.render.json
                                 ? Json::compactText(DeliverReport::record(settings, delivery)) + "\n"
                                 : DeliverReport::textBlock(settings, delivery));
        return DeliverReport::excessDB(settings, delivery) > 0 ? ExitCode::checkFailed : ExitCode::done;
      });
}

}  // namespace

void addLimitCommand(CLI::App& app, ExitCode& exitCode) {
  const auto arguments = std::make_shared<Arguments>();
  CLI::App& verb = *app.add_subcommand("limit", "Hold the true peak of an audio file under a ceiling");
  verb.add_option("IN", arguments->input, "The audio file to read")->required()->type_name("");
  verb.add_option("OUT", arguments->output, "The audio file to write")->required()->type_name("");
  const auto addNumber = [&](const char* name, std::string& value, const char* type,
                             const char* description) {
    addTextOption(verb, name, value, type, description).capture_default_str();
  };
  addNumber("--ceiling", arguments->ceiling, "DBTP", "The true peak that is allowed, -60 to 0");
  addNumber("--gain", arguments->gain, "DB", "Gain before the limiter, -60 to 60");
  addNumber("--lookahead", arguments->lookahead, "MS", "How long before a peak the gain falls, 0 to 1000");
  addNumber("--release", arguments->release, "MS", "How slowly the gain recovers, 1 to 10000");
  verb.add_flag("--exact", arguments->exact,
                "Render again with a lower ceiling inside until the true peak holds");
  addRenderOptions(verb, arguments->render);
  verb.footer(
      "Examples:\n"
      "  vellum limit mix.wav limited.wav\n"
      "  vellum limit mix.wav limited.flac --gain 4 --ceiling -2 --exact\n"
      "\n"
      "Exit codes: 0 done, 1 the true peak ended above the ceiling, 2 wrong arguments, 3 a file failed or\n"
      "the output exists, 130 interrupted");
  verb.callback([arguments, &exitCode] { exitCode = renderLimited(*arguments); });
}

}  // namespace vellum
