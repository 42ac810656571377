#pragma once

// Ctrl-C, and a polite request to terminate, end the command at the next chunk, so that it can clean up.
namespace vellum::Interrupt {

// From here on a signal only sets a flag; a second one ends the command at once.
void watch();
bool wasAsked();

}  // namespace vellum::Interrupt
