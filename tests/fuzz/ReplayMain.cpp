// Replays inputs through a fuzz target's entry point without libFuzzer: every regular file in
// the directories (or the files) given on the command line, in name order. Built with each
// target in the ordinary and sanitizer builds, so the checked-in corpus and the regression
// inputs run with the tests; any crash, sanitizer report or trap fails the test.
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);
extern "C" [[gnu::weak]] int LLVMFuzzerInitialize(int* argc, char*** argv);

int main(int argc, char** argv) {
  if (LLVMFuzzerInitialize) LLVMFuzzerInitialize(&argc, &argv);
  namespace fs = std::filesystem;
  std::vector<fs::path> files;
  for (int i = 1; i < argc; ++i) {
    const fs::path arg(argv[i]);
    std::error_code ec;
    if (fs::is_directory(arg, ec)) {
      for (const auto& entry : fs::directory_iterator(arg))
        if (entry.is_regular_file()) files.push_back(entry.path());
    } else if (fs::is_regular_file(arg, ec)) {
      files.push_back(arg);
    }
  }
  std::sort(files.begin(), files.end());
  for (const fs::path& file : files) {
    std::ifstream in(file, std::ios::binary);
    const std::vector<char> bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    LLVMFuzzerTestOneInput(reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size());
  }
  std::printf("replayed %zu input(s)\n", files.size());
  return files.empty() ? 1 : 0;
}
