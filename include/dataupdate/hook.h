// UpdateHook: tells the system's plug-ins before and after a database's files
// change.
//
// The hook runs the plug-ins of module "database_autoupdate" at path
// "database_autoupdate/version_change" through the platform plug-in SDK, with
// three named arguments: "DATABASE" (the database ID), "CHANGED_FILES" (the
// changed file names, sorted and joined by ":") and "DELIMITER" (":"). The
// pre-update action is 4, the post-update action 5. What a plug-in sees is
// written down in docs/plugins.md.
//
// Nothing here throws on the SDK's account: every failure is logged and
// reported by a false result. Copies share the SDK handle of the original and
// every destruction releases it, so keep one live object per update and do not
// run actions through a copy once another copy is gone (the SDK refuses the
// released handle; the action then fails and is logged).
#pragma once

#include <set>
#include <string>

#include "dataupdate/export.h"

// The SDK's action type, declared here without its header (which is not
// installed); the values used are 4 (pre-update) and 5 (post-update).
enum _tag_sdk_plugin_action_ : int;

namespace vesk::dataupdate {

class VESKDBUD_EXPORT UpdateHook {
 public:
  // Initialises the SDK for the hook's module and path and sets the three
  // arguments. A failed initialisation is logged and leaves the hook inert:
  // every later argument and action logs "Not init or init failed".
  UpdateHook(const std::string& database_id, const std::set<std::string>& changed_files);
  // Shares `other`'s SDK handle; no new initialisation.
  UpdateHook(const UpdateHook& other);
  // Assignment to itself does nothing; otherwise handle, module and path are copied.
  UpdateHook& operator=(const UpdateHook& other);
  // Calls Clear().
  virtual ~UpdateHook();

  // Runs the pre-update action (4); false when it could not run or a plug-in failed.
  virtual bool ExecPre();
  // Runs the post-update action (5); false when it could not run or a plug-in failed.
  virtual bool ExecPost();
  // Releases the SDK handle when it is not 0. The handle keeps its value.
  virtual void Clear();

  // Sets one named plug-in argument; false (logged) on failure.
  bool SetEnv(const std::string& key, const std::string& value);
  // Runs one plug-in action; false (logged) on failure.
  bool ExecAction(_tag_sdk_plugin_action_ action);
  // The file names in set order joined by ":" ("" for none); names holding
  // ":" are not escaped.
  std::string JoinFiles(const std::set<std::string>& files) const;

 private:
  unsigned long handle_;     // the SDK's handle (VLIBPluginHandle); 0 while not initialised
  std::string module_name_;  // always "database_autoupdate"
  std::string path_;         // always "database_autoupdate/version_change"
};

}  // namespace vesk::dataupdate
