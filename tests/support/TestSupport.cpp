#include "support/TestSupport.h"

#include <unistd.h>

#include <atomic>
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

std::filesystem::path corpusPath(std::string_view relative) {
  return std::filesystem::path(LECTERN_CORPUS_DIR) / relative;
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

}  // namespace lectern::test
