/// Gives every saved input of a fuzz target to it once more: replay_TARGET DIRECTORY
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

int main(int, char** argv) {
  size_t count = 0;
  for (const auto& entry : std::filesystem::directory_iterator(argv[1])) {
    std::ifstream file(entry.path(), std::ios::binary);
    // Exactly as long as the input: the sanitizer sees a read behind it.
    const std::vector<uint8_t> octets((std::istreambuf_iterator<char>(file)), {});
    std::printf("%s\n", entry.path().c_str());  // the last one named is the one that failed
    std::fflush(stdout);
    LLVMFuzzerTestOneInput(octets.data(), octets.size());
    ++count;
  }
  std::printf("%zu inputs\n", count);
  return count > 0 ? 0 : 1;
}
