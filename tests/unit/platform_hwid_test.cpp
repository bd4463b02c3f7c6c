#include <errno.h>
#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "test_support.h"
#include "vesk/crypto_hwid.h"
#include "vlib/vlibc.h"

using namespace vesk::test;

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
