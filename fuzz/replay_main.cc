// Runs a fuzz target on every file of a folder, and on some inputs made by chance: the corpus as a test,
// with any compiler.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <string>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

int main(int argc, char** argv) {
  if (argc < 2) {
    fprintf(stderr, "usage: %s folder [random inputs]\n", argv[0]);
    return 2;
  }
  int count = 0;
  for (const auto& entry : std::filesystem::directory_iterator(argv[1])) {
    std::ifstream in(entry.path(), std::ios::binary);
    const std::string bytes{std::istreambuf_iterator<char>(in), {}};
    printf("%s\n", entry.path().c_str());
    fflush(stdout); // names the file that a crash was met in
    LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size());
    count++;
  }
  if (count == 0) return 1;
  std::mt19937 random; // seeded alike in each run
  for (int i = argc > 2 ? atoi(argv[2]) : 0; i > 0; i--, count++) {
    std::string bytes(random() % 500, '\0');
    for (char& byte : bytes) byte = static_cast<char>(random());
    LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size());
  }
  printf("%d inputs\n", count);
  return 0;
}
