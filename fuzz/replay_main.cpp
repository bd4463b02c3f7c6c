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

namespace {

namespace fs = boost::filesystem;

std::vector<std::string> InputsBelow(const fs::path& dir) {
  std::vector<std::string> files;
  for (const auto& entry : fs::recursive_directory_iterator(dir)) {
    if (fs::is_regular_file(entry.status()))
      files.push_back(entry.path().string());
  }
  std::sort(files.begin(), files.end());
  return files;
}

void Replay(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  if (!in) {
    std::fprintf(stderr, "replay: cannot read %s\n", path.c_str());
    std::exit(2);
  }
  const std::vector<char> bytes((std::istreambuf_iterator<char>(in)),
                                std::istreambuf_iterator<char>());
  std::fprintf(stderr, "replay: %s (%zu bytes)\n", path.c_str(), bytes.size());
  LLVMFuzzerTestOneInput(reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size());
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 2 || argc > 3) {
    std::fprintf(stderr, "usage: %s CORPUS_DIR [REGRESSIONS_DIR]\n", argv[0]);
    return 2;
  }
  if (!fs::is_directory(argv[1])) {
    std::fprintf(stderr, "replay: corpus directory %s is missing\n", argv[1]);
    return 2;
  }
  const std::vector<std::string> corpus = InputsBelow(argv[1]);
  if (corpus.empty()) {
    std::fprintf(stderr, "replay: corpus directory %s holds no input\n", argv[1]);
    return 2;
  }
  std::vector<std::string> regressions;
  if (argc == 3 && fs::is_directory(argv[2]))
    regressions = InputsBelow(argv[2]);

  for (const std::string& path : corpus)
    Replay(path);
  for (const std::string& path : regressions)
    Replay(path);
  std::printf("replayed %zu corpus and %zu regression inputs\n", corpus.size(), regressions.size());
  return 0;
}
