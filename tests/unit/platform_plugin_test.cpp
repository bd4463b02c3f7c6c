// The plug-in SDK over real shell-script plug-ins in a VESKDBUD_ROOT sandbox,
// and the update's hook that drives it. Refused arguments and handles are rows
// of the C boundary's table (exported_symbols_test).
#include <errno.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <sstream>
#include <string>
#include <vector>

#include "dataupdate/hook.h"
#include "test_support.h"
#include "vlib/plugin_sdk.h"
#include "vlib/vlibc.h"

using namespace vesk::test;
using vesk::dataupdate::UpdateHook;

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
  std::vector<std::string> Record() const {
    std::istringstream in(Exists(root_ / "record") ? ReadFile(root_ / "record") : "");
    std::vector<std::string> lines;
    for (std::string line; std::getline(in, line);)
      lines.push_back(line);
    return lines;
  }
  TempDir root_;
  ScopedEnv env_{"VESKDBUD_ROOT", root_.path().c_str()};
};

TEST_F(PluginSandbox, RunsTheExecutablesFoundAtInitInByteOrderEvenAfterAFailure) {
  for (const char* name : {"b", "a", "A", "10", "9", "subdir/nested"})
    Plugin(name);
  Plugin("plain", "", kPath, 0644);
  const std::string dir = root_ / "usr/vesk/lib/plugins/test_module/some_event/";
  ASSERT_EQ(symlink((dir + "a").c_str(), (dir + "linked").c_str()), 0);  // runs as "a"
  ASSERT_EQ(symlink("/nonexistent", (dir + "dead").c_str()), 0);
  Plugin("3-fails", "echo 3-fails; [ \"$1\" = 5 ] || exit 3");
  Plugin("4-killed", "[ \"$1\" = 4 ] || kill -9 $$");
  const VLIBPluginHandle handle = Init();
  Plugin("late");
  EXPECT_EQ(VLIBPluginAction(VLIB_PLUGIN_ACTION_PRE_UPDATE, handle), -1);
  EXPECT_EQ(VLIBCErrGet(), 0x103);
  EXPECT_EQ(VLIBPluginAction(VLIB_PLUGIN_ACTION_POST_UPDATE, handle), -1);
  EXPECT_EQ(VLIBCErrGet(), 0x209);
  EXPECT_EQ(Record(), (std::vector<std::string>{"10 1 4", "3-fails", "9 1 4", "A 1 4", "a 1 4",
                                                "b 1 4", "a 1 4", "10 1 5", "3-fails", "9 1 5",
                                                "A 1 5", "a 1 5", "b 1 5", "a 1 5"}));
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
  EXPECT_EQ(Record(), (std::vector<std::string>{"db1|from parent|two words; $HOME `x`", "1",
                                                "2|from parent|", "1"}));
  EXPECT_EQ(VLIBPluginExit(first) + VLIBPluginExit(second), 0);
}

TEST_F(PluginSandbox, APluginOverItsTimeLimitIsKilledWithItsHelpers) {
  ScopedEnv limit("VLIB_PLUGIN_TIMEOUT", "1");
  Plugin("1-hangs", "sleep 60 & echo $! > '" + (root_ / "pid") + "'; sleep 60");
  Plugin("2-next");
  const VLIBPluginHandle handle = Init();
  EXPECT_EQ(VLIBPluginAction(VLIB_PLUGIN_ACTION_PRE_UPDATE, handle), -1);
  EXPECT_EQ(VLIBCErrGet(), ETIMEDOUT);
  EXPECT_EQ(Record(), (std::vector<std::string>{"2-next 1 4"}));
  VLIBPluginExit(handle);
  // The helper was in the plug-in's process group: gone, or a zombie of init.
  const std::string proc = "/proc/" + std::to_string(std::stoi(ReadFile(root_ / "pid")));
  const auto running = [&] {
    return Exists(proc) && ReadFile(proc + "/stat").find(") Z ") == std::string::npos;
  };
  for (int i = 0; i < 100 && running(); ++i)
    usleep(20000);
  EXPECT_FALSE(running()) << proc << " still runs";
}

// Without plug-ins both actions succeed; copies share one SDK handle and its
// arguments, the first copy gone releasing it for all.
TEST_F(PluginSandbox, TheHookPassesActionAndArgumentsAndItsCopiesShareTheHandle) {
  LogCapture log;
  {
    UpdateHook empty("db1", {"a.db"});
    EXPECT_FALSE(empty.SetEnv("BAD=KEY", "v1"));
    EXPECT_TRUE(empty.ExecPre() && empty.ExecPost());
  }
  Plugin("notify", "echo \"$1|$DATABASE|$CHANGED_FILES|$DELIMITER\"",
         "database_autoupdate/version_change");
  UpdateHook original("db1", {"b.db", "a.db"});
  EXPECT_TRUE(original.ExecPre());
  {
    UpdateHook copy(original), assigned("db9", {"z.db"}), none("db2", {});
    EXPECT_TRUE(copy.ExecPost());
    assigned = original;
    EXPECT_TRUE(assigned.ExecPre() && none.ExecPre());
  }
  EXPECT_EQ(Record(), (std::vector<std::string>{"4|db1|a.db:b.db|:", "5|db1|a.db:b.db|:",
                                                "4|db1|a.db:b.db|:", "4|db2||:"}));
  EXPECT_FALSE(original.ExecPre());  // released through a copy: refused, logged, no crash
  EXPECT_EQ(log.Lines(), (std::vector<std::string>{
                             "err: hook.cpp:89 Failed to set plugin argument key=BAD=KEY value=v1",
                             "err: hook.cpp:107 Failed to exec hook at action [4]"}));
}

// A plug-in directory that cannot be read: logged once, then every argument
// and action is refused without reaching the SDK.
TEST_F(PluginSandbox, AHookWhoseInitFailedRefusesEverything) {
  LogCapture log;
  WriteFile(root_ / "usr/vesk/lib/plugins/database_autoupdate", "not a directory");
  UpdateHook hook("db1", {"a.db"});
  EXPECT_FALSE(hook.ExecPre() || hook.ExecPost());
  const std::string refused = "err: hook.cpp:84 Not init or init failed";
  const std::string unrun = "err: hook.cpp:103 Not init or init failed";
  EXPECT_EQ(log.Lines(), (std::vector<std::string>{
                             "err: hook.cpp:32 Failed to init hook in module [database_autoupdate] "
                             "and path [database_autoupdate/version_change]",
                             refused, refused, refused, unrun, unrun}));
}

}  // namespace
