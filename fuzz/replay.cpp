// Runs a fuzz target over inputs without a fuzzer: every file of the given directories, and every
// beginning of each that is not long, since each cut form of a valid input is an input, too. With
// --whole as the first argument it leaves out the beginnings.
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv);
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

namespace {

constexpr size_t kPrefixLimit = 512;

std::string ReadFile(const std::filesystem::path& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

// In a block of its own size.
void RunOne(const std::string& input, size_t size) {
  const std::unique_ptr<uint8_t[]> block(new uint8_t[size]);
  std::copy_n(input.begin(), size, block.get());
  LLVMFuzzerTestOneInput(block.get(), size);
}

}  // namespace

int main(int argc, char** argv) {
  LLVMFuzzerInitialize(&argc, &argv);
  const bool onlyWhole = argc > 1 && std::string(argv[1]) == "--whole";
  std::vector<std::filesystem::path> paths;
  for (int i = onlyWhole ? 2 : 1; i < argc; ++i) {
    for (const auto& entry : std::filesystem::directory_iterator(argv[i])) {
      if (entry.is_regular_file()) paths.push_back(entry.path());
    }
  }
  if (paths.empty()) {
    fprintf(stderr, "no inputs to replay\n");
    return EXIT_FAILURE;
  }
  std::sort(paths.begin(), paths.end());
  size_t runs = 0;
  for (const auto& path : paths) {
    fprintf(stderr, "%s\n", path.c_str());
    const std::string input = ReadFile(path);
    if (!onlyWhole && input.size() <= kPrefixLimit) {
      for (size_t size = 0; size < input.size(); ++size) RunOne(input, size);
      runs += input.size();
    }
    RunOne(input, input.size());
    ++runs;
  }
  fprintf(stderr, "%zu inputs from %zu files\n", runs, paths.size());
  return EXIT_SUCCESS;
}
