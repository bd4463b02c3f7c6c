// The reader-lock functions are part of libveskdbud.so's C interface: exported,
// defined, and under their plain names.
#include <gtest/gtest.h>

#include <cstdio>
#include <memory>
#include <set>
#include <sstream>
#include <string>

namespace {

// Names of the dynamic symbols that the shared library defines.
std::set<std::string> DefinedDynamicSymbols(const std::string& library) {
  const std::string command = "nm -D --defined-only '" + library + "'";
  std::unique_ptr<FILE, int (*)(FILE*)> pipe(popen(command.c_str(), "re"), pclose);
  std::set<std::string> names;
  if (!pipe)
    return names;
  char line[4096];
  while (fgets(line, sizeof line, pipe.get()) != nullptr) {
    std::istringstream fields(line);
    std::string address, type, name;
    if (fields >> address >> type >> name)
      names.insert(name);
  }
  return names;
}

}  // namespace

TEST(ExportedSymbols, ReaderLockFunctionsAreExportedUnmangled) {
  const std::set<std::string> names = DefinedDynamicSymbols(VESKDBUD_SHARED_LIBRARY);
  ASSERT_FALSE(names.empty()) << "nm listed nothing for " << VESKDBUD_SHARED_LIBRARY;
  EXPECT_EQ(names.count("VESKDBUDGetFileLock"), 1u);
  EXPECT_EQ(names.count("VESKDBUDReleaseFileLock"), 1u);
  // Internal modules, such as the log, stay hidden.
  for (const std::string& name : names)
    EXPECT_EQ(name.find("log6detail4Emit"), std::string::npos) << name;
}
