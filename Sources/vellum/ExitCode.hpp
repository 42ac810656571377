#pragma once

namespace vellum {

// What the command answers, the same in every verb.
enum class ExitCode : int {
  done = 0,
  checkFailed = 1,   // a verdict or a check said no
  usage = 2,         // wrong arguments, or a faulty document
  fileFailed = 3,    // some file failed, or an output exists already
  interrupted = 130  // Ctrl-C: 128 + SIGINT, as shells have it
};

}  // namespace vellum
