#pragma once

#include <filesystem>
#include <string>
#include <string_view>

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
std::filesystem::path corpusPath(std::string_view relative);   // the shared feed and page corpus
std::string readFile(const std::filesystem::path& path);
void writeFile(const std::filesystem::path& path, std::string_view contents);

}  // namespace lectern::test
