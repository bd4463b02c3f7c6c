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

namespace {

struct HwidFree {
  void operator()(veskcrypto_hwid* ctx) const { veskcrypto_hwid_free(ctx); }
};
using Hwid = std::unique_ptr<veskcrypto_hwid, HwidFree>;

// The identity, or "" when veskcrypto_hwid_str fails (which must then leave "").
std::string Identity() {
  Hwid ctx(veskcrypto_hwid_init());
  EXPECT_NE(ctx, nullptr);
  if (!ctx)
    return "<no context>";
  if (veskcrypto_hwid_str(ctx.get(), 16) == 0) {
    EXPECT_STREQ(ctx->str, "");
    return "";
  }
  return ctx->str;
}

class HwidSandbox : public ::testing::Test {
 protected:
  void SetMachineId(const std::string& content) { WriteFile(root_ / "etc/machine-id", content); }
  TempDir root_;
  ScopedEnv env_{"VESKDBUD_ROOT", root_.path().c_str()};
};

TEST_F(HwidSandbox, IsTheSha256OfTheTrimmedMachineIdStableAcrossCallsAndContexts) {
  SetMachineId("  abc \n");
  // SHA-256("abc"), the FIPS 180-2 example.
  EXPECT_EQ(Identity(), "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");

  SetMachineId("4c4c4544003957108052b4c04f384d32\n");
  Hwid ctx(veskcrypto_hwid_init());
  ASSERT_NE(ctx, nullptr);
  ASSERT_NE(veskcrypto_hwid_str(ctx.get(), 16), 0);
  const std::string first = ctx->str;
  ASSERT_NE(veskcrypto_hwid_str(ctx.get(), 16), 0);
  EXPECT_EQ(std::string(ctx->str), first);
  EXPECT_EQ(Identity(), first);
  SetMachineId("4c4c4544003957108052b4c04f384d33\n");
  EXPECT_NE(Identity(), first);
}

TEST_F(HwidSandbox, AnEmptyOrBlankMachineIdIsAFailure) {
  SetMachineId("");
  EXPECT_EQ(Identity(), "");
  EXPECT_EQ(VLIBCErrGet(), ENODATA);
  SetMachineId(" \n\t\n");
  EXPECT_EQ(Identity(), "");
}

TEST_F(HwidSandbox, WithoutASandboxMachineIdTheHostsIsUsed) {
  const std::string sandboxed = Identity();
  std::string host;
  {
    ScopedEnv unset("VESKDBUD_ROOT", nullptr);
    host = Identity();
  }
  EXPECT_EQ(sandboxed, host);
  if (!host.empty()) {  // some containers ship an empty /etc/machine-id
    EXPECT_EQ(host.size(), 64u);
  }
}

TEST(Hwid, ANullContextIsRefused) {
  EXPECT_EQ(veskcrypto_hwid_str(nullptr, 16), 0);
  EXPECT_EQ(VLIBCErrGet(), EINVAL);
  veskcrypto_hwid_free(nullptr);  // like free(NULL)
}

}  // namespace
