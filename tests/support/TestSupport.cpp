#include "support/TestSupport.h"

#include <fcntl.h>
#include <spawn.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <stdexcept>

namespace lectern::test {

TempDir::TempDir() {
  static std::atomic<int> counter{0};
  path_ = std::filesystem::temp_directory_path() /
          ("lectern-test-" + std::to_string(::getpid()) + "-" + std::to_string(counter++));
  std::filesystem::remove_all(path_);
  std::filesystem::create_directories(path_);
}

TempDir::~TempDir() {
  std::error_code ec;
  std::filesystem::remove_all(path_, ec);
}

std::filesystem::path fixturePath(std::string_view relative) {
  return std::filesystem::path(LECTERN_FIXTURES_DIR) / relative;
}

std::filesystem::path corpusDir() {
  const char* fromEnvironment = std::getenv("LECTERN_CORPUS_DIR");
  return fromEnvironment && *fromEnvironment ? fromEnvironment : LECTERN_CORPUS_DIR;
}

std::filesystem::path corpusPath(std::string_view relative) { return corpusDir() / relative; }

std::string corpusMissing() {
  const std::filesystem::path dir = corpusDir();
  std::error_code ec;
  if (std::filesystem::is_directory(dir, ec)) return {};
  return "shared corpus not found at " + dir.string() +
         "; put the shared folder beside the checkout or set LECTERN_CORPUS_DIR to the corpus";
}

std::string readFile(const std::filesystem::path& path) {
  std::ifstream in(path, std::ios::binary);
  if (!in) throw std::runtime_error("cannot read " + path.string());
  std::stringstream buffer;
  buffer << in.rdbuf();
  return buffer.str();
}

void writeFile(const std::filesystem::path& path, std::string_view contents) {
  std::filesystem::create_directories(path.parent_path());
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out.write(contents.data(), static_cast<std::streamsize>(contents.size()));
}

pid_t spawnQuietly(const std::vector<std::string>& arguments) {
  std::vector<char*> argv;
  for (const auto& argument : arguments) argv.push_back(const_cast<char*>(argument.c_str()));
  argv.push_back(nullptr);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
  pid_t pid = -1;
  const int failed = posix_spawn(&pid, argv[0], &actions, nullptr, argv.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  return failed == 0 ? pid : -1;
}

}  // namespace lectern::test
