// Replays inputs through a fuzz harness without libFuzzer, as an ordinary test:
//   replay CORPUS_DIR [REGRESSIONS_DIR]
// Every regular file below CORPUS_DIR (which must hold at least one) and below
// REGRESSIONS_DIR (which may be missing) is passed to LLVMFuzzerTestOneInput in
// name order. A finding ends the process, so the test fails and names the input
// it was replaying.
#include <algorithm>
#include <boost/filesystem.hpp>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

int main(int argc, char** argv) {
  namespace fs = boost::filesystem;
  if (argc < 2 || argc > 3 || !fs::is_directory(argv[1])) {
    std::fprintf(stderr, "usage: %s CORPUS_DIR [REGRESSIONS_DIR]\n", argv[0]);
    return 2;
  }
  const auto below = [](const fs::path& dir) {
    std::vector<std::string> files;
    for (const auto& entry : fs::recursive_directory_iterator(dir))
      if (fs::is_regular_file(entry.status()))
        files.push_back(entry.path().string());
    std::sort(files.begin(), files.end());
    return files;
  };
  std::vector<std::string> inputs = below(argv[1]);
  if (inputs.empty()) {
    std::fprintf(stderr, "replay: corpus directory %s holds no input\n", argv[1]);
    return 2;
  }
  if (argc == 3 && fs::is_directory(argv[2])) {
    const std::vector<std::string> regressions = below(argv[2]);
    inputs.insert(inputs.end(), regressions.begin(), regressions.end());
  }
  for (const std::string& path : inputs) {
    std::ifstream in(path, std::ios::binary);
    if (!in) {
      std::fprintf(stderr, "replay: cannot read %s\n", path.c_str());
      return 2;
    }
    const std::vector<char> bytes((std::istreambuf_iterator<char>(in)),
                                  std::istreambuf_iterator<char>());
    std::fprintf(stderr, "replay: %s (%zu bytes)\n", path.c_str(), bytes.size());
    LLVMFuzzerTestOneInput(reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size());
  }
  std::printf("replayed %zu inputs\n", inputs.size());
  return 0;
}
