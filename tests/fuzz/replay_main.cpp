// Runs a target on the files that are named as arguments, for builds without a fuzzer.

#include <fstream>
#include <iterator>

#include "fuzz.h"

int main(int count, char** paths) {
  for (int i = 1; i < count; ++i) {
    std::ifstream file(paths[i], std::ios::binary);
    if (!file) {
      std::perror(paths[i]);
      return EXIT_FAILURE;
    }
    const std::string bytes(std::istreambuf_iterator<char>(file), {});
    LLVMFuzzerTestOneInput(reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size());
  }
  std::printf("%d inputs\n", count - 1);
  return count > 1 ? EXIT_SUCCESS : EXIT_FAILURE;
}
