// The platform layer's small services: running programs, directories, the
// user agent, the sandbox root and the machine identity.
#include <errno.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <memory>
#include <string>

#include "test_support.h"
#include "vesk/crypto_hwid.h"
#include "vesk/fs.h"
#include "vesk/root.h"
#include "vlib/sysinfo.h"
#include "vlib/vlibc.h"

using namespace vesk::test;

TEST(PlatformExec, SuccessOnlyForExitStatusZeroArgumentsInOrderStdinEmpty) {
  const std::pair<const char*, int> runs[] = {
      {"exit 0", 0}, {"exit 1", 0x101}, {"exit 7", 0x107}, {"kill -9 $$", 0x209}};
  for (const auto& [command, error] : runs) {
    EXPECT_EQ(VLIBCExecl("/bin/sh", 187, "-c", command, nullptr), error ? -1 : 0) << command;
    EXPECT_EQ(VLIBCErrGet(), error) << command;
  }
  EXPECT_EQ(VLIBCExec("/nonexistent/program", nullptr, nullptr, nullptr, nullptr), -1);
  EXPECT_EQ(VLIBCErrGet(), ENOENT);
  TempDir dir;
  const std::string out = dir / "out", script = "printf '%s|' \"$@\" > " + out + "; cat >> " + out;
  ASSERT_EQ(VLIBCExecl("/bin/sh", 0, "-c", script.c_str(), "sh", "a b", "", "c", nullptr), 0);
  EXPECT_EQ(ReadFile(out), "a b||c|");
  ASSERT_EQ(VLIBCExec("/bin/sh", "-c", ("echo $# > " + out).c_str(), nullptr, "ignored"), 0);
  EXPECT_EQ(ReadFile(out), "0\n");
}

TEST(PlatformFiles, MkdirCreatesParentsWithMode0755AndFileExistAnswersFromStat) {
  TempDir dir;
  const std::string deep = dir / "a/b/";
  ASSERT_EQ(VESKFSMkdirP(deep.c_str(), 0, 0, -1, -1, -1), 0);
  ASSERT_EQ(VESKFSMkdirP(deep.c_str(), 0, 0, -1, -1, -1), 0);
  struct stat st;
  ASSERT_EQ(stat((dir / "a").c_str(), &st), 0);
  const mode_t mask = umask(0);
  umask(mask);
  EXPECT_EQ(st.st_mode & 0777, 0755 & ~mask);
  WriteFile(dir / "f", "x");
  EXPECT_EQ(VESKFSMkdirP((dir / "f/g").c_str(), 0, 0, -1, -1, -1), -1);
  EXPECT_EQ(VLIBCErrGet(), ENOTDIR);
  EXPECT_EQ(VLIBCFileExist(deep.c_str()) * 2 + VLIBCFileExist((dir / "x").c_str()), 2);
}

TEST(PlatformUserAgent, FillsTheBufferOnlyWhenTheTextAndItsNulFit) {
  char buffer[256];
  const int n = VLIBSysinfoUserAgentGet("database", buffer, sizeof buffer);
  ASSERT_GT(n, 0);
  EXPECT_EQ(std::string(buffer).substr(0, 9) + std::to_string(std::string(buffer).size()),
            "veskdbud/" + std::to_string(n));
  EXPECT_LT(VLIBSysinfoUserAgentGet("database", buffer, static_cast<size_t>(n)), 0);
  EXPECT_EQ(VLIBSysinfoUserAgentGet("database", buffer, static_cast<size_t>(n) + 1), n);
}

// The one resolver of fixed paths; the tool's SystemPath is this function.
TEST(SandboxRoot, ResolvesFixedPathsOnlyBelowANonEmptyRoot) {
  const std::pair<const char*, const char*> cases[] = {
      {nullptr, "/run/x"}, {"", "/run/x"}, {"/", "/run/x"}, {"/tmp/box//", "/tmp/box/run/x"}};
  for (const auto& [root, expected] : cases) {
    ScopedEnv env("VESKDBUD_ROOT", root);
    EXPECT_EQ(vesk::platform::RootPath("/run/x"), expected) << (root ? root : "unset");
  }
  ScopedEnv env("VESKDBUD_ROOT", "/tmp/box");
  EXPECT_EQ(vesk::platform::RootPath("/") + vesk::platform::RootPath("r"), "/tmp/box//tmp/box/r");
}

// The identity, or "" when veskcrypto_hwid_str fails (which must then leave "").
std::string Identity() {
  std::unique_ptr<veskcrypto_hwid, void (*)(veskcrypto_hwid*)> ctx(veskcrypto_hwid_init(),
                                                                   veskcrypto_hwid_free);
  const bool ok = veskcrypto_hwid_str(ctx.get(), 16) != 0;
  EXPECT_EQ(ok, ctx->str[0] != '\0');
  return ctx->str;
}

TEST(Hwid, IsTheSha256OfTheTrimmedMachineIdOrFailsForABlankOne) {
  TempDir root;
  const std::string host = Identity();
  ScopedEnv env("VESKDBUD_ROOT", root.path().c_str());
  EXPECT_EQ(Identity(), host) << "no machine id in the sandbox: the host's";
  WriteFile(root / "etc/machine-id", "  abc \n");  // SHA-256("abc"), the FIPS 180-2 example
  EXPECT_EQ(Identity(), "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");
  WriteFile(root / "etc/machine-id", " \n\t\n");
  EXPECT_EQ(Identity(), "");
  EXPECT_EQ(VLIBCErrGet(), ENODATA);
}
