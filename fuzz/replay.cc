// Passes files, and all files of folders, to a fuzzer's entry point. For builds
// without libFuzzer.

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <string>
#include <system_error>
#include <vector>

extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv);
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data,
                                      std::size_t size);

namespace {

using std::filesystem::directory_iterator;
using std::filesystem::path;

std::vector<path> Files(const path& named) {
  std::error_code error;
  if (!std::filesystem::is_directory(named, error)) return {named};
  std::vector<path> files;
  for (directory_iterator entry(named, error), end; !error && entry != end;
       entry.increment(error)) {
    files.push_back(entry->path());
  }
  return files;
}

bool Play(const path& file) {
  std::ifstream stream(file, std::ios::binary);
  const std::string input{std::istreambuf_iterator<char>(stream), {}};
  if (!stream) {
    std::cerr << "cannot read " << file << "\n";
    return false;
  }
  // Printed first, since the input may end the process.
  std::cerr << file << ", " << input.size() << " bytes" << std::endl;
  LLVMFuzzerTestOneInput(reinterpret_cast<const std::uint8_t*>(input.data()),
                         input.size());
  return true;
}

}  // namespace

int main(int argc, char** argv) {
  LLVMFuzzerInitialize(&argc, &argv);
  std::size_t played = 0;
  for (int i = 1; i < argc; ++i) {
    for (const path& file : Files(argv[i])) {
      if (!Play(file)) return EXIT_FAILURE;
      ++played;
    }
  }
  std::cerr << played << " inputs played\n";
  return played > 0 ? EXIT_SUCCESS : EXIT_FAILURE;
}
