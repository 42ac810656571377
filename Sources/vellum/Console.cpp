#include "vellum/Console.hpp"

#include <fmt/format.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>

#include "VellumApp/Descriptor.hpp"
#include "VellumApp/FileError.hpp"
#include "vellum/Interrupt.hpp"

namespace vellum::Console {
namespace {

bool hasColours() {
  const char* const noColour = std::getenv("NO_COLOR");
  return canRedraw() && !(noColour && *noColour);
}

void printLine(std::string_view colour, std::string_view text) {
  const std::string line = hasColours() ? fmt::format("\x1b[{}mvellum:\x1b[0m {}\n", colour, printable(text))
                                        : fmt::format("vellum: {}\n", printable(text));
  std::fwrite(line.data(), 1, line.size(), stderr);
}

}  // namespace

void writeOutput(std::string_view bytes) {
  while (!bytes.empty() && !Interrupt::wasAsked()) {  // a reader that reads no more would hold us for ever
    const ssize_t written = ::write(STDOUT_FILENO, bytes.data(), bytes.size());
    if (written < 0 && errno == EINTR) continue;
    if (written < 0 && errno == EPIPE) throw OutputClosed{};
    if (written < 0) throw FileError("standard output cannot be written: " + systemErrorText(errno));
    bytes.remove_prefix(static_cast<std::size_t>(written));
  }
}

void printError(std::string_view text) {
  printLine("31", text);
}
void printNote(std::string_view text) {
  printLine("33", text);
}

bool canRedraw() {
  const char* const terminal = std::getenv("TERM");
  return ::isatty(STDERR_FILENO) != 0 && terminal && std::string_view(terminal) != "dumb";
}

std::string printable(std::string_view text) {
  std::string result(text);
  for (char& c : result)
    if (static_cast<unsigned char>(c) < 0x20 || c == 0x7F) c = '?';
  return result;
}

}  // namespace vellum::Console
