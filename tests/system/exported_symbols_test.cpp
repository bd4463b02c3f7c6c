// The C interface: the reader locks exported by libveskdbud.so, and every C function
// answering NULL and hostile arguments with its documented error return.
#include <errno.h>
#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <string>

#include "dataupdate/project_lock.h"
#include "test_support.h"
#include "vesk/archive.h"
#include "vesk/crypto_hwid.h"
#include "vesk/fs.h"
#include "vesk/mount_vol.h"
#include "vesk/signed_document.h"
#include "vlib/plugin_sdk.h"
#include "vlib/sysinfo.h"
#include "vlib/vlibc.h"

using namespace vesk::test;

TEST(ExportedSymbols, ReaderLockFunctionsAreExportedUnmangledAndInternalsHidden) {
  const std::string names = RunCommand({"nm", "-D", "--defined-only", VESKDBUD_SHARED_LIBRARY}).out;
  EXPECT_NE(names.find(" VESKDBUDGetFileLock\n"), std::string::npos) << names;
  EXPECT_NE(names.find(" VESKDBUDReleaseFileLock\n"), std::string::npos);
  EXPECT_EQ(names.find("log6detail4Emit"), std::string::npos);  // such as the log
}

// Each row is evaluated in order; an exception escaping a row fails the test.
TEST(CBoundary, NullAndHostileArgumentsGetTheDocumentedErrorReturn) {
  TempDir root;
  ScopedEnv env("VESKDBUD_ROOT", root.path().c_str());
  WriteFile(root / "file", "x");
  WriteFile(root / "usr/vesk/lib/plugins/f", "not a directory");
  const std::string file_path = root / "file";
  const char* file = file_path.c_str();
  VLIBPluginHandle p = 0;  // a missing plug-in directory: a valid, empty set
  ASSERT_EQ(VLIBPluginSDKInit("m", "no/plugins", &p), 0);
  std::unique_ptr<veskarchive, void (*)(veskarchive*)> archive(
      veskarchive_init(root.path().c_str()), veskarchive_free);
  veskarchive* h = archive.get();
  ASSERT_NE(h, nullptr);
  VESKVolInfo open_text{};  // fs_type without its NUL
  open_text.flags = VESK_VOL_FLAG_RW;
  std::memset(open_text.fs_type, 'x', sizeof open_text.fs_type);
  vesksigned_period period{};
  char reason[64] = "";
  size_t size = 7;
  const auto err = [](int code) { return VLIBCErrGet() == code; };
  const auto init = [](const char* module, const char* path, VLIBPluginHandle* out) {
    return VLIBPluginSDKInit(module, path, out) == -1 && VLIBCErrGet() == EINVAL;
  };
  const auto set = [p](const char* key, const char* value) {
    return VLIBPluginSetArg(p, key, value) == -1 && VLIBCErrGet() == EINVAL;
  };
  const auto invalid = [h] { return veskarchive_error(h) == VESKARCHIVE_E_INVALID; };
  const std::pair<const char*, bool> rows[] = {
      {"GetFileLock(NULL | ../..)",
       VESKDBUDGetFileLock(nullptr, 0) == -2 && VESKDBUDGetFileLock("../../etc/passwd", 0) == -2},
      {"Execl(NULL)", VLIBCExecl(nullptr, 0, nullptr) == -1 && err(EINVAL)},
      {"Exec(NULL)", VLIBCExec(nullptr, "a", nullptr, nullptr, nullptr) < 0 && err(EINVAL)},
      {"FileExist(NULL)", VLIBCFileExist(nullptr) == 0},
      {"UserAgent(NULL | size 0)", VLIBSysinfoUserAgentGet(nullptr, reason, 9) < 0 &&
                                       VLIBSysinfoUserAgentGet("c", reason, 0) < 0},
      {"MkdirP(NULL)", VESKFSMkdirP(nullptr, 0, 0, -1, -1, 0) == -1 && err(EINVAL)},
      {"VolInfoGet(NULL)", VESKMountVolInfoGet(nullptr, &open_text) == -1 && err(EINVAL)},
      {"VolInfoGet(, NULL)", VESKMountVolInfoGet("/volume1", nullptr) == -1 && err(EINVAL)},
      {"ServicePolicy(NULL)", VESKVolumeServicePolicy(nullptr) == 0},
      {"ServicePolicy(no NUL)", VESKVolumeServicePolicy(&open_text) == 1},
      {"PluginSDKInit(NULL | \"\" module)", init(nullptr, "p", &p) && init("", "p", &p)},
      {"PluginSDKInit(NULL path | handle)", init("m", nullptr, &p) && init("m", "p", nullptr)},
      {"PluginSDKInit(file in place)", VLIBPluginSDKInit("m", "f/x", &p) == -1 && err(ENOTDIR)},
      {"PluginSetArg(A=B | \"\" | NULL, x | K, NULL)",
       set("A=B", "x") && set("", "x") && set(nullptr, "x") && set("K", nullptr)},
      {"PluginSetArg(unknown)", VLIBPluginSetArg(p + 99, "K", "v") == -1 && err(EBADF)},
      {"PluginAction(unknown)", VLIBPluginAction(VLIB_PLUGIN_ACTION_INSTALL, p + 99) == -1},
      {"PluginExit(0)", VLIBPluginExit(0) == -1 && err(EBADF)},
      {"PluginExit", VLIBPluginExit(p) == 0},
      {"PluginExit again", VLIBPluginExit(p) == -1 && err(EBADF)},
      {"PluginSetArg(released)", VLIBPluginSetArg(p, "K", "v") == -1 && err(EBADF)},
      {"archive_init(NULL | \"\" | file)",
       !veskarchive_init(nullptr) && !veskarchive_init("") && !veskarchive_init(file)},
      {"archive_open(NULL)", veskarchive_open_with_keytype(nullptr, file, 6) == 0},
      {"archive_open(, NULL)", veskarchive_open_with_keytype(h, nullptr, 6) == 0 && invalid()},
      {"archive_open(, -1)", veskarchive_open_with_keytype(h, file, -1) == 0 && invalid()},
      {"archive_extract(NULL)", veskarchive_extract_multiple(nullptr, nullptr, 4) == 0},
      {"extract before open", veskarchive_extract_multiple(h, nullptr, 4) == 0 && invalid()},
      {"archive_binding(NULL)", veskarchive_binding(nullptr, &size) == nullptr && size == 0},
      {"archive_error(NULL), error_detail(NULL)",
       veskarchive_error(nullptr) == VESKARCHIVE_E_INVALID &&
           std::strcmp(veskarchive_error_detail(nullptr), "no handle") == 0},
      {"strerror(-1)", std::strcmp(veskarchive_strerror(-1), "unknown error code") == 0},
      {"document_verify(NULL)",
       vesksigned_document_verify(nullptr, file, 6, "v", &period, reason, sizeof reason) ==
               VESKARCHIVE_E_INVALID &&
           std::strcmp(reason, "invalid argument") == 0},
      {"document_verify(, NULL)", vesksigned_document_verify(file, file, 6, "v", nullptr, nullptr,
                                                             9) == VESKARCHIVE_E_INVALID},
      {"hwid_str(NULL)", veskcrypto_hwid_str(nullptr, 0) == 0 && err(EINVAL)},
  };
  for (const auto& [call, refused] : rows)
    EXPECT_TRUE(refused) << call;
  for (const char* path : {"", "/etc", "../x", "a/../../b", "a//b", "./a", "a/."})
    EXPECT_TRUE(init("m", path, &p)) << path;
}
