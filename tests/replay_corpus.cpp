// Stands in for libFuzzer: runs a fuzz target once on every file of the folders given, in the order
// of their names. The name is printed first, so that a crash tells which input it was.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <exception>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <stdexcept>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

namespace {

std::vector<std::filesystem::path> filesBelow(const std::filesystem::path& folder) {
  std::vector<std::filesystem::path> files;
  for (const auto& entry : std::filesystem::recursive_directory_iterator(folder)) {
    if (entry.is_regular_file()) files.push_back(entry.path());
  }
  if (files.empty()) throw std::runtime_error("No files in " + folder.string());
  std::sort(files.begin(), files.end());
  return files;
}

void replay(const std::filesystem::path& file) {
  std::printf("%s\n", file.c_str());
  std::fflush(stdout);
  std::ifstream in(file, std::ios::binary);
  const std::vector<char> bytes{std::istreambuf_iterator<char>(in), {}};
  if (in.bad()) throw std::runtime_error("Cannot read " + file.string());
  // On the heap and of exactly this size, so that a sanitizer sees one byte too many.
  const auto input = std::make_unique<std::uint8_t[]>(bytes.size());
  std::copy(bytes.begin(), bytes.end(), input.get());
  LLVMFuzzerTestOneInput(input.get(), bytes.size());
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 2) {
    std::fprintf(stderr, "Usage: %s FOLDER...\n", argv[0]);
    return 2;
  }
  try {
    for (int i = 1; i < argc; ++i) {
      for (const auto& file : filesBelow(argv[i])) replay(file);
    }
  } catch (const std::exception& error) {
    std::fprintf(stderr, "%s\n", error.what());
    return 1;
  }
  return 0;
}
