#pragma once

#include <string>
#include <string_view>

// The two streams of the command: standard output is data, standard error is for people.
namespace vellum::Console {

// Nobody reads standard output any more.
struct OutputClosed {};

// Writes all of it. Throws OutputClosed, FileError where it cannot be written, or returns early when
// interrupted.
void writeOutput(std::string_view bytes);

// One line on standard error: "vellum: " and the text, in red or yellow where a terminal shows colours.
void printError(std::string_view text);
void printNote(std::string_view text);

// True if standard error is a terminal on which a line can be drawn again.
bool canRedraw();

// Text from outside, fit for a terminal: control characters become '?'.
std::string printable(std::string_view text);

}  // namespace vellum::Console
