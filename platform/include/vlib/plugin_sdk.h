// Plug-in SDK of the platform's core library.
//
// The plug-ins of a path are the executable files in
// "/usr/vesk/lib/plugins/<path>/" (below VESKDBUD_ROOT when set), run in name
// order. An action runs each plug-in with argv[1] = the action number and every
// named argument as an environment variable of the same name, waits for each,
// runs them all even when one fails, and fails if any failed. A missing
// directory means no plug-ins. Every call returns 0 on success.
#pragma once

#ifdef __cplusplus
extern "C" {
#endif

typedef enum _tag_sdk_plugin_action_ {
  VLIB_PLUGIN_ACTION_INSTALL = 1,
  VLIB_PLUGIN_ACTION_UNINSTALL = 2,
  VLIB_PLUGIN_ACTION_UPGRADE = 3,
  VLIB_PLUGIN_ACTION_PRE_UPDATE = 4,
  VLIB_PLUGIN_ACTION_POST_UPDATE = 5,
} _tag_sdk_plugin_action_;

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
