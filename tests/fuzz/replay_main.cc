// Without libFuzzer (the g++ builds): runs a fuzz target once on every file
// of the folders and files named on the command line, so that the seed
// corpus and every input that once failed are tried in each build.
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

int main(int argc, char** argv) {
  namespace fs = std::filesystem;
  std::vector<fs::path> inputs;
  for (int i = 1; i < argc; ++i) {
    if (fs::is_directory(argv[i])) {
      for (const auto& e : fs::recursive_directory_iterator(argv[i]))
        if (e.is_regular_file()) inputs.push_back(e.path());
    } else {
      inputs.emplace_back(argv[i]);
    }
  }
  for (const fs::path& p : inputs) {
    std::ifstream in(p, std::ios::binary);
    const std::string bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size());
  }
  std::printf("%zu inputs replayed\n", inputs.size());
  return inputs.empty() ? 1 : 0;
}
