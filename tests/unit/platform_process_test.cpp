#include <gtest/gtest.h>
#include <sys/stat.h>

#include "test_support.h"
#include "vesk/fs.h"
#include "vesk/root.h"
#include "vlib/sysinfo.h"
#include "vlib/vlibc.h"

using namespace vesk::test;

TEST(PlatformExec, SuccessOnlyForExitStatusZero) {
  EXPECT_EQ(VLIBCExecl("/bin/true", 187, static_cast<const char*>(nullptr)), 0);
  EXPECT_EQ(VLIBCErrGet(), 0);
  EXPECT_NE(VLIBCExecl("/bin/false", 187, static_cast<const char*>(nullptr)), 0);
  EXPECT_EQ(VLIBCErrGet(), 0x101);
  EXPECT_NE(VLIBCExecl("/bin/sh", 0, "-c", "exit 7", static_cast<const char*>(nullptr)), 0);
  EXPECT_EQ(VLIBCErrGet(), 0x107);
  EXPECT_NE(VLIBCExecl("/bin/sh", 0, "-c", "kill -9 $$", static_cast<const char*>(nullptr)), 0);
  EXPECT_EQ(VLIBCErrGet(), 0x209);
  EXPECT_NE(VLIBCExecl("/nonexistent/program", 0, static_cast<const char*>(nullptr)), 0);
  EXPECT_EQ(VLIBCErrGet(), ENOENT);
}

TEST(PlatformExec, ArgumentsArePassedInOrderStdinIsEmptyAndTheFixedFormStopsAtNull) {
  TempDir dir;
  const std::string out = dir / "out";
  const std::string script = "printf '%s|' \"$@\" > " + out + "; cat >> " + out;
  ASSERT_EQ(VLIBCExecl("/bin/sh", 187, "-c", script.c_str(), "sh", "a b", "", "c",
                       static_cast<const char*>(nullptr)),
            0);
  EXPECT_EQ(ReadFile(out), "a b||c|");
  const std::string count = "echo $# > " + out;
  ASSERT_EQ(VLIBCExec("/bin/sh", "-c", count.c_str(), nullptr, "ignored"), 0);
  EXPECT_EQ(ReadFile(out), "0\n");
  EXPECT_LT(VLIBCExec("/bin/mv", (dir / "none").c_str(), (dir / "x").c_str(), nullptr, nullptr), 0);
}

TEST(PlatformFiles, MkdirCreatesParentsWithMode0755AndFileExistAnswersFromStat) {
  TempDir dir;
  const std::string deep = dir / "a/b/c/";
  ASSERT_EQ(VESKFSMkdirP(deep.c_str(), 0, 0, -1, -1, -1), 0);
  ASSERT_EQ(VESKFSMkdirP(deep.c_str(), 0, 0, -1, -1, -1), 0);
  struct stat st;
  ASSERT_EQ(stat((dir / "a/b").c_str(), &st), 0);
  mode_t mask = umask(0);
  umask(mask);
  EXPECT_EQ(st.st_mode & 0777, 0755 & ~mask);
  WriteFile(dir / "f", "x");
  EXPECT_EQ(VESKFSMkdirP((dir / "f/g").c_str(), 0, 0, -1, -1, -1), -1);
  EXPECT_EQ(VLIBCErrGet(), ENOTDIR);

  EXPECT_NE(VLIBCFileExist(deep.c_str()), 0);
  EXPECT_EQ(VLIBCFileExist((dir / "none").c_str()), 0);
  EXPECT_EQ(VLIBCFileExist(nullptr), 0);
}

TEST(PlatformUserAgent, RefusesTooSmallBuffers) {
  char buffer[256];
  int n = VLIBSysinfoUserAgentGet("database", buffer, sizeof buffer);
  ASSERT_GT(n, 0);
  EXPECT_EQ(std::string(buffer).size(), static_cast<size_t>(n));
  EXPECT_LT(VLIBSysinfoUserAgentGet("database", buffer, static_cast<size_t>(n)), 0);
  EXPECT_EQ(VLIBSysinfoUserAgentGet("database", buffer, static_cast<size_t>(n) + 1), n);
}

TEST(SandboxRoot, ResolvesFixedPathsOnlyWhenSet) {
  {
    ScopedEnv unset("VESKDBUD_ROOT", nullptr);
    EXPECT_EQ(vesk::platform::RootPath("/run/data_update/x.lock"), "/run/data_update/x.lock");
  }
  {
    ScopedEnv set("VESKDBUD_ROOT", "/tmp/sandbox//");
    EXPECT_EQ(vesk::platform::RootPath("/run/data_update/x.lock"),
              "/tmp/sandbox/run/data_update/x.lock");
    EXPECT_EQ(vesk::platform::RootPath("/"), "/tmp/sandbox/");
  }
  {
    ScopedEnv empty("VESKDBUD_ROOT", "");
    EXPECT_EQ(vesk::platform::RootPath("/var/db/x"), "/var/db/x");
  }
}
