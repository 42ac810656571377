#pragma once

#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "Support/TemporaryFolder.hpp"

namespace vellum::test {

struct CommandResult {
  int exitCode;  // 128 + the signal that ended it, as shells have it
  std::string out, err;
  std::int64_t peakKilobytes;  // most memory that it held, where that was watched; else 0
};

struct CommandSettings {
  std::map<std::string, std::string> environment;  // added to this process's own
  std::filesystem::path out;                       // where standard output goes, instead of CommandResult
  std::filesystem::path workingFolder;
  bool watchesMemory = false;
  std::filesystem::path in = "/dev/null";  // where standard input comes from
};

// The built `vellum`, under way. It is ended after a minute, so that a test cannot hang.
class RunningCommand {
 public:
  explicit RunningCommand(const std::vector<std::string>& arguments, CommandSettings settings = {})
      : settings_(std::move(settings)) {
    if (settings_.out.empty()) settings_.out = folder_ / "out";
    std::vector<char*> argv = {const_cast<char*>(VELLUM_COMMAND)};
    for (const std::string& argument : arguments) argv.push_back(const_cast<char*>(argument.c_str()));
    argv.push_back(nullptr);
    const std::string err = folder_ / "err";

    child_ = ::fork();
    if (child_ < 0) throw std::runtime_error("fork failed");
    if (child_ == 0) {
      redirect(STDIN_FILENO, settings_.in.c_str(), O_RDONLY);
      redirect(STDOUT_FILENO, settings_.out.c_str(), O_WRONLY | O_CREAT);
      redirect(STDERR_FILENO, err.c_str(), O_WRONLY | O_CREAT);
      for (const auto& [name, value] : settings_.environment) ::setenv(name.c_str(), value.c_str(), 1);
      if (!settings_.workingFolder.empty() && ::chdir(settings_.workingFolder.c_str()) != 0) ::_exit(126);
      ::alarm(60);
      ::execv(VELLUM_COMMAND, argv.data());
      ::_exit(127);
    }
  }
  ~RunningCommand() {
    if (child_ <= 0) return;
    ::kill(child_, SIGKILL);
    ::waitpid(child_, nullptr, 0);
  }
  RunningCommand(const RunningCommand&) = delete;
  RunningCommand& operator=(const RunningCommand&) = delete;

  void signal(int number) const { ::kill(child_, number); }

  CommandResult wait() {
    const std::int64_t peakKilobytes = settings_.watchesMemory ? watchMemory() : 0;
    int status = 0;
    ::waitpid(std::exchange(child_, -1), &status, 0);
    const bool isOurs = settings_.out.parent_path() == folder_.path();
    return {WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status),
            isOurs ? readBytes(settings_.out) : "", readBytes(folder_ / "err"), peakKilobytes};
  }

 private:
  // The system's own account of an ended child begins with what this process held when it forked, so the
  // highest mark is read while the child runs.
  std::int64_t watchMemory() const {
    std::int64_t peak = 0;
    siginfo_t info{};
    while (::waitid(P_PID, static_cast<id_t>(child_), &info, WEXITED | WNOHANG | WNOWAIT) == 0 &&
           info.si_pid == 0) {
      std::ifstream status("/proc/" + std::to_string(child_) + "/status");
      std::ifstream commandLine("/proc/" + std::to_string(child_) + "/cmdline");
      std::string program;
      std::getline(commandLine, program, '\0');
      for (std::string line; program == VELLUM_COMMAND && std::getline(status, line);)
        if (line.starts_with("VmHWM:")) peak = std::max<std::int64_t>(peak, std::stoll(line.substr(6)));
      ::usleep(1000);
    }
    return peak;
  }

  static void redirect(int descriptor, const char* path, int flags) {
    const int file = ::open(path, flags, 0600);
    if (file < 0 || ::dup2(file, descriptor) < 0) ::_exit(125);
  }

  TemporaryFolder folder_;
  CommandSettings settings_;
  pid_t child_ = -1;
};

inline CommandResult runVellum(const std::vector<std::string>& arguments, CommandSettings settings = {}) {
  return RunningCommand(arguments, std::move(settings)).wait();
}

// The same, with peakKilobytes.
inline CommandResult runVellumWatchingMemory(const std::vector<std::string>& arguments) {
  CommandSettings settings;
  settings.watchesMemory = true;
  return runVellum(arguments, settings);
}

}  // namespace vellum::test
