// SPDX-License-Identifier: Apache-2.0
//
// Feeds every file of the given directories to a fuzzer's entry point: what a fuzzer once found
// stays found, in builds without libFuzzer too.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

int main(int argc, char** argv) {
  std::vector<std::filesystem::path> files;
  for (int i = 1; i < argc; ++i) {
    for (const auto& file : std::filesystem::directory_iterator(argv[i])) {
      if (file.is_regular_file()) files.push_back(file.path());
    }
  }
  std::sort(files.begin(), files.end());
  for (const auto& path : files) {
    std::ifstream file(path, std::ios::binary);
    std::vector<char> bytes{std::istreambuf_iterator<char>(file), {}};
    std::printf("%s (%zu bytes)\n", path.filename().c_str(), bytes.size());
    std::fflush(stdout);
    LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size());
  }
  if (files.empty()) std::fputs("no corpus\n", stderr);
  return files.empty() ? 1 : 0;
}
