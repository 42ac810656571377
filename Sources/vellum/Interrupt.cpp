#include "vellum/Interrupt.hpp"

#include <signal.h>

#include <atomic>

namespace vellum::Interrupt {
namespace {

std::atomic<bool> asked = false;
static_assert(std::atomic<bool>::is_always_lock_free);  // else a signal handler may not touch it

void ask(int) {
  asked = true;
}

}  // namespace

void watch() {
  struct sigaction action {};
  action.sa_handler = ask;
  action.sa_flags = SA_RESETHAND;  // no SA_RESTART: a write that waits for a reader returns
  for (const int signal : {SIGINT, SIGTERM, SIGHUP}) ::sigaction(signal, &action, nullptr);
}

bool wasAsked() {
  return asked;
}

}  // namespace vellum::Interrupt
