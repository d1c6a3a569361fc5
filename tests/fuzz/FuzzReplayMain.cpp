// Runs the fuzz entry point over files and folders named on the command line, for compilers
// without libFuzzer and for replaying a crash found elsewhere.
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

int main(int argc, char** argv) {
  std::vector<std::filesystem::path> files;
  for (int i = 1; i < argc; ++i) {
    std::error_code ec;
    if (!std::filesystem::exists(argv[i], ec)) {
      // Most often the shared corpus, which a fresh clone does not have beside it.
      std::fprintf(stderr, "%s: not found (is the shared corpus beside the checkout?)\n", argv[i]);
      return 2;
    }
    if (std::filesystem::is_directory(argv[i], ec)) {
      for (auto it = std::filesystem::recursive_directory_iterator(argv[i], ec);
           !ec && it != std::filesystem::recursive_directory_iterator(); it.increment(ec)) {
        if (it->is_regular_file(ec)) files.push_back(it->path());
      }
      if (ec) {
        std::fprintf(stderr, "%s: %s\n", argv[i], ec.message().c_str());
        return 2;
      }
    } else {
      files.emplace_back(argv[i]);
    }
  }
  for (const auto& file : files) {
    std::ifstream in(file, std::ios::binary);
    if (!in) {
      std::fprintf(stderr, "%s: cannot be read\n", file.c_str());
      return 2;
    }
    const std::string bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    LLVMFuzzerTestOneInput(reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size());
  }
  std::printf("%zu inputs ran\n", files.size());
  return 0;
}
