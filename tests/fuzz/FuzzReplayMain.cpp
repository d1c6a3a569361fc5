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
    if (std::filesystem::is_directory(argv[i])) {
      for (const auto& item : std::filesystem::recursive_directory_iterator(argv[i])) {
        if (item.is_regular_file()) files.push_back(item.path());
      }
    } else {
      files.emplace_back(argv[i]);
    }
  }
  for (const auto& file : files) {
    std::ifstream in(file, std::ios::binary);
    const std::string bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    LLVMFuzzerTestOneInput(reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size());
  }
  std::printf("%zu inputs ran\n", files.size());
  return 0;
}
