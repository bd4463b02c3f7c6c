// The plug-in SDK over real shell-script plug-ins in a VESKDBUD_ROOT sandbox.
// Refused arguments and handles are rows of the C boundary's table
// (exported_symbols_test); the update's hook runs them in engine_test.
#include <errno.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <string>

#include "test_support.h"
#include "vlib/plugin_sdk.h"
#include "vlib/vlibc.h"

using namespace vesk::test;

namespace {

constexpr char kPath[] = "test_module/some_event";

class PluginSandbox : public ::testing::Test {
 protected:
  // A plug-in of `dir` whose output is appended to the record: `body`, or by
  // default "<name> <argc> <argv[1]>".
  void Plugin(const std::string& name, std::string body = "", const std::string& dir = kPath,
              mode_t mode = 0755) {
    const std::string path = root_ / ("usr/vesk/lib/plugins/" + dir + "/" + name);
    body = body.empty() ? "echo \"" + name + " $# $1\"" : body;
    WriteFile(path, "#!/bin/sh\n{\n" + body + "\n} >> '" + (root_ / "record") + "'\n");
    ASSERT_EQ(chmod(path.c_str(), mode), 0);
  }
  VLIBPluginHandle Init() {
    VLIBPluginHandle handle = 0;
    EXPECT_EQ(VLIBPluginSDKInit("test_module", kPath, &handle), 0);
    return handle;
  }
  std::string Record() const { return Exists(root_ / "record") ? ReadFile(root_ / "record") : ""; }
  TempDir root_;
  ScopedEnv env_{"VESKDBUD_ROOT", root_.path().c_str()};
};

TEST_F(PluginSandbox, RunsTheExecutablesFoundAtInitInByteOrderEvenAfterAFailure) {
  for (const char* name : {"b", "a", "A", "10", "9", "subdir/nested"})
    Plugin(name);
  Plugin("plain", "", kPath, 0644);
  const std::string dir = root_ / "usr/vesk/lib/plugins/test_module/some_event/";
  ASSERT_EQ(symlink((dir + "a").c_str(), (dir + "linked").c_str()), 0);
  ASSERT_EQ(symlink("/nonexistent", (dir + "dead").c_str()), 0);
  Plugin("3-fails", "echo 3-fails; [ \"$1\" = 5 ] || exit 3");
  Plugin("4-killed", "[ \"$1\" = 4 ] || kill -9 $$");
  const VLIBPluginHandle handle = Init();
  Plugin("late");
  EXPECT_EQ(VLIBPluginAction(VLIB_PLUGIN_ACTION_PRE_UPDATE, handle), -1);
  EXPECT_EQ(VLIBCErrGet(), 0x103);
  EXPECT_EQ(VLIBPluginAction(VLIB_PLUGIN_ACTION_POST_UPDATE, handle), -1);
  EXPECT_EQ(VLIBCErrGet(), 0x209);
  EXPECT_EQ(Record(),
            "10 1 4\n3-fails\n9 1 4\nA 1 4\na 1 4\nb 1 4\na 1 4\n"  // "linked" runs as "a"
            "10 1 5\n3-fails\n9 1 5\nA 1 5\na 1 5\nb 1 5\na 1 5\n");
  EXPECT_EQ(VLIBPluginExit(handle), 0);
}

TEST_F(PluginSandbox, NamedArgumentsJoinTheInheritedEnvironmentPerHandleStdinEmpty) {
  ScopedEnv inherited("PLUGIN_TEST_INHERITED", "from parent");
  ScopedEnv shadowed("DATABASE", "inherited value");
  Plugin("env", "echo \"$DATABASE|$PLUGIN_TEST_INHERITED|$ODD\"; env | grep -c ^DATABASE=; cat");
  const VLIBPluginHandle first = Init(), second = Init();
  // In order (&& sequences the calls): a later set replaces an earlier one.
  ASSERT_TRUE(!VLIBPluginSetArg(first, "DATABASE", "first") &&
              !VLIBPluginSetArg(second, "DATABASE", "2") &&
              !VLIBPluginSetArg(first, "ODD", "two words; $HOME `x`") &&
              !VLIBPluginSetArg(first, "DATABASE", "db1") &&
              !VLIBPluginAction(VLIB_PLUGIN_ACTION_INSTALL, first) &&
              !VLIBPluginAction(VLIB_PLUGIN_ACTION_INSTALL, second));
  EXPECT_EQ(Record(), "db1|from parent|two words; $HOME `x`\n1\n2|from parent|\n1\n");
  EXPECT_EQ(VLIBPluginExit(first) + VLIBPluginExit(second), 0);
}

TEST_F(PluginSandbox, APluginOverItsTimeLimitIsKilledWithItsHelpersAndTheNextRuns) {
  ScopedEnv limit("VLIB_PLUGIN_TIMEOUT", "1");
  Plugin("1-hangs", "sleep 60 & echo $! > '" + (root_ / "pid") + "'; sleep 60");
  Plugin("2-next");
  const VLIBPluginHandle handle = Init();
  EXPECT_EQ(VLIBPluginAction(VLIB_PLUGIN_ACTION_PRE_UPDATE, handle), -1);
  EXPECT_EQ(VLIBCErrGet(), ETIMEDOUT);
  EXPECT_EQ(Record(), "2-next 1 4\n");
  VLIBPluginExit(handle);
  // Its helper was in its process group: gone, or a zombie left to init.
  const std::string stat = "/proc/" + std::to_string(std::stoi(ReadFile(root_ / "pid"))) + "/stat";
  const auto running = [&stat] {
    std::ifstream in(stat);
    std::string line;
    return std::getline(in, line) && line.find(") Z ") == std::string::npos;
  };
  for (int i = 0; i < 100 && running(); ++i)
    usleep(20000);
  EXPECT_FALSE(running()) << stat;
}

}  // namespace
