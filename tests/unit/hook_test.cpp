#include "dataupdate/hook.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <sstream>
#include <string>
#include <vector>

#include "test_support.h"

using vesk::dataupdate::UpdateHook;
using namespace vesk::test;

namespace {

// The hook over the real plug-in SDK in a VESKDBUD_ROOT sandbox; its plug-in
// records "<action>|<DATABASE>|<CHANGED_FILES>|<DELIMITER>|<CHANGED_FILES set?>".
class HookSandbox : public ::testing::Test {
 protected:
  std::string PluginDir() const {
    return root_ / "usr/vesk/lib/plugins/database_autoupdate/version_change";
  }
  std::string RecordFile() const { return root_ / "record.txt"; }

  void WritePlugin(const std::string& name, const std::string& extra = "") {
    const std::string path = PluginDir() + "/" + name;
    WriteFile(path,
              "#!/bin/sh\nprintf '%s|%s|%s|%s|%s\\n' \"$1\" \"$DATABASE\" "
              "\"$CHANGED_FILES\" \"$DELIMITER\" \"${CHANGED_FILES+set}\" >> '" +
                  RecordFile() + "'\n" + extra + "\n");
    ASSERT_EQ(chmod(path.c_str(), 0755), 0);
  }

  std::vector<std::string> Record() const {
    std::vector<std::string> lines;
    if (!Exists(RecordFile()))
      return lines;
    std::istringstream in(ReadFile(RecordFile()));
    for (std::string line; std::getline(in, line);)
      lines.push_back(line);
    return lines;
  }

  TempDir root_;
  ScopedEnv env_{"VESKDBUD_ROOT", root_.path().c_str()};
  LogCapture log_;
};

TEST_F(HookSandbox, PreAndPostPassTheirActionAndTheThreeArguments) {
  WritePlugin("notify");
  {
    UpdateHook hook("db1", {"b.db", "a.db"});
    EXPECT_TRUE(hook.ExecPre());
    EXPECT_TRUE(hook.ExecPost());
  }
  UpdateHook none("db2", {});  // no changed files reach the plug-in as an empty value
  EXPECT_TRUE(none.ExecPre());
  EXPECT_EQ(Record(), (std::vector<std::string>{"4|db1|a.db:b.db|:|set", "5|db1|a.db:b.db|:|set",
                                                "4|db2||:|set"}));
  EXPECT_EQ(log_.Lines(), std::vector<std::string>{});
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

TEST_F(HookSandbox, CopiesAndSelfAssignmentShareTheHandleAndItsArguments) {
  WritePlugin("notify");
  UpdateHook original("db1", {"a.db"});
  UpdateHook& same = original;
  original = same;
  EXPECT_TRUE(original.ExecPre());
  {
    UpdateHook copy(original);
    EXPECT_TRUE(copy.ExecPost());  // the original's arguments: no new initialisation
    UpdateHook assigned("db9", {"z.db"});
    assigned = original;
    EXPECT_TRUE(assigned.ExecPre());
  }  // the copies release the shared handle (twice; the second release is refused)
  EXPECT_EQ(Record(),
            (std::vector<std::string>{"4|db1|a.db|:|set", "5|db1|a.db|:|set", "4|db1|a.db|:|set"}));
  // Released through a copy: the original's action is refused by the SDK, logged, not a crash.
  EXPECT_FALSE(original.ExecPre());
  EXPECT_EQ(log_.Lines(),
            (std::vector<std::string>{"err: hook.cpp:107 Failed to exec hook at action [4]"}));
}

}  // namespace
