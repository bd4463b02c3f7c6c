// Deliberate faults, one per argument, for the sanitizer build's self-check:
// each must be reported and must end the process before "survived" is printed.
// Inputs come from argv so that no fault can be proven at compile time.
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

namespace {

int HeapOverflow(int index) {
  auto block = std::make_unique<int[]>(4);
  return block[static_cast<std::size_t>(index)];  // index 4: one past the end
}

int UseAfterFree(int value) {
  auto owner = std::make_unique<int>(value);
  int* alias = owner.get();
  owner.reset();
  return *alias;
}

int Leak(int size) {
  // Leaked on purpose: the pointer is dropped while still owning the block.
  auto* block = static_cast<char*>(std::malloc(static_cast<std::size_t>(size)));
  std::memset(block, 1, static_cast<std::size_t>(size));
  int first = block[0];
  block = nullptr;
  return first;
}

int SignedOverflow(int value) {
  return value + INT_MAX;  // value 1: overflows
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 3) {
    std::fprintf(stderr, "usage: %s heap-overflow|use-after-free|leak|signed-overflow N\n",
                 argv[0]);
    return 2;
  }
  const std::string fault = argv[1];
  const int n = std::atoi(argv[2]);
  int result = 0;
  if (fault == "heap-overflow")
    result = HeapOverflow(n);
  else if (fault == "use-after-free")
    result = UseAfterFree(n);
  else if (fault == "leak")
    result = Leak(n);
  else if (fault == "signed-overflow")
    result = SignedOverflow(n);
  else
    return 2;
  std::printf("survived %d\n", result);
  return 0;
}
