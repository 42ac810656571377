#include "vellum/SelfcheckCommand.hpp"

#include <fmt/format.h>

#include <algorithm>
#include <atomic>
#include <cstddef>
#include <memory>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "VellumApp/ConformanceSet.hpp"
#include "vellum/Console.hpp"
#include "vellum/Interrupt.hpp"
#include "vellum/Numbers.hpp"
#include "vellum/Options.hpp"
#include "vellum/OrderedJobs.hpp"
#include "vellum/SelfcheckReport.hpp"

namespace vellum {
namespace {

using ConformanceSet::Reading;
using SelfcheckReport::RateReadings;

struct Arguments {
  std::vector<std::string> rates;
  bool json = false;
};

// The rates in the order in which they are given, each once; without any, all.
std::vector<RateReadings> ratesArgument(const std::vector<std::string>& texts) {
  const auto& known = ConformanceSet::sampleRates;
  std::vector<RateReadings> rates;
  if (texts.empty())
    for (const double rate : known) rates.push_back({rate, {}});
  for (const std::string& text : texts) {
    const auto rate = parseNumber(text);
    if (!rate || std::find(known.begin(), known.end(), *rate) == known.end())
      refuse("--rate", fmt::format("'{}' is none of {}", text, fmt::join(known, ", ")));
    const auto isSame = [&](const RateReadings& other) { return other.sampleRate == *rate; };
    if (std::none_of(rates.begin(), rates.end(), isSame)) rates.push_back({*rate, {}});
  }
  return rates;
}

ExitCode runSelfcheck(const Arguments& arguments) {
  std::vector<RateReadings> rates = ratesArgument(arguments.rates);
  const auto& signals = ConformanceSet::signals();
  const std::size_t threads = std::clamp(std::thread::hardware_concurrency(), 1u, 16u);
  std::atomic<bool> stop = false;
  const auto work = [&](std::size_t index) {
    if (stop) return std::vector<Reading>{};
    return measure(signals[index % signals.size()], rates[index / signals.size()].sampleRate);
  };
  const auto deliver = [&](std::size_t index, std::vector<Reading> readings) {
    rates[index / signals.size()].signals.push_back(std::move(readings));
  };
  const auto tick = [&] {
    if (Interrupt::wasAsked()) stop = true;
  };
  runInOrder(rates.size() * signals.size(), threads, stop, work, deliver, tick);
  if (Interrupt::wasAsked()) return ExitCode::interrupted;

  Console::writeOutput(arguments.json ? SelfcheckReport::recordsText(rates)
                                      : SelfcheckReport::tableText(rates));
  return SelfcheckReport::exitCodeOf(rates);
}

}  // namespace

void addSelfcheckCommand(CLI::App& app, ExitCode& exitCode) {
  const auto arguments = std::make_shared<Arguments>();
  CLI::App& verb = *app.add_subcommand(
      "selfcheck",
      "Render and measure the standards' conformance signals, and compare with what they must read");
  verb.add_option("--rate", arguments->rates,
                  "Sample rates to render at: 44100, 48000, 88200, 96000, 192000; all without it")
      ->type_name("HZ");
  verb.add_flag("--json", arguments->json, "One JSON object per line and reading");
  verb.footer(
      "Examples:\n"
      "  vellum selfcheck\n"
      "  vellum selfcheck --rate 48000 --json\n"
      "\n"
      "Exit codes: 0 all read what is expected of them, 1 some do not, 2 wrong arguments,\n"
      "3 the output cannot be written, 130 interrupted");
  verb.callback([arguments, &exitCode] { exitCode = runSelfcheck(*arguments); });
}

}  // namespace vellum
