#pragma once

// Running the built `lectern` program as a person would, for the end-to-end tests.

#include <sys/wait.h>

#include <cstdlib>
#include <filesystem>
#include <string>

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include "support/TestSupport.h"

namespace lectern::test {

struct ProgramRun {
  int exit = -1;
  std::string out;
  std::string err;
  nlohmann::json parsed() const { return nlohmann::json::parse(out); }
};

// Runs `ENVIRONMENT lectern --home HOME ARGUMENTS` through the shell (arguments and environment are
// shell words) with `input` on standard input; `scratch` keeps the streams.
inline ProgramRun runProgram(const std::filesystem::path& scratch, const std::filesystem::path& home,
                             const std::string& arguments, const std::string& input = "",
                             const std::string& environment = "") {
  const auto in = scratch / "stdin.txt";
  const auto out = scratch / "stdout.txt";
  const auto err = scratch / "stderr.txt";
  writeFile(in, input);
  const std::string command =
      fmt::format("{} '{}' --home '{}' {} < '{}' > '{}' 2> '{}'", environment, LECTERN_PROGRAM, home.string(),
                  arguments, in.string(), out.string(), err.string());
  const int status = std::system(command.c_str());
  return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, readFile(out), readFile(err)};
}

}  // namespace lectern::test
