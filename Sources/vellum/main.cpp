#include <signal.h>

#include <CLI/App.hpp>
#include <CLI/Config.hpp>
#include <CLI/Formatter.hpp>
#include <algorithm>
#include <cstddef>
#include <exception>
#include <span>
#include <string>
#include <vector>

#include "VellumApp/DocumentFile.hpp"
#include "VellumApp/FileError.hpp"
#include "vellum/BakeCommand.hpp"
#include "vellum/ChaptersCommand.hpp"
#include "vellum/CheckCommand.hpp"
#include "vellum/Console.hpp"
#include "vellum/DeliverCommand.hpp"
#include "vellum/EditCommand.hpp"
#include "vellum/ExitCode.hpp"
#include "vellum/GenerateCommand.hpp"
#include "vellum/Interrupt.hpp"
#include "vellum/LimitCommand.hpp"
#include "vellum/MeasureCommand.hpp"
#include "vellum/PlanCommand.hpp"
#include "vellum/SelfcheckCommand.hpp"
#include "vellum/SpectrogramCommand.hpp"
#include "vellum/SpectrumCommand.hpp"
#include "vellum/TargetsCommand.hpp"

namespace vellum {
namespace {

// CLI11 wants the last argument first. It takes text in brackets for a list, and names after "--" for another
// verb's: such a file is given its folder.
std::vector<std::string> argumentsOf(int argc, char** argv) {
  std::vector<std::string> arguments;
  bool onlyNames = false;
  for (const std::string argument : std::span(argv + 1, static_cast<std::size_t>(argc - 1))) {
    const bool isList = argument.starts_with('[') && argument.ends_with(']');
    if (!onlyNames && argument == "--")
      onlyNames = true;
    else
      arguments.push_back((isList || (onlyNames && argument.starts_with('-')) ? "./" : "") + argument);
  }
  std::reverse(arguments.begin(), arguments.end());
  return arguments;
}

// The words of a parse error, without the library's own prefix.
ExitCode reportUsage(const CLI::App& app, const CLI::ParseError& error) {
  const auto verbs = app.get_subcommands();
  const std::string name = verbs.empty() ? "vellum" : "vellum " + verbs.front()->get_name();
  Console::printError(error.what());
  Console::printError("see " + name + " --help");
  return ExitCode::usage;
}

ExitCode run(int argc, char** argv) {
  CLI::App app(
      "Vellum measures audio (loudness, true peak, range, dialogue, noise floor, dynamics), says what "
      "streaming\n"
      "services, podcast platforms and broadcasters do to it, and renders what they take; it edits audio in "
      "the\n"
      "spectrogram, renders channels into others, and writes test signals",
      "vellum");
  app.set_version_flag("--version", "vellum " VELLUM_VERSION);
  app.require_subcommand(0, 1);  // a missing one is told here, so that an unknown one is told as itself
  app.footer(
      "Examples:\n  vellum measure song.flac\n  vellum check --mode music song.flac\n\nvellum VERB --help "
      "tells more about a verb.");
  ExitCode exitCode = ExitCode::done;
  addMeasureCommand(app, exitCode);
  addCheckCommand(app, exitCode);
  addTargetsCommand(app, exitCode);
  addPlanCommand(app, exitCode);
  addDeliverCommand(app, exitCode);
  addLimitCommand(app, exitCode);
  addChaptersCommand(app, exitCode);
  addEditCommand(app, exitCode);
  addSelfcheckCommand(app, exitCode);
  addGenerateCommand(app, exitCode);
  addBakeCommand(app, exitCode);
  addSpectrumCommand(app, exitCode);
  addSpectrogramCommand(app, exitCode);

  try {
    app.parse(argumentsOf(argc, argv));
    if (app.get_subcommands().empty()) throw CLI::RequiredError("a verb");
    return exitCode;
  } catch (const CLI::Success& request) {  // --help, --version
    app.exit(request);
    return ExitCode::done;
  } catch (const CLI::ParseError& error) {
    return reportUsage(app, error);
  } catch (const Console::OutputClosed&) {
    return ExitCode::done;
  } catch (const FaultyDocument& error) {
    Console::printError(error.what());
    return ExitCode::usage;
  } catch (const NamedFileError& error) {
    Console::printError(std::string(error.what()) +
                        (error.isExistingOutput() ? "; --force replaces it" : ""));
  } catch (const FileError& error) {
    Console::printError(error.what());
  } catch (const std::exception& error) {
    Console::printError(std::string("stopped: ") + error.what());
  }
  return ExitCode::fileFailed;
}

}  // namespace
}  // namespace vellum

int main(int argc, char** argv) {
  ::signal(SIGPIPE, SIG_IGN);  // a closed pipe and a file that grows too large are errors of the write
  ::signal(SIGXFSZ, SIG_IGN);
  vellum::Interrupt::watch();
  return static_cast<int>(vellum::run(argc, argv));
}
