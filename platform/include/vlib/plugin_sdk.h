// Plug-in SDK of the platform's core library. The contract plug-ins see is in
// docs/plugins.md.
//
// The plug-ins of a path are the executable regular files in
// "/usr/vesk/lib/plugins/<path>/" (below VESKDBUD_ROOT when set), found once by
// VLIBPluginSDKInit and run in byte order of their names. An action runs each
// plug-in with argv[1] = the action number in decimal and every named argument
// as an environment variable of the same name (added to the inherited
// environment), stdin from /dev/null, waits for each (at most
// VLIB_PLUGIN_TIMEOUT seconds, default 300, 0 = no limit), runs them all even
// when one fails, and fails if any failed.
//
// A missing directory means no plug-ins (success). A directory that cannot be
// read, a file standing where it should be, or a `path` that is empty,
// absolute or holds "." or ".." components makes VLIBPluginSDKInit fail and
// leaves *handle untouched.
//
// Every call returns 0 on success and -1 on failure with VLIBCErrGet telling
// why (an errno value; for an action, the first failing plug-in's 0x100 + exit
// status, 0x200 + signal, or ETIMEDOUT). Thread-safe.
#pragma once

#ifdef __cplusplus
extern "C" {
#endif

// In C++ the action type has a fixed underlying type, so that a header which
// only passes actions along (dataupdate/hook.h) can declare it opaquely as
// `enum _tag_sdk_plugin_action_ : int;` without including this file.
#ifdef __cplusplus
#define VLIB_PLUGIN_ACTION_BASE : int
#else
#define VLIB_PLUGIN_ACTION_BASE
#endif
enum _tag_sdk_plugin_action_ VLIB_PLUGIN_ACTION_BASE {
  VLIB_PLUGIN_ACTION_INSTALL = 1,
  VLIB_PLUGIN_ACTION_UNINSTALL = 2,
  VLIB_PLUGIN_ACTION_UPGRADE = 3,
  VLIB_PLUGIN_ACTION_PRE_UPDATE = 4,
  VLIB_PLUGIN_ACTION_POST_UPDATE = 5,
};
typedef enum _tag_sdk_plugin_action_ _tag_sdk_plugin_action_;
#undef VLIB_PLUGIN_ACTION_BASE

// An opaque handle; 0 is "none". Handles are ids into the SDK's own table, so a
// released or unknown handle is refused rather than touching freed memory.
typedef unsigned long VLIBPluginHandle;

int VLIBPluginSDKInit(const char* module, const char* path, VLIBPluginHandle* handle);
int VLIBPluginSetArg(VLIBPluginHandle handle, const char* key, const char* value);
int VLIBPluginAction(_tag_sdk_plugin_action_ action, VLIBPluginHandle handle);
int VLIBPluginExit(VLIBPluginHandle handle);

#ifdef __cplusplus
}
#endif
