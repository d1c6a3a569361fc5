#pragma once

#include <gtest/gtest.h>

#include <sys/types.h>

#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

namespace lectern::test {

// A fresh folder under the system temp folder, removed with everything in it at the end.
class TempDir {
 public:
  TempDir();
  ~TempDir();
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;
  const std::filesystem::path& path() const { return path_; }
  std::filesystem::path operator/(std::string_view name) const { return path_ / name; }

 private:
  std::filesystem::path path_;
};

std::filesystem::path fixturePath(std::string_view relative);  // tests/fixtures/<relative>

// The shared corpus of real feeds and pages lives outside the checkout (../shared/corpus, or
// LECTERN_CORPUS_DIR given to CMake); LECTERN_CORPUS_DIR in the environment takes precedence.
std::filesystem::path corpusDir();
std::filesystem::path corpusPath(std::string_view relative);  // corpusDir()/<relative>
// Why the corpus cannot be read, "" when it can: the message of a skipped corpus test.
std::string corpusMissing();
std::string readFile(const std::filesystem::path& path);
void writeFile(const std::filesystem::path& path, std::string_view contents);

// Starts `arguments[0]` with its standard output thrown away and answers its pid (-1 on failure).
// The test process has threads (servers), so the child must not run anything between fork and
// exec that can take a lock another thread held: posix_spawn does only that.
pid_t spawnQuietly(const std::vector<std::string>& arguments);

}  // namespace lectern::test

// Skips the running test, saying why, when the shared corpus is absent (a fresh clone without the
// shared folder beside it). Write it first in a test that reads the corpus.
#define LECTERN_SKIP_WITHOUT_CORPUS()                                            \
  if (const std::string lecternCorpusMissing = ::lectern::test::corpusMissing(); \
      !lecternCorpusMissing.empty())                                             \
  GTEST_SKIP() << lecternCorpusMissing
