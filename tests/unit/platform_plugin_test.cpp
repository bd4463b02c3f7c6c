// The plug-in SDK over real shell-script plug-ins in a VESKDBUD_ROOT sandbox,
// and the update's hook that drives it.
#include <errno.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "dataupdate/hook.h"
#include "test_support.h"
#include "vlib/plugin_sdk.h"
#include "vlib/vlibc.h"

using vesk::dataupdate::UpdateHook;
using namespace vesk::test;

namespace {

// A VESKDBUD_ROOT sandbox holding the plug-in directory of one path, and a
// record file that the plug-ins written here append to.
class PluginSandbox : public ::testing::Test {
 protected:
  static constexpr const char* kPath = "test_module/some_event";

  std::string PluginDir() const { return root_ / ("usr/vesk/lib/plugins/" + plugin_path_); }
  std::string RecordFile() const { return root_ / "record.txt"; }

  // A shell-script plug-in named `name` running `body`; $RECORD is the record file.
  void WritePlugin(const std::string& name, const std::string& body, mode_t mode = 0755) {
    const std::string path = PluginDir() + "/" + name;
    WriteFile(path, "#!/bin/sh\nRECORD='" + RecordFile() + "'\n" + body + "\n");
    ASSERT_EQ(chmod(path.c_str(), mode), 0);
  }
  // A plug-in that appends "<name> <argc> <argv[1]>" to the record.
  void WriteRecorder(const std::string& name, mode_t mode = 0755) {
    WritePlugin(name, "echo \"" + name + " $# $1\" >> \"$RECORD\"", mode);
  }

  VLIBPluginHandle Init() {
    VLIBPluginHandle handle = 0;
    EXPECT_EQ(VLIBPluginSDKInit("test_module", kPath, &handle), 0);
    EXPECT_NE(handle, 0u);
    return handle;
  }

  std::vector<std::string> Record() const {
    std::vector<std::string> lines;
    std::istringstream in(Exists(RecordFile()) ? ReadFile(RecordFile()) : "");
    for (std::string line; std::getline(in, line);)
      lines.push_back(line);
    return lines;
  }

  std::string plugin_path_ = kPath;
  TempDir root_;
  ScopedEnv env_{"VESKDBUD_ROOT", root_.path().c_str()};
};

// The hook's plug-ins; each records
// "<action>|<DATABASE>|<CHANGED_FILES>|<DELIMITER>|<CHANGED_FILES set?>".
class HookSandbox : public PluginSandbox {
 protected:
  HookSandbox() { plugin_path_ = "database_autoupdate/version_change"; }
  void WriteNotifier(const std::string& name) {
    WritePlugin(name,
                "printf '%s|%s|%s|%s|%s\\n' \"$1\" \"$DATABASE\" \"$CHANGED_FILES\" "
                "\"$DELIMITER\" \"${CHANGED_FILES+set}\" >> \"$RECORD\"");
  }
  LogCapture log_;
};

TEST_F(PluginSandbox, RunsEveryExecutableInByteOrderWithTheActionAsOnlyArgument) {
  for (const char* name : {"b", "a", "A", "10", "9", "_z"})
    WriteRecorder(name);
  VLIBPluginHandle handle = Init();
  ASSERT_EQ(VLIBPluginAction(VLIB_PLUGIN_ACTION_PRE_UPDATE, handle), 0);
  EXPECT_EQ(Record(),
            (std::vector<std::string>{"10 1 4", "9 1 4", "A 1 4", "_z 1 4", "a 1 4", "b 1 4"}));
  ASSERT_EQ(VLIBPluginAction(VLIB_PLUGIN_ACTION_POST_UPDATE, handle), 0);
  EXPECT_EQ(Record().size(), 12u);
  EXPECT_EQ(Record().back(), "b 1 5");
  EXPECT_EQ(VLIBPluginExit(handle), 0);
}

TEST_F(PluginSandbox, NamedArgumentsAreAddedToTheInheritedEnvironmentAndStdinIsEmpty) {
  ScopedEnv inherited("PLUGIN_TEST_INHERITED", "from parent");
  ScopedEnv shadowed("DATABASE", "inherited value");
  WritePlugin("env",
              "printf '%s|%s|%s|%s\\n' \"$DATABASE\" \"$CHANGED_FILES\" "
              "\"$PLUGIN_TEST_INHERITED\" \"$ODD\" >> \"$RECORD\"\n"
              "env | grep -c '^DATABASE=' >> \"$RECORD\"\n"
              "cat >> \"$RECORD\"");
  VLIBPluginHandle handle = Init();
  ASSERT_EQ(VLIBPluginSetArg(handle, "DATABASE", "first"), 0);
  ASSERT_EQ(VLIBPluginSetArg(handle, "CHANGED_FILES", "a.db:b.db"), 0);
  ASSERT_EQ(VLIBPluginSetArg(handle, "ODD", "two words; $HOME `x`"), 0);
  ASSERT_EQ(VLIBPluginSetArg(handle, "DATABASE", "db1"), 0);  // a later set replaces
  ASSERT_EQ(VLIBPluginAction(VLIB_PLUGIN_ACTION_INSTALL, handle), 0);
  EXPECT_EQ(Record(), (std::vector<std::string>{
                          "db1|a.db:b.db|from parent|two words; $HOME `x`",
                          "1",  // the argument replaced the inherited variable, once
                      }));
  VLIBPluginExit(handle);
}

TEST_F(PluginSandbox, AFailingPluginDoesNotStopTheOthersButFailsTheAction) {
  WriteRecorder("1-first");
  WritePlugin("2-fails", "echo 2-fails >> \"$RECORD\"; [ \"$1\" = 5 ] || exit 3");
  WritePlugin("3-killed", "echo 3-killed >> \"$RECORD\"; kill -9 $$");
  WriteRecorder("4-last");
  VLIBPluginHandle handle = Init();
  EXPECT_NE(VLIBPluginAction(VLIB_PLUGIN_ACTION_PRE_UPDATE, handle), 0);
  EXPECT_EQ(VLIBCErrGet(), 0x103);
  EXPECT_NE(VLIBPluginAction(VLIB_PLUGIN_ACTION_POST_UPDATE, handle), 0);
  EXPECT_EQ(VLIBCErrGet(), 0x209);
  EXPECT_EQ(Record(),
            (std::vector<std::string>{"1-first 1 4", "2-fails", "3-killed", "4-last 1 4",
                                      "1-first 1 5", "2-fails", "3-killed", "4-last 1 5"}));
  VLIBPluginExit(handle);
}

TEST_F(PluginSandbox, OnlyExecutablesFoundAtInitRun) {
  WriteRecorder("plain", 0644);
  WriteRecorder("runs");
  ASSERT_EQ(mkdir((PluginDir() + "/subdir").c_str(), 0755), 0);
  WriteRecorder("subdir/nested");
  ASSERT_EQ(symlink((PluginDir() + "/runs").c_str(), (PluginDir() + "/linked").c_str()), 0);
  ASSERT_EQ(symlink("/nonexistent/plugin", (PluginDir() + "/dangling").c_str()), 0);
  VLIBPluginHandle handle = Init();
  WriteRecorder("late");
  ASSERT_EQ(VLIBPluginAction(VLIB_PLUGIN_ACTION_PRE_UPDATE, handle), 0);
  // The link runs its target, whose script names itself "runs".
  EXPECT_EQ(Record(), (std::vector<std::string>{"runs 1 4", "runs 1 4"}));
  VLIBPluginExit(handle);
}

// A missing directory is no plug-ins at all, as the hook without plug-ins shows;
// a file in its place is an error.
TEST_F(PluginSandbox, AFileInPlaceOfTheDirectoryFailsInit) {
  WriteFile(root_ / "usr/vesk/lib/plugins/test_module", "not a directory");
  VLIBPluginHandle handle = 0;
  EXPECT_NE(VLIBPluginSDKInit("test_module", kPath, &handle), 0);
  EXPECT_EQ(VLIBCErrGet(), ENOTDIR);
  EXPECT_EQ(handle, 0u);
}

TEST_F(PluginSandbox, PathsLeavingThePluginRootMissingNamesAndBadArgumentNamesAreRefused) {
  VLIBPluginHandle handle = 0;
  for (const char* path : {"", "/etc", "../x", "a/../../b", "a//b", "./a", "a/."}) {
    EXPECT_NE(VLIBPluginSDKInit("test_module", path, &handle), 0) << path;
    EXPECT_EQ(VLIBCErrGet(), EINVAL) << path;
  }
  EXPECT_NE(VLIBPluginSDKInit(nullptr, kPath, &handle), 0);
  EXPECT_NE(VLIBPluginSDKInit("", kPath, &handle), 0);
  EXPECT_NE(VLIBPluginSDKInit("test_module", nullptr, &handle), 0);
  EXPECT_NE(VLIBPluginSDKInit("test_module", kPath, nullptr), 0);
  EXPECT_EQ(handle, 0u);
  // A trailing "/" names the same directory.
  EXPECT_EQ(VLIBPluginSDKInit("test_module", "test_module/some_event/", &handle), 0);

  // Argument names that cannot be variables.
  EXPECT_NE(VLIBPluginSetArg(handle, "A=B", "x"), 0);
  EXPECT_EQ(VLIBCErrGet(), EINVAL);
  EXPECT_NE(VLIBPluginSetArg(handle, "", "x"), 0);
  EXPECT_NE(VLIBPluginSetArg(handle, nullptr, "x"), 0);
  EXPECT_NE(VLIBPluginSetArg(handle, "KEY", nullptr), 0);
  EXPECT_EQ(VLIBPluginSetArg(handle, "KEY", ""), 0);
  EXPECT_EQ(VLIBPluginExit(handle), 0);
}

TEST_F(PluginSandbox, ReleasedAndUnknownHandlesAreRefused) {
  WriteRecorder("p");
  VLIBPluginHandle handle = Init();
  ASSERT_EQ(VLIBPluginExit(handle), 0);
  EXPECT_NE(VLIBPluginExit(handle), 0);
  EXPECT_EQ(VLIBCErrGet(), EBADF);
  EXPECT_NE(VLIBPluginSetArg(handle, "K", "v"), 0);
  EXPECT_NE(VLIBPluginAction(VLIB_PLUGIN_ACTION_PRE_UPDATE, handle), 0);
  EXPECT_EQ(VLIBCErrGet(), EBADF);
  EXPECT_NE(VLIBPluginExit(0), 0);
  EXPECT_NE(VLIBPluginAction(VLIB_PLUGIN_ACTION_PRE_UPDATE, handle + 1000), 0);
  EXPECT_FALSE(Exists(RecordFile()));  // nothing ran through a dead handle
}

TEST_F(PluginSandbox, HandlesKeepTheirOwnArguments) {
  WritePlugin("p", "echo \"$DATABASE\" >> \"$RECORD\"");
  VLIBPluginHandle first = Init();
  VLIBPluginHandle second = Init();
  ASSERT_NE(first, second);
  ASSERT_EQ(VLIBPluginSetArg(first, "DATABASE", "one"), 0);
  ASSERT_EQ(VLIBPluginSetArg(second, "DATABASE", "two"), 0);
  ASSERT_EQ(VLIBPluginAction(VLIB_PLUGIN_ACTION_PRE_UPDATE, second), 0);
  ASSERT_EQ(VLIBPluginExit(second), 0);
  ASSERT_EQ(VLIBPluginAction(VLIB_PLUGIN_ACTION_PRE_UPDATE, first), 0);
  EXPECT_EQ(Record(), (std::vector<std::string>{"two", "one"}));
  VLIBPluginExit(first);
}

TEST_F(PluginSandbox, ConcurrentInitAndExitGiveDistinctHandlesAndEachExitsOnce) {
  std::vector<std::vector<VLIBPluginHandle>> seen(4);
  std::atomic<int> failures{0};
  std::vector<std::thread> threads;
  for (size_t t = 0; t < seen.size(); ++t) {
    threads.emplace_back([&, t] {
      for (int i = 0; i < 200; ++i) {
        VLIBPluginHandle handle = 0;
        if (VLIBPluginSDKInit("test_module", kPath, &handle) != 0 ||
            VLIBPluginSetArg(handle, "K", "v") != 0 || VLIBPluginExit(handle) != 0 ||
            VLIBPluginExit(handle) == 0)
          ++failures;
        seen[t].push_back(handle);
      }
    });
  }
  for (auto& thread : threads)
    thread.join();
  EXPECT_EQ(failures.load(), 0);
  std::vector<VLIBPluginHandle> all;
  for (const auto& handles : seen)
    all.insert(all.end(), handles.begin(), handles.end());
  std::sort(all.begin(), all.end());
  EXPECT_EQ(std::adjacent_find(all.begin(), all.end()), all.end()) << "a handle was issued twice";
}

TEST_F(PluginSandbox, APluginOverItsTimeLimitIsKilledWithItsHelpers) {
  ScopedEnv limit("VLIB_PLUGIN_TIMEOUT", "1");
  const std::string helper_pid = root_ / "helper.pid";
  WritePlugin("1-hangs", "sleep 60 & echo $! > '" + helper_pid + "'\nsleep 60");
  WriteRecorder("2-next");
  VLIBPluginHandle handle = Init();
  timespec start, end;
  clock_gettime(CLOCK_MONOTONIC, &start);
  EXPECT_NE(VLIBPluginAction(VLIB_PLUGIN_ACTION_PRE_UPDATE, handle), 0);
  EXPECT_EQ(VLIBCErrGet(), ETIMEDOUT);
  clock_gettime(CLOCK_MONOTONIC, &end);
  EXPECT_LT(end.tv_sec - start.tv_sec, 20);
  EXPECT_EQ(Record(), (std::vector<std::string>{"2-next 1 4"}));
  VLIBPluginExit(handle);

  // The helper belonged to the plug-in's process group: it is gone (or only a
  // zombie waiting for its new parent to reap it).
  const pid_t helper = std::stoi(ReadFile(helper_pid));
  bool gone = false;
  for (int i = 0; i < 100 && !gone; ++i) {
    std::ifstream stat("/proc/" + std::to_string(helper) + "/stat");
    std::string pid_field, comm, state;
    gone = !(stat >> pid_field >> comm >> state) || state == "Z";
    if (!gone)
      usleep(20000);
  }
  EXPECT_TRUE(gone) << "helper " << helper << " still runs";
  if (!gone)
    kill(helper, SIGKILL);
}

TEST_F(HookSandbox, InitFailureIsLoggedOnceThenEachArgumentAndActionIsRefused) {
  // A file where the module's plug-in directory should be: the SDK cannot read it.
  WriteFile(root_ / "usr/vesk/lib/plugins/database_autoupdate", "not a directory");
  UpdateHook hook("db1", {"a.db"});
  EXPECT_EQ(log_.Lines(),
            (std::vector<std::string>{
                "err: hook.cpp:32 Failed to init hook in module [database_autoupdate] and path "
                "[database_autoupdate/version_change]",
                "err: hook.cpp:84 Not init or init failed",
                "err: hook.cpp:84 Not init or init failed",
                "err: hook.cpp:84 Not init or init failed",
            }));
  log_.Clear();
  EXPECT_FALSE(hook.ExecPre());
  EXPECT_FALSE(hook.ExecPost());
  // Line 103 (not 107): neither action reached the SDK.
  EXPECT_EQ(log_.Lines(), (std::vector<std::string>{
                              "err: hook.cpp:103 Not init or init failed",
                              "err: hook.cpp:103 Not init or init failed",
                          }));
}

TEST_F(HookSandbox, WithoutPluginsBothActionsSucceedAndOnlyARefusedArgumentIsLogged) {
  UpdateHook hook("db1", {"a.db"});
  EXPECT_FALSE(hook.SetEnv("BAD=KEY", "v1"));
  EXPECT_TRUE(hook.SetEnv("EXTRA", "v2"));
  EXPECT_TRUE(hook.ExecPre());
  EXPECT_TRUE(hook.ExecPost());
  EXPECT_EQ(log_.Lines(), (std::vector<std::string>{
                              "err: hook.cpp:89 Failed to set plugin argument key=BAD=KEY value=v1",
                          }));
}

// The plug-in sees the action, the database, the changed files sorted and
// joined (an empty value when there are none) and their delimiter. Copies share
// one SDK handle and its arguments; the first copy gone releases it for all.
TEST_F(HookSandbox, PassesActionAndArgumentsAndCopiesShareTheHandle) {
  WriteNotifier("notify");
  UpdateHook original("db1", {"b.db", "a.db"});
  UpdateHook& same = original;
  original = same;
  EXPECT_TRUE(original.ExecPre());
  {
    UpdateHook copy(original);
    EXPECT_TRUE(copy.ExecPost());  // the original's arguments: no new initialisation
    UpdateHook assigned("db9", {"z.db"});
    assigned = original;
    EXPECT_TRUE(assigned.ExecPre());
    UpdateHook none("db2", {});
    EXPECT_TRUE(none.ExecPre());
  }  // the copies release the shared handle (twice; the second release is refused)
  EXPECT_EQ(Record(), (std::vector<std::string>{"4|db1|a.db:b.db|:|set", "5|db1|a.db:b.db|:|set",
                                                "4|db1|a.db:b.db|:|set", "4|db2||:|set"}));
  // Released through a copy: the original's action is refused by the SDK, logged, not a crash.
  EXPECT_FALSE(original.ExecPre());
  EXPECT_EQ(log_.Lines(),
            (std::vector<std::string>{"err: hook.cpp:107 Failed to exec hook at action [4]"}));
}

}  // namespace
