#pragma once

// Runs the built `lectern` as a child process and keeps what only the parent can see of it: its
// peak memory, how long it ran, and how it ended (a signal, a core).

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <fstream>
#include <thread>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include <fmt/format.h>

#include "support/TestSupport.h"

extern char** environ;

namespace lectern::test {

// The program under test: the one this test was built with, or LECTERN_HOSTILE_PROGRAM (the
// benchmark script points it at a Release build to measure memory without the sanitizers).
inline std::string lecternProgram() {
  const char* other = std::getenv("LECTERN_HOSTILE_PROGRAM");
  return other != nullptr && *other != '\0' ? std::string(other) : std::string(LECTERN_PROGRAM);
}

inline bool sanitizedProgram() {
  const char* other = std::getenv("LECTERN_HOSTILE_PROGRAM");
  return other == nullptr || *other == '\0';
}

struct ChildRun {
  int exit = -1;        // the exit status, -1 when a signal ended it
  int signal = 0;       // the signal that ended it
  bool coreDumped = false;
  long peakKiB = 0;     // maximum resident set size
  double seconds = 0;   // wall time
  std::string out;
  std::string err;
};

// Runs `lectern --home HOME ARGUMENTS...` in `folder` (its working folder, where a core file would
// land) with `input` on stdin and the test's environment with `environment` entries ("NAME=value")
// replacing or adding. `whileRunning` gets the child's pid before the parent waits for it.
inline ChildRun runLectern(const std::filesystem::path& folder, const std::filesystem::path& home,
                           const std::vector<std::string>& arguments, const std::string& input = "",
                           const std::map<std::string, std::string>& environment = {},
                           const std::function<void(pid_t)>& whileRunning = {}) {
  const auto in = folder / "stdin.txt";
  const auto out = folder / "stdout.txt";
  const auto err = folder / "stderr.txt";
  writeFile(in, input);
  std::vector<std::string> argv{lecternProgram(), "--home", home.string()};
  argv.insert(argv.end(), arguments.begin(), arguments.end());
  std::vector<std::string> env;
  for (char** entry = environ; *entry != nullptr; ++entry) {
    const std::string text = *entry;
    if (!environment.contains(text.substr(0, text.find('=')))) env.push_back(text);
  }
  for (const auto& [name, value] : environment) env.push_back(name + "=" + value);
  std::vector<char*> argvPointers, envPointers;
  for (auto& a : argv) argvPointers.push_back(a.data());
  argvPointers.push_back(nullptr);
  for (auto& e : env) envPointers.push_back(e.data());
  envPointers.push_back(nullptr);

  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, in.c_str(), O_RDONLY, 0);
  posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
  posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, err.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
  posix_spawn_file_actions_addchdir_np(&actions, folder.c_str());
  const auto started = std::chrono::steady_clock::now();
  pid_t pid = -1;
  ChildRun run;
  if (posix_spawn(&pid, argvPointers[0], &actions, nullptr, argvPointers.data(), envPointers.data()) != 0) {
    posix_spawn_file_actions_destroy(&actions);
    run.err = "cannot start " + argv[0];
    return run;
  }
  posix_spawn_file_actions_destroy(&actions);
  // wait4's ru_maxrss would be of no use: exec carries the spawning process's peak over into the
  // child's, and this test process is the larger. The child's own peak (VmHWM, a high-water mark
  // that only grows) is read while it runs instead; only its last few milliseconds go unseen.
  std::atomic<bool> exited{false};
  std::atomic<long> peak{0};
  std::thread watcher([&] {
    const auto status = fmt::format("/proc/{}/status", pid);
    while (!exited) {
      std::ifstream in(status);
      for (std::string line; std::getline(in, line);) {
        if (line.starts_with("VmHWM:")) peak = std::max(peak.load(), std::strtol(line.c_str() + 6, nullptr, 10));
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
  });
  if (whileRunning) whileRunning(pid);
  siginfo_t info{};
  while (::waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | WNOWAIT) < 0 && errno == EINTR) {
  }
  exited = true;
  watcher.join();
  int status = 0;
  while (::waitpid(pid, &status, 0) < 0 && errno == EINTR) {
  }
  run.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
  run.peakKiB = peak;
  if (WIFEXITED(status)) run.exit = WEXITSTATUS(status);
  if (WIFSIGNALED(status)) {
    run.signal = WTERMSIG(status);
    run.coreDumped = WCOREDUMP(status);
  }
  run.out = readFile(out);
  run.err = readFile(err);
  return run;
}

}  // namespace lectern::test
